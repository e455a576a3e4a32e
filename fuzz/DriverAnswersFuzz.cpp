#include "fuzz/TempFile.h"
#include "lowlevel/driver/DriverClock.h"
#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/drivers/QZHSMServiceHelper.h"
#include "platform/logging/CLogWriterInterface.h"
#include "platform/stub/StubText.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace {

std::string_view answers; ///< what the driver has yet to say

bool isDevice(const char* path) {
    return std::strcmp(path, kDriverDevice) == 0;
}

} // namespace

// A driver that answers each request with the next bytes: an errno, or 0 and what comes in the record's
// place. NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int stat(const char* path, struct stat* st) noexcept {
    return ::fstatat(AT_FDCWD, isDevice(path) ? "/dev/null" : path, st, 0);
}

extern "C" int open(const char* path, int flags, ...) {
    return ::openat(AT_FDCWD, isDevice(path) ? "/dev/null" : path, flags, 0600);
}

extern "C" int ioctl(int, unsigned long command, ...) noexcept {
    va_list args;
    va_start(args, command);
    auto* record = va_arg(args, char*);
    va_end(args);
    if (answers.empty())
        answers = std::string_view("\0", 1);
    const auto err = static_cast<unsigned char>(answers[0]);
    answers.remove_prefix(1);
    const size_t size =
        (_IOC_DIR(command) & _IOC_READ) != 0 ? std::min<size_t>(_IOC_SIZE(command), answers.size()) : 0;
    if (err != 0) {
        errno = err;
        return -1;
    }
    answers.copy(record, size);
    answers.remove_prefix(size);
    return 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

/// Whatever the driver says, stub data that is handed out is whole, and no more is written than there is.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempFile stub;
    static const UniqueFd file(::openat(AT_FDCWD, stub.path.c_str(), O_RDWR));
    g_driverClock = [](std::time_t*) {
        static std::time_t now = 0;
        return ++now; // nobody waits for a busy driver here
    };
    g_ptrLogWriter = nullptr;
    answers = {reinterpret_cast<const char*>(data), size};
    QZHSMLowLevelQZFS backEnd;
    const auto requireWhole = [](int result, std::vector<char> stubData) {
        if (result < 0)
            return;
        int length = 0;
        std::vector<char> meta(kStubTextMax);
        stubData.push_back('\0');
        if (!qzhsm_stub2meta(stubData.data(), &length, nullptr, meta.data(), kStubTextMax, true) ||
            static_cast<size_t>(length) + 1 != stubData.size())
            std::abort();
    };
    const char* const p = stub.path.c_str();
    const fsf_fid fid{};
    std::vector<char> stubData;
    bool isStub = false;
    int state = 0;
    backEnd.isStub(p);
    backEnd.getFileInfo(p, &isStub, &state);
    requireWhole(backEnd.backupStub(p, stubData), stubData);
    requireWhole(backEnd.backupStub(file.get(), 0, fid, stubData), stubData);
    backEnd.isDMRFS(p);
    backEnd.startWatchingDirTree(p);
    backEnd.resubmitPendingRecalls();
    backEnd.openFileTrans(file.get(), 0, fid);
    constexpr int kLength = 16;
    const char bytes[kLength] = {};
    if (const int written = backEnd.writeFileTransAll(bytes, kLength); written < -1 || written > kLength)
        std::abort();
    backEnd.restoreDone(p, true, {});
    backEnd.closeFileTrans();
    return 0;
}
