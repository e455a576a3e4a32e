#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/TransparentIo.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <unistd.h>

int QZHSMLowLevelGlusterFs::openFileTrans(const char* path, int flags, int mode) {
    clearError(*this);
    if (transFd >= 0)
        return failSecondOpen(*this, path);
    transFd = open_utf(path, flags, static_cast<mode_t>(mode));
    if (transFd < 0)
        return fail(*this, QZHSM_FAILURE,
                    FXString::Format("open(%s) failed, error=%s", path, errnoReason(errno).c_str()));
    return 0;
}

int QZHSMLowLevelGlusterFs::readFileTrans(void*, int) {
    return refuse(*this, "readFileTrans");
}

int QZHSMLowLevelGlusterFs::writeFileTrans(const void* buf, int len, long long) {
    clearError(*this);
    const ssize_t written = ::write(transFd, buf, static_cast<size_t>(len));
    if (written < 0)
        return fail(*this, QZHSM_FAILURE,
                    FXString::Format("write(%d) failed error=%s", transFd, errnoReason(errno).c_str()));
    return static_cast<int>(written);
}

long long QZHSMLowLevelGlusterFs::seekFileTrans(long long offset, int whence) {
    clearError(*this);
    const off_t position = ::lseek(transFd, offset, whence);
    if (position == -1)
        fail(*this, QZHSM_FAILURE,
             FXString::Format("seek(%d) failed error=%s", transFd, errnoReason(errno).c_str()));
    return position;
}

int QZHSMLowLevelGlusterFs::closeFileTrans() {
    clearError(*this);
    if (transFd >= 0)
        ::close(transFd);
    transFd = -1;
    return 0;
}
