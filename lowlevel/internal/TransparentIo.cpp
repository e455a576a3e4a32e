#include "lowlevel/internal/TransparentIo.h"

#include "lowlevel/internal/LastError.h"

#include <cerrno>
#include <string>
#include <unistd.h>

int failSecondOpen(QZHSMLowLevel& backEnd, std::string_view path) {
    return fail(backEnd, QZHSM_FAILURE,
                "Attempt to open a new file " + std::string(path) +
                    " in transparent mode w/o closing the previous one first.");
}

bool requireTrans(QZHSMLowLevel& backEnd, int fd) {
    clearError(backEnd);
    if (fd < 0)
        fail(backEnd, QZHSM_FAILURE, "No file has been open in transparent mode yet.");
    return fd >= 0;
}

int readTrans(QZHSMLowLevel& backEnd, int fd, void* buf, int len) {
    if (!requireTrans(backEnd, fd))
        return -1;
    const ssize_t got = ::read(fd, buf, static_cast<size_t>(len));
    if (got < 0)
        failErrno(backEnd, QZHSM_FAILURE, "Transparent read() failed", "", errno);
    return static_cast<int>(got);
}

long long seekTrans(QZHSMLowLevel& backEnd, int fd, long long offset, int whence) {
    if (!requireTrans(backEnd, fd))
        return -1;
    const off_t position = ::lseek(fd, offset, whence);
    if (position < 0)
        failErrno(backEnd, QZHSM_FAILURE, "Transparent seek() failed", "", errno);
    return position;
}
