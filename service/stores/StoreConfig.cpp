#include "service/stores/StoreConfig.h"

#include "platform/config/NkRegKey.h"
#include "service/Failure.h"
#include "service/stores/CommandStore.h"
#include "service/stores/DirectoryStore.h"
#include "service/stores/TrustedDirectory.h"

#include <charconv>

namespace {

constexpr long kTimeoutMax = 7L * 24 * 60 * 60;

std::chrono::seconds timeoutOf(const std::string& section, std::string_view text) {
    long seconds = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), seconds);
    if (error != std::errc() || end != text.end() || seconds < 1 || seconds > kTimeoutMax)
        throw Failure(QZHSM_FAILURE,
                      "[" + section + "] timeout is no number of seconds: " + std::string(text));
    return std::chrono::seconds(seconds);
}

std::unique_ptr<Store> openConfigured(const std::string& name) {
    const std::string section = "Store/" + name;
    NkRegKey key(false);
    if (key.open(section, false) != 0)
        throw Failure(QZHSM_FAILURE, "No store " + name + " is configured",
                      "A directory is named with a slash, as in ./" + name);
    const auto value = [&](const char* of) {
        const char* text = key.getValue(of);
        return std::string(text ? text : "");
    };
    const std::string directory = value("directory");
    MoverCommands commands{value("put"), value("get"), value("remove"), value("list")};
    const bool hasCommands = !commands.put.empty() || !commands.get.empty() || !commands.remove.empty();
    if (directory.empty() != hasCommands)
        throw Failure(QZHSM_FAILURE, "[" + section + "] must hold either directory or put, get and remove");
    if (hasCommands) {
        if (const std::string timeout = value("timeout"); !timeout.empty())
            commands.timeout = timeoutOf(section, timeout);
        return std::make_unique<CommandStore>(name, std::move(commands));
    }
    if (!directory.starts_with('/'))
        throw Failure(QZHSM_FAILURE, "[" + section + "] directory must be an absolute path");
    return std::make_unique<DirectoryStore>(directory, name);
}

} // namespace

std::unique_ptr<Store> openStore(const std::string& nameOrDirectory) {
    if (nameOrDirectory.find('/') != std::string::npos)
        return std::make_unique<DirectoryStore>(nameOrDirectory);
    return openConfigured(nameOrDirectory);
}

std::unique_ptr<Store> openNamedStore(const StubMetadata& metadata) {
    const bool isPath = metadata.store.find('/') != std::string::npos;
    std::unique_ptr<Store> store =
        isPath ? std::make_unique<DirectoryStore>(openTrustedDirectory(metadata.store), metadata.store)
               : openConfigured(metadata.store);
    if (store->uuid() != metadata.storeUuid)
        throw Failure(QZHSM_FAILURE, "Store " + metadata.store + " is another one than the stub names",
                      "If it is the right one all the same, name it with --store.");
    return store;
}

Store& NamedStores::find(const StubMetadata& metadata) {
    const std::lock_guard lock(m_mutex);
    std::unique_ptr<Store>& store = m_stores[{metadata.store, metadata.storeUuid}];
    if (!store)
        store = openNamedStore(metadata);
    return *store;
}
