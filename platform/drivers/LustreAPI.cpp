#include "platform/drivers/LustreAPI.h"

#include "platform/config/NkRegKey.h"
#include "platform/drivers/LustreRecords.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <thread>

namespace {

struct Functions {
    void* (*requestAlloc)(int itemCount, int dataLength);
    int (*path2fid)(const char* path, lu_fid* fid);
    int (*request)(const char* path, const void* request);
    int (*stateGet)(const char* path, void* state);
};

std::mutex loadLock;
Functions loadedFunctions;
std::atomic<const Functions*> functions{nullptr};
constexpr unsigned kDefaultTimeoutSeconds = 3600;
std::atomic<unsigned> archiveTimeoutSeconds{kDefaultTimeoutSeconds};

template <class Function>
bool bind(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

/// Empty, or the name of what is missing.
std::string load() {
    const std::lock_guard lock(loadLock);
    if (functions)
        return {};
    void* library = ::dlopen("liblustreapi.so.1", RTLD_NOW);
    std::string missing = library ? "" : ::dlerror();
    if (!library)
        library = ::dlopen("liblustreapi.so", RTLD_NOW);
    if (!library)
        return missing;
    Functions& f = loadedFunctions;
    // The library stays loaded: its functions may be running when anyone would unload it.
    if (!bind(library, "llapi_hsm_user_request_alloc", f.requestAlloc) ||
        !bind(library, "llapi_path2fid", f.path2fid) || !bind(library, "llapi_hsm_request", f.request) ||
        !bind(library, "llapi_hsm_state_get", f.stateGet))
        return ::dlerror();
    functions = &f;
    return {};
}

void readConfiguration() {
    NkRegKey key(true);
    const char* timeout = key.open("Lustre", true) == 0 ? key.getValue("archiveTimeout") : nullptr;
    unsigned seconds = kDefaultTimeoutSeconds;
    if (timeout)
        std::from_chars(timeout, timeout + std::strlen(timeout), seconds);
    archiveTimeoutSeconds = seconds;
}

/// A release before the file is archived and unchanged is refused, so this waits for both; and an archived
/// copy that is lost is none.
int waitUntilArchived(const char* path, std::string& errorText) {
    using namespace std::chrono;
    constexpr milliseconds kLongestPause{1000};
    const seconds timeout(archiveTimeoutSeconds);
    const auto deadline = steady_clock::now() + timeout;
    for (milliseconds pause{1};; pause = std::min(2 * pause, kLongestPause)) {
        HsmState state{};
        if (const int result = functions.load()->stateGet(path, &state); result < 0) {
            errorText = "Failed to learn the HSM state of";
            return result;
        }
        if ((state.states & (kHsmArchived | kHsmDirty | kHsmLost)) == kHsmArchived)
            return 0;
        const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
        if (left <= milliseconds::zero()) {
            errorText = "Not archived within " + std::to_string(timeout.count()) + " seconds:";
            return -ETIMEDOUT;
        }
        std::this_thread::sleep_for(std::min(pause, left));
    }
}

} // namespace

CWbError LustreAPI::LoadFunctions() {
    readConfiguration();
    const std::string missing = load();
    if (missing.empty())
        return CWbError::Success();
    return {-ENOSYS, {"LustreAPI::LoadFunctions", "LustreAPI", 100}, missing};
}

int LustreAPI::HSMArchive(const char* path, const char* requestData, std::string& errorText) {
    const Functions* lustre = functions;
    if (!lustre) {
        errorText = "The Lustre library is not loaded:";
        return -ENOSYS;
    }
    const size_t dataLength = std::strlen(requestData);
    const std::unique_ptr<void, void (*)(void*)> memory(lustre->requestAlloc(1, static_cast<int>(dataLength)),
                                                        std::free);
    if (!memory) {
        errorText = "Failed to make an archive request for";
        return -ENOMEM;
    }
    HsmRequest request{};
    request.action = kHsmArchive;
    request.itemCount = 1;
    request.dataLength = static_cast<uint32_t>(dataLength);
    HsmItem item{};
    item.length = kWholeFile;
    if (const int result = lustre->path2fid(path, &item.fid); result < 0) {
        errorText = "Failed to learn the FID of";
        return result;
    }
    char* at = static_cast<char*>(memory.get());
    std::memcpy(at, &request, sizeof request);
    std::memcpy(at + sizeof request, &item, sizeof item);
    std::copy_n(requestData, dataLength, at + sizeof request + sizeof item);
    if (const int result = lustre->request(path, memory.get()); result < 0) {
        errorText = "Failed to request archiving of";
        return result;
    }
    return waitUntilArchived(path, errorText);
}
