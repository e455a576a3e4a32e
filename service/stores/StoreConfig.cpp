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

bool isPath(const std::string& nameOrDirectory) {
    return nameOrDirectory.find('/') != std::string::npos;
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
    if (isPath(nameOrDirectory))
        return std::make_unique<DirectoryStore>(nameOrDirectory);
    return openConfigured(nameOrDirectory);
}

std::unique_ptr<Store> openStoreForStubs(const std::string& nameOrDirectory) {
    std::unique_ptr<Store> store = openStore(nameOrDirectory);
    if (isPath(nameOrDirectory))
        openTrustedDirectory(store->name());
    return store;
}

std::unique_ptr<Store> openNamedStore(const StubMetadata& metadata) {
    std::unique_ptr<Store> store =
        isPath(metadata.store)
            ? std::make_unique<DirectoryStore>(openTrustedDirectory(metadata.store), metadata.store)
            : openConfigured(metadata.store);
    if (store->uuid() != metadata.storeUuid)
        throw Failure(QZHSM_FAILURE, "Store " + metadata.store + " is another one than the stub names",
                      "If it is the right one all the same, name it with --store.");
    return store;
}

Store& NamedStores::find(const StubMetadata& metadata) {
    const std::pair key(metadata.store, metadata.storeUuid);
    {
        const std::lock_guard lock(m_mutex);
        if (const auto found = m_stores.find(key); found != m_stores.end())
            return *found->second;
    }
    // A store that hangs holds up nobody who needs another one. What cannot be opened is not kept: stubs may
    // name anything.
    std::unique_ptr<Store> store = openNamedStore(metadata);
    const std::lock_guard lock(m_mutex);
    return *m_stores.try_emplace(key, std::move(store)).first->second;
}
