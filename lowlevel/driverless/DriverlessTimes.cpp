#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/Times.h"
#include "platform/files/TimedStat.h"

int QZHSMLowLevelDriverless::setAMCTime(const char* path, long atime, long mtime, long) {
    return setTimes(*this, path, atime, mtime);
}

int QZHSMLowLevelDriverless::statFile(const char* path, struct stat* st) {
    constexpr int kTimeoutSeconds = 120;
    clearError(*this);
    TimedStat timed(kTimeoutSeconds);
    const struct stat* found = timed.class_lstat(path);
    if (!found)
        return failErrno(*this, codeFor(timed.getErrno()), "Failed to stat ", path, timed.getErrno());
    *st = *found;
    return 0;
}
