#include "lowlevel/QZHSMLowLevel.h"
#include "platform/files/NkACL.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubText.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

int QZHSMLowLevel::succeed() {
    clearError();
    return 0;
}

int QZHSMLowLevel::refuse(std::string_view operation) {
    return fail(QZHSM_NOT_IMPLEMENTED, std::string(operation) + " not implemented");
}

int QZHSMLowLevel::statPath(const char* path, struct stat* st) {
    if (stat_utf(path, st) == 0)
        return 0;
    const int err = errno;
    return failErrno(codeFor(err), "Failed to stat ", path, err);
}

int QZHSMLowLevel::setTimes(const char* path, long atime, long mtime) {
    const utimbuf times{atime, mtime};
    if (utime_utf(path, &times) == 0)
        return 0;
    const int err = errno;
    return failErrno(codeFor(err), "Failed to change time of ", path, err);
}

bool QZHSMLowLevel::readStubAttribute(const char* path, std::vector<char>& stubData) {
    std::fill(stubData.begin(), stubData.end(), '\0');
    const auto acl = NkACL::Helper::getInstance(NkACL::Type::StubText);
    return acl->supportsXattr(path) &&
           acl->getAttribute(path, "user.TSTUB", stubData.data(), stubData.size()) > 0;
}

int QZHSMLowLevel::decodeStubData(const char* path, const std::vector<char>& stubData,
                                  std::vector<char>& meta, long long& size) {
    constexpr size_t kFirstGuess = 256;
    const std::string text(stubData.begin(), stubData.end());
    meta.resize(kFirstGuess);
    for (;;) {
        std::fill(meta.begin(), meta.end(), '\0');
        int needed = 0;
        if (qzhsm_stub2meta(text.c_str(), &needed, &size, meta.data(), static_cast<int>(meta.size()), false))
            return 0;
        if (needed <= static_cast<int>(meta.size()))
            return fail(QZHSM_FAILURE, std::string("Stub ") + path + " has corrupt metadata.");
        meta.resize(static_cast<size_t>(needed));
    }
}

int QZHSMLowLevel::failSecondOpen(std::string_view path) {
    return fail(QZHSM_FAILURE, "Attempt to open a new file " + std::string(path) +
                                   " in transparent mode w/o closing the previous one first.");
}

bool QZHSMLowLevel::requireTrans(int fd) {
    clearError();
    if (fd < 0)
        fail(QZHSM_FAILURE, "No file has been open in transparent mode yet.");
    return fd >= 0;
}

int QZHSMLowLevel::readTrans(int fd, void* buf, int len) {
    if (!requireTrans(fd))
        return -1;
    const ssize_t got = ::read(fd, buf, static_cast<size_t>(len));
    if (got < 0)
        failErrno(QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(got);
}

long long QZHSMLowLevel::seekTrans(int fd, long long offset, int whence) {
    if (!requireTrans(fd))
        return -1;
    const off_t position = ::lseek(fd, offset, whence);
    if (position < 0)
        failErrno(QZHSM_FAILURE, "Transparent seek() failed", "", errno);
    return position;
}
