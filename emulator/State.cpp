#include "emulator/State.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace emulator {

std::mutex driverLock;

void die(const std::string& what) {
    std::fprintf(stderr, "emulated driver: %s\n", what.c_str());
    std::abort();
}

Driver& driver() {
    static Driver& made = *[] { // never deleted: requests come until the very end of the process
        auto* fresh = new Driver;
        if (const char* wish = std::getenv("QZHSM_EMULATOR_FAIL")) {
            unsigned request = 0;
            std::pair<int, int> failure;
            char rest = '\0';
            if (std::sscanf(wish, "%u:%d:%d%c", &request, &failure.first, &failure.second, &rest) != 3)
                die(std::string("QZHSM_EMULATOR_FAIL is not NUMBER:ERRNO:TIMES: ") + wish);
            fresh->failures[request] = failure;
        }
        return fresh;
    }();
    return made;
}

void fail(unsigned request, int err, int times) {
    const std::lock_guard lock(driverLock);
    driver().failures[request] = {err, times};
}

int takeFailure(unsigned request) {
    const auto found = driver().failures.find(request);
    if (found == driver().failures.end() || found->second.second == 0)
        return 0;
    if (found->second.second > 0)
        --found->second.second;
    return found->second.first;
}

void note(unsigned request, const std::string& text, int err) {
    std::string line = text;
    if (err != 0) {
        const char* name = ::strerrorname_np(err);
        line += " -> " + (name ? name : "errno " + std::to_string(err)) + " (" + ::strerror(err) + ")";
    }
    if (std::getenv("QZHSM_EMULATOR_TRACE")) {
        const std::string traced = "    driver: " + line + "\n";
        static_cast<void>(!::write(STDERR_FILENO, traced.data(), traced.size()));
    }
    constexpr size_t kKept = 4096;
    if (driver().seen.size() < kKept)
        driver().seen.push_back({request, err, line});
}

int answerWith(int err, int success) {
    if (err == 0)
        return success; // and errno stays, as after any system call that succeeds
    errno = err;
    return -1;
}

} // namespace emulator
