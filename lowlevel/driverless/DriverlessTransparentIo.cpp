#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/TransparentIo.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <unistd.h>

int QZHSMLowLevelDriverless::openFileTrans(const char* path, int flags, int mode) {
    clearError(*this);
    if (m_transFd >= 0)
        return failSecondOpen(*this, path);
    m_transFd = open_utf(path, flags, static_cast<mode_t>(mode));
    if (m_transFd < 0)
        return failErrno(*this, QZHSM_FAILURE, "Failed to open file ", path, errno);
    return 0;
}

int QZHSMLowLevelDriverless::readFileTrans(void* buf, int len) {
    return readTrans(*this, m_transFd, buf, len);
}

int QZHSMLowLevelDriverless::writeFileTrans(const void* buf, int len, long long) {
    if (!requireTrans(*this, m_transFd))
        return -1;
    const ssize_t written = ::write(m_transFd, buf, static_cast<size_t>(len));
    if (written < 0) // the text says "read" for writes too: programs look for it
        failErrno(*this, QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(written);
}

long long QZHSMLowLevelDriverless::seekFileTrans(long long offset, int whence) {
    return seekTrans(*this, m_transFd, offset, whence);
}

int QZHSMLowLevelDriverless::closeFileTrans() {
    clearError(*this);
    if (m_transFd >= 0)
        ::close(m_transFd);
    m_transFd = -1;
    return 0;
}
