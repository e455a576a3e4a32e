#include "lowlevel/internal/Times.h"

#include "lowlevel/internal/LastError.h"
#include "platform/files/utf_files.h"

#include <cerrno>

int setTimes(QZHSMLowLevel& backEnd, const char* path, long atime, long mtime) {
    clearError(backEnd);
    const utimbuf times{atime, mtime};
    if (utime_utf(path, &times) == 0)
        return 0;
    const int err = errno;
    return failErrno(backEnd, codeFor(err), "Failed to change time of ", path, err);
}

int statPath(QZHSMLowLevel& backEnd, const char* path, struct stat* st) {
    clearError(backEnd);
    if (stat_utf(path, st) == 0)
        return 0;
    const int err = errno;
    return failErrno(backEnd, codeFor(err), "Failed to stat ", path, err);
}
