#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "platform/files/TimedStat.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <string>
#include <unistd.h>

bool QZHSMLowLevelDriverless::requireTrans() {
    clearError();
    if (m_transFd < 0)
        fail(QZHSM_FAILURE, "No file has been open in transparent mode yet.");
    return m_transFd >= 0;
}

int QZHSMLowLevelDriverless::openFileTrans(const char* path, int flags, int mode) {
    clearError();
    if (m_transFd >= 0)
        return fail(QZHSM_FAILURE, std::string("Attempt to open a new file ") + path +
                                       " in transparent mode w/o closing the previous one first.");
    m_transFd = open_utf(path, flags, static_cast<mode_t>(mode));
    if (m_transFd < 0)
        return failErrno(QZHSM_FAILURE, "Failed to open file ", path, errno);
    return 0;
}

int QZHSMLowLevelDriverless::readFileTrans(void* buf, int len) {
    if (!requireTrans())
        return -1;
    const ssize_t got = ::read(m_transFd, buf, static_cast<size_t>(len));
    if (got < 0)
        failErrno(QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(got);
}

int QZHSMLowLevelDriverless::writeFileTrans(const void* buf, int len, long long) {
    if (!requireTrans())
        return -1;
    const ssize_t written = ::write(m_transFd, buf, static_cast<size_t>(len));
    if (written < 0) // the text says "read" for writes too: programs look for it
        failErrno(QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(written);
}

long long QZHSMLowLevelDriverless::seekFileTrans(long long offset, int whence) {
    if (!requireTrans())
        return -1;
    const off_t position = ::lseek(m_transFd, offset, whence);
    if (position < 0)
        failErrno(QZHSM_FAILURE, "Transparent seek() failed", "", errno);
    return position;
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
    const utimbuf times{atime, mtime};
    if (utime_utf(path, &times) == 0)
        return 0;
    const int err = errno;
    return failErrno(codeFor(err), "Failed to change time of ", path, err);
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
