#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/Times.h"
#include "platform/files/NkACL.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int kHeaderMax = 4096;

int failFrom(QZHSMLowLevel& backEnd, const NkACL::Helper& acl) {
    return fail(backEnd, acl.getLastErrno(), acl.getLastError());
}

/// Sets the mark if attributes work. 0, or -1 with the error set.
int mark(QZHSMLowLevel& backEnd, NkACL::Helper& acl, const char* path) {
    if (acl.supportsXattr(path) && acl.setAttribute(path, kStubMark, &kStubMarkValue, 1) < 0)
        return failFrom(backEnd, acl);
    return 0;
}

/// Gives an empty file its stub's size as a hole; the descriptor ends at offset 0.
bool makeHole(int fd, long long size) {
    return ::lseek(fd, size - 1, SEEK_SET) >= 0 && ::write(fd, "", 1) >= 0 && ::lseek(fd, 0, SEEK_SET) >= 0;
}

/// Asks on behalf of a write lock: lockf's own test overlooks the read locks of others.
bool lockedByAnother(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_CUR;
    return ::fcntl(fd, F_GETLK, &lock) < 0 || lock.l_type != F_UNLCK;
}

} // namespace

int QZHSMLowLevelDriverless::isStub(const char* path) {
    clearError(*this);
    if (m_archiveAndDelete)
        return 0;
    struct stat st {};
    if (statPath(*this, path, &st) < 0)
        return 0;
    if (m_aclHelper->supportsXattr(path)) {
        char value = '\0';
        return m_aclHelper->getAttribute(path, kStubMark, &value, 1) == 1 && value == kStubMarkValue ? 1 : 0;
    }

    char text[1024] = "";
    {
        const UniqueFd file(open_utf(path, O_RDONLY, 0600));
        if (!file.isOpen()) {
            // Whatever kept it from being opened, callers know this failure as code 4 without a reason.
            fail(*this, QZHSM_NOT_FOUND, std::string("Failed to open ") + path);
            return 0;
        }
        if (::read(file.get(), text, sizeof text) < 0) {
            fail(*this, QZHSM_FAILURE, std::string("Failed to read from ") + path);
            return 0;
        }
    }
    int length = 0;
    const bool valid = qzhsm_stub2meta(text, &length, nullptr, nullptr, 0, true);
    // On the path as it was given, unlike everywhere else: callers whose paths are already in the locale's
    // encoding rely on it.
    const utimbuf times{st.st_atime, st.st_mtime};
    ::utime(path, &times);
    return valid ? 1 : 0;
}

int QZHSMLowLevelDriverless::getFileInfo(const char* path, bool* isStub, int* state) {
    *isStub = this->isStub(path) != 0;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelDriverless::backupStub(const char* path, std::vector<char>& stubData) {
    clearError(*this);
    return backupStubFromSnap(path, stubData);
}

int QZHSMLowLevelDriverless::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    struct stat st {};
    if (statPath(*this, path, &st) < 0)
        return -1;
    if (refTime < st.st_mtime)
        return fail(*this, QZHSM_BUSY, std::string("Not stubbing modified file ") + path);
    if (!S_ISREG(st.st_mode))
        return fail(*this, QZHSM_FAILURE, std::string("Not stubbing special file ") + path);

    // Made before the file is touched, so that metadata which does not fit costs nothing.
    char header[kHeaderMax];
    const int headerLength = qzhsm_meta2stub(stubMeta, st.st_size, header, sizeof header);
    if (headerLength < 0)
        return failErrno(*this, QZHSM_FAILURE, "Failed to write into ", path, EMSGSIZE);

    // The mark comes first and no failure removes it: a file must never be without its data and its mark.
    if (mark(*this, *m_aclHelper, path) < 0)
        return -1;
    {
        const UniqueFd file(open_utf(path, O_WRONLY));
        if (!file.isOpen())
            return failErrno(*this, QZHSM_FAILURE, "Failed to open ", path, errno);
        if (lockedByAnother(file.get()))
            return fail(*this, QZHSM_BUSY, std::string("Not stubbing open file ") + path);
        if (::ftruncate(file.get(), 0) < 0)
            return fail(*this, QZHSM_FAILURE, std::string("could not truncate file ") + path);
        // One write, whose shortness goes unnoticed: callers look at what stands there themselves.
        if (!makeHole(file.get(), st.st_size) ||
            ::write(file.get(), header, static_cast<size_t>(headerLength)) < 0)
            return failErrno(*this, QZHSM_FAILURE, "Failed to write into ", path, errno);
    }
    const utimbuf times{st.st_atime, st.st_mtime};
    if (utime_utf(path, &times) != 0)
        return fail(*this, QZHSM_FAILURE, std::string("could not reset file times back on file ") + path);
    return 0;
}

int QZHSMLowLevelDriverless::restoreStub(const char* path, const std::vector<char>& stubData) {
    clearError(*this);
    if (mark(*this, *m_aclHelper, path) < 0)
        return -1;

    const std::string text(stubData.begin(), stubData.end());
    long long size = 0;
    char meta[256];
    if (!qzhsm_stub2meta(text.c_str(), nullptr, &size, meta, sizeof meta, false))
        return fail(*this, QZHSM_FAILURE, std::string("Stub ") + path + " has corrupt metadata.");

    const UniqueFd file(open_utf(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (!file.isOpen()) {
        const int err = errno;
        return failErrno(*this, QZHSM_FAILURE, "Failed to open ", std::string(path) + " for writing", err);
    }
    if (!makeHole(file.get(), size) ||
        writeAll(file.get(), stubData.data(), static_cast<int>(stubData.size())) < 0)
        return failErrno(*this, QZHSM_FAILURE, "Failed to write into ", path, errno);
    return 0;
}

int QZHSMLowLevelDriverless::restoreDone(const char* path, bool success, const std::list<long long>&) {
    // The last error is not cleared here: callers read the recall's own after this. Nor is it asked first
    // whether the file system has attributes: they rely on the failure.
    if (!success)
        return 0;
    const int result = m_aclHelper->removeAttribute(path, kStubMark);
    if (result < 0)
        failFrom(*this, *m_aclHelper);
    return result;
}
