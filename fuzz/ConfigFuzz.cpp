#include "lowlevel/lustre/LustreArchive.h"
#include "platform/config/ConfigFile.h"
#include "platform/config/NKPI_Focus.h"
#include "service/ConfigCheck.h"
#include "service/Failure.h"
#include "service/serve/ServeRules.h"
#include "service/stores/StoreConfig.h"

#include <cstdint>
#include <cstdlib>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void put(int file, std::string_view text) {
    if (::ftruncate(file, 0) < 0 ||
        ::pwrite(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        std::abort();
}

template <class Read>
void tolerate(Read read) {
    try {
        read();
    } catch (const Failure&) { // a value that makes no sense
    }
}

} // namespace

/// What is read must, written plainly, read the same; and every reader of values copes with any value.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = ::memfd_create("config", 0);
    ::setenv("QZHSM_CONFIG", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    put(file, text);
    const ConfigFile config = ConfigFile::read();
    configWarnings();
    readArchiveTimeout();
    NKPI_Focus::getFocus();
    tolerate([] { ServeRules::read(); });
    std::set<std::string> stores;
    std::string plain = "\n"; // at a file's start some bytes are skipped
    for (const ConfigFile::Entry& entry : config.entries()) {
        constexpr std::string_view kStore = "Store/";
        const std::string* value = config.value(entry.section, entry.key);
        const bool isWhole =
            entry.section.empty() || text.find("[" + entry.section + "]") != std::string_view::npos;
        if (!value || !isWhole || text.find(entry.key) == std::string_view::npos ||
            text.find(*value) == std::string_view::npos)
            std::abort();
        plain.append("[" + entry.section + "]\n" + entry.key + "=" + *value + "\n");
        if (entry.section.starts_with(kStore) && entry.section.find('/', kStore.size()) == std::string::npos)
            stores.insert(entry.section.substr(kStore.size()));
    }
    for (const std::string& store : stores)
        tolerate([&] { openStore(store); });
    put(file, plain);
    const ConfigFile again = ConfigFile::read();
    for (const ConfigFile::Entry& entry : config.entries()) {
        const std::string* value = again.value(entry.section, entry.key);
        if (!value || *value != *config.value(entry.section, entry.key))
            std::abort();
    }
    if (again.entries().size() != config.entries().size())
        std::abort();
    return 0;
}
