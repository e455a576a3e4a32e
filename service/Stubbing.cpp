#include "service/Stubbing.h"

#include "service/FileIo.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

void makeStub(StubKind& kind, const std::string& path, const std::string& meta,
              std::optional<time_t> refTime) {
    const struct stat st = statFollowing(path);
    kind.beforeStubbing(path, meta, st);
    if (kind.backEnd().stubFile(path.c_str(), meta.c_str(), refTime.value_or(st.st_mtime), st.st_size) < 0)
        throw kind.lastFailure(path);
    kind.afterStubbing(path);
}

std::vector<char> saveStub(StubKind& kind, const std::string& path, bool fromSnapshot) {
    QZHSMLowLevel& backEnd = kind.backEnd();
    const struct stat st = statFollowing(path);
    if (!S_ISREG(st.st_mode))
        throw Failure(QZHSM_NOT_A_STUB, path + " is not a stub.");
    std::vector<char> data;
    if (fromSnapshot) {
        checked(backEnd, backEnd.backupStubFromSnap(path.c_str(), data));
    } else {
        kind.beforeBackup(path, st);
        checked(backEnd, backEnd.backupStub(path.c_str(), data));
    }
    if (!readFacts(data))
        throw Failure(QZHSM_NOT_A_STUB, "The stub " + path + " has no valid stub text");
    return data;
}

void restoreStub(StubKind& kind, const std::string& path, const std::vector<char>& stubData, bool force) {
    QZHSMLowLevel& backEnd = kind.backEnd();
    struct stat before {};
    const bool exists = ::stat(path.c_str(), &before) == 0;
    if (!exists && errno != ENOENT)
        throw systemFailure("Failed to stat ", path, errno);
    kind.beforeRestoring(path, readFacts(stubData).value(), exists ? &before : nullptr, force);

    if (!exists) { // the back-end's mark needs a file to land on
        const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.isOpen())
            throw systemFailure("Failed to create ", path, errno);
    }
    bool markWasThere = false; // it is not ours to remove then
    try {
        if (backEnd.restoreStub(path.c_str(), stubData) < 0) {
            markWasThere = backEnd.m_errorCode == EEXIST;
            throw kind.lastFailure(path);
        }
        kind.afterStubbing(path);
    } catch (...) {
        if (!exists)
            ::unlink(path.c_str());
        else if (!markWasThere)
            kind.undoRestoring(path, before);
        throw;
    }
}
