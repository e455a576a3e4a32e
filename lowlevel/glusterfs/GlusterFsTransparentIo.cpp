#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <unistd.h>

int QZHSMLowLevelGlusterFs::openFileTrans(const char* path, int flags, int mode) {
    clearError();
    if (transFd >= 0)
        return fail(QZHSM_FAILURE, std::string("Attempt to open a new file ") + path +
                                       " in transparent mode w/o closing the previous one first.");
    transFd = open_utf(path, flags, static_cast<mode_t>(mode));
    if (transFd < 0)
        return fail(QZHSM_FAILURE,
                    FXString::Format("open(%s) failed, error=%s", path, errnoReason(errno).c_str()));
    return 0;
}

int QZHSMLowLevelGlusterFs::readFileTrans(void*, int) {
    clearError();
    return fail(QZHSM_NOT_IMPLEMENTED, "readFileTrans not implemented");
}

int QZHSMLowLevelGlusterFs::writeFileTrans(const void* buf, int len, long long) {
    clearError();
    const ssize_t written = ::write(transFd, buf, static_cast<size_t>(len));
    if (written < 0)
        return fail(QZHSM_FAILURE,
                    FXString::Format("write(%d) failed error=%s", transFd, errnoReason(errno).c_str()));
    return static_cast<int>(written);
}

long long QZHSMLowLevelGlusterFs::seekFileTrans(long long offset, int whence) {
    clearError();
    const off_t position = ::lseek(transFd, offset, whence);
    if (position == -1)
        fail(QZHSM_FAILURE,
             FXString::Format("seek(%d) failed error=%s", transFd, errnoReason(errno).c_str()));
    return position;
}

int QZHSMLowLevelGlusterFs::closeFileTrans() {
    clearError();
    if (transFd >= 0)
        ::close(transFd);
    transFd = -1;
    return 0;
}

int QZHSMLowLevelGlusterFs::setAMCTime(const char* path, long atime, long mtime, long) {
    clearError();
    const utimbuf times{atime, mtime};
    if (utime_utf(path, &times) == 0)
        return 0;
    const int err = errno;
    return failErrno(codeFor(err), "Failed to change time of ", path, err);
}

int QZHSMLowLevelGlusterFs::statFile(const char* path, struct stat* st) {
    clearError();
    if (stat_utf(path, st) == 0)
        return 0;
    const int err = errno;
    return failErrno(codeFor(err), "Failed to stat ", path, err);
}
