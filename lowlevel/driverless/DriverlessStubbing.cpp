#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/driverless/StubMark.h"
#include "platform/files/NkACL.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int kHeaderMax = 4096;

/// Asks on behalf of a write lock: lockf's own test overlooks the read locks of others.
bool lockedByAnother(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_CUR;
    return ::fcntl(fd, F_GETLK, &lock) < 0 || lock.l_type != F_UNLCK;
}

} // namespace

bool QZHSMLowLevelDriverless::makeHole(int fd, long long size) {
    return ::lseek(fd, size - 1, SEEK_SET) >= 0 && ::write(fd, "", 1) >= 0 && ::lseek(fd, 0, SEEK_SET) >= 0;
}

int QZHSMLowLevelDriverless::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    clearError();
    struct stat st {};
    if (statPath(path, &st) < 0)
        return -1;
    if (refTime < st.st_mtime)
        return fail(QZHSM_BUSY, std::string("Not stubbing modified file ") + path);
    if (!S_ISREG(st.st_mode))
        return fail(QZHSM_FAILURE, std::string("Not stubbing special file ") + path);

    // Made before the file is touched, so that metadata which does not fit costs nothing.
    char header[kHeaderMax];
    const int headerLength = qzhsm_meta2stub(stubMeta, st.st_size, header, sizeof header);
    if (headerLength < 0)
        return failErrno(QZHSM_FAILURE, "Failed to write into ", path, EMSGSIZE);

    // The mark comes first and no failure removes it: a file must never be without its data and its mark.
    if (mark(path) < 0)
        return -1;
    {
        const UniqueFd file(open_utf(path, O_WRONLY));
        if (!file.isOpen())
            return failErrno(QZHSM_FAILURE, "Failed to open ", path, errno);
        if (lockedByAnother(file.get()))
            return fail(QZHSM_BUSY, std::string("Not stubbing open file ") + path);
        if (::ftruncate(file.get(), 0) < 0)
            return fail(QZHSM_FAILURE, std::string("could not truncate file ") + path);
        if (!makeHole(file.get(), st.st_size) ||
            ::write(file.get(), header, static_cast<size_t>(headerLength)) < 0)
            return failErrno(QZHSM_FAILURE, "Failed to write into ", path, errno);
    }
    const utimbuf times{st.st_atime, st.st_mtime};
    if (utime_utf(path, &times) != 0)
        return fail(QZHSM_FAILURE, std::string("could not reset file times back on file ") + path);
    return 0;
}

int QZHSMLowLevelDriverless::restoreStub(const char* path, const std::vector<char>& stubData) {
    clearError();
    if (mark(path) < 0)
        return -1;

    const std::string text(stubData.begin(), stubData.end());
    long long size = 0;
    char meta[256];
    if (!qzhsm_stub2meta(text.c_str(), nullptr, &size, meta, sizeof meta, false))
        return fail(QZHSM_FAILURE, std::string("Stub ") + path + " has corrupt metadata.");

    const UniqueFd file(open_utf(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (!file.isOpen()) {
        const int err = errno;
        return failErrno(QZHSM_FAILURE, "Failed to open ", std::string(path) + " for writing", err);
    }
    if (!makeHole(file.get(), size) ||
        writeAll(file.get(), stubData.data(), static_cast<int>(stubData.size())) < 0)
        return failErrno(QZHSM_FAILURE, "Failed to write into ", path, errno);
    return 0;
}

int QZHSMLowLevelDriverless::restoreDone(const char* path, bool success, const std::list<long long>&) {
    if (!success)
        return 0;
    const int result = m_aclHelper->removeAttribute(path, kStubMark);
    if (result < 0)
        failFromAcl();
    return result;
}
