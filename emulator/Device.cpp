// The device: the calls whose place the emulator takes.

#include "emulator/Requests.h"
#include "emulator/State.h"
#include "platform/drivers/QZHSMServiceHelper.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using namespace emulator;

std::atomic<bool> answeringAtOnce{false};

/// What opens when the driver's device is opened.
constexpr const char* kBehindDevice = "/dev/null";

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool isDevicePath(const char* path) {
    return std::strcmp(path, kDriverDevice) == 0 && driver().loaded;
}

bool isDevice(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, 3);
}

} // namespace

// The C library names its parameters otherwise.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

QZHSM_API int stat(const char* path, struct stat* st) noexcept {
    static auto* stat = next<int(const char*, struct stat*)>("stat");
    return stat(isDevicePath(path) ? kBehindDevice : path, st);
}

QZHSM_API int open(const char* path, int flags, ...) {
    static auto* open = next<int(const char*, int, ...)>("open");
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started right above
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    if (!isDevicePath(path))
        return open(path, flags, mode);
    if (flags != O_RDWR)
        die("the device is opened with other flags than O_RDWR");
    const std::lock_guard lock(driverLock);
    const int err = takeFailure(kOpenDevice);
    note(kOpenDevice, std::string("open ") + path, err);
    return err == 0 ? open(kBehindDevice, flags) : answerWith(err, -1);
}

QZHSM_API int ioctl(int fd, unsigned long command, ...) noexcept {
    static auto* ioctl = next<int(int, unsigned long, ...)>("ioctl");
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (_IOC_TYPE(command) != 'C')
        return ioctl(fd, command, argument);
    if (answeringAtOnce) // which "/dev/null" refuses
        return ioctl(fd, command, argument) < 0 && errno == ENOTTY ? 0 : -1;
    return isDevice(fd) ? answerRequest(command, argument) : ioctl(fd, command, argument);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

void emulator::answerAtOnce(bool atOnce) {
    answeringAtOnce = atOnce;
}
