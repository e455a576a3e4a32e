#include "lowlevel/lustre/LustreArchive.h"

#include "platform/config/NkRegKey.h"
#include "platform/drivers/LustreAPI.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <string_view>
#include <thread>

namespace {

constexpr unsigned kDefaultTimeoutSeconds = 3600;
std::atomic<unsigned> timeoutSeconds{kDefaultTimeoutSeconds};

} // namespace

void readArchiveTimeout() {
    NkRegKey key(true);
    const char* found = key.open("Lustre", true) == 0 ? key.getValue("archiveTimeout") : nullptr;
    const std::string_view timeout = found ? found : "";
    unsigned seconds = 0;
    const char* end = timeout.data() + timeout.size();
    const auto [behind, err] = std::from_chars(timeout.data(), end, seconds);
    timeoutSeconds = err == std::errc() && behind == end ? seconds : kDefaultTimeoutSeconds;
}

int archiveAndWait(const char* path, const char* requestData, std::string& errorText) {
    using namespace std::chrono;
    constexpr milliseconds kLongestPause{1000};
    if (const int result = LustreAPI::HSMArchive(path, requestData, errorText); result < 0)
        return result;
    const seconds timeout(timeoutSeconds);
    const auto deadline = steady_clock::now() + timeout;
    for (milliseconds pause{1};; pause = std::min(2 * pause, kLongestPause)) {
        uint32_t states = 0;
        if (const int result = LustreAPI::HSMStates(path, states, errorText); result < 0)
            return result;
        if ((states & (kHsmArchived | kHsmDirty | kHsmLost)) == kHsmArchived)
            return 0;
        const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
        if (left <= milliseconds::zero()) {
            errorText = "Not archived within " + std::to_string(timeout.count()) + " seconds:";
            return -ETIMEDOUT;
        }
        std::this_thread::sleep_for(std::min(pause, left));
    }
}
