#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "platform/files/TimedStat.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <unistd.h>

int QZHSMLowLevelDriverless::openFileTrans(const char* path, int flags, int mode) {
    clearError();
    if (m_transFd >= 0)
        return failSecondOpen(path);
    m_transFd = open_utf(path, flags, static_cast<mode_t>(mode));
    if (m_transFd < 0)
        return failErrno(QZHSM_FAILURE, "Failed to open file ", path, errno);
    return 0;
}

int QZHSMLowLevelDriverless::readFileTrans(void* buf, int len) {
    return readTrans(m_transFd, buf, len);
}

int QZHSMLowLevelDriverless::writeFileTrans(const void* buf, int len, long long) {
    if (!requireTrans(m_transFd))
        return -1;
    const ssize_t written = ::write(m_transFd, buf, static_cast<size_t>(len));
    if (written < 0) // the text says "read" for writes too: programs look for it
        failErrno(QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(written);
}

long long QZHSMLowLevelDriverless::seekFileTrans(long long offset, int whence) {
    return seekTrans(m_transFd, offset, whence);
}

int QZHSMLowLevelDriverless::closeFileTrans() {
    clearError();
    if (m_transFd >= 0)
        ::close(m_transFd);
    m_transFd = -1;
    return 0;
}

int QZHSMLowLevelDriverless::setAMCTime(const char* path, long atime, long mtime, long) {
    clearError();
    return setTimes(path, atime, mtime);
}

int QZHSMLowLevelDriverless::statFile(const char* path, struct stat* st) {
    constexpr int kTimeoutSeconds = 120;
    clearError();
    TimedStat timed(kTimeoutSeconds);
    const struct stat* found = timed.class_lstat(path);
    if (!found)
        return failErrno(codeFor(timed.getErrno()), "Failed to stat ", path, timed.getErrno());
    *st = *found;
    return 0;
}
