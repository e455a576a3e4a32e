#include "service/kinds/StubKind.h"

#include "platform/files/FdPath.h"
#include "service/FileIo.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <thread>
#include <unistd.h>

StubKind::~StubKind() = default;

void StubKind::requireSight() const {}

void StubKind::requirePath(const std::string&) const {}

bool StubKind::watches() const {
    return false;
}

bool StubKind::isStub(const std::string& path, const struct stat& st) {
    // Nothing else is ever a stub, and to look into a pipe would be to wait for its writer.
    if (!S_ISREG(st.st_mode))
        return false;
    if (::access(path.c_str(), R_OK) < 0)
        throw systemFailure("Failed to read from ", path, errno);
    return ask(path);
}

bool StubKind::ask(const std::string& path) {
    return answered(m_backEnd, m_backEnd.isStub(path.c_str()));
}

bool StubKind::keepsTextInFile() const {
    return false;
}

std::string StubKind::pathOf(const OpenFile& file) const {
    std::string path = pathBehind(file.fd());
    if (path.empty())
        throw systemFailure("Failed to find ", file.name(), errno);
    struct stat st {};
    if (::lstat(path.c_str(), &st) < 0 || !isSameFile(st, file.stat()))
        throw Failure(QZHSM_NOT_FOUND, file.name() + " was moved or removed");
    requirePath(path);
    return path;
}

Glance StubKind::glance(int, const char*) {
    return {};
}

FileLook StubKind::lookForCopy(const OpenFile& file) {
    FileLook look = this->look(file);
    if (look.state == FileState::Plain && look.attributes && keepsTextInFile() && mayBeCopy(look.st))
        look = this->look(file, true);
    return look;
}

FileLook StubKind::look(const OpenFile& file, bool) {
    FileLook look;
    look.st = file.stat();
    const std::string path = pathOf(file);
    if (!isStub(path, look.st))
        return look;
    look.state = FileState::Stub;
    look.marked = true;
    std::vector<char> data;
    if (m_backEnd.backupStub(path.c_str(), data) < 0)
        throw lastFailure(path);
    if (const std::optional<StubFacts> facts = readFacts(data)) {
        look.text.assign(data.begin(), data.end());
        look.recordedSize = facts->fileSize;
        look.meta = facts->meta;
        look.why = misfit(facts, look.st.st_size);
        if (!look.why.empty())
            look.state = FileState::ChangedStub;
    }
    return look;
}

void StubKind::requireStores() const {
    throw Failure(QZHSM_NOT_IMPLEMENTED, "Files of this back-end are not put into stores");
}

void StubKind::requireRepair() const {
    requireStores();
    throw Failure(QZHSM_NOT_IMPLEMENTED, "repair is for driverless stubs and GlusterFS only");
}

void StubKind::requireRecalling(const OpenFile&) const {}

UniqueFd StubKind::waitForHold(const OpenFile& file, const std::function<bool(int)>& goesOn) {
    constexpr auto kPause = std::chrono::milliseconds(20);
    for (int pauses = 0;; ++pauses) {
        try {
            return hold(file);
        } catch (const Failure& failure) {
            if (failure.code() != QZHSM_BUSY || !goesOn(pauses))
                throw;
        }
        std::this_thread::sleep_for(kPause);
    }
}

UniqueFd StubKind::hold(const OpenFile& file) {
    // Not the file itself: to open it could be to recall it.
    const std::string parent = std::filesystem::path(pathOf(file)).parent_path();
    return openDirectory(parent);
}

std::string StubKind::advice(const std::string&, int) {
    return {};
}

Failure StubKind::lastFailure(const std::string& path) {
    const Failure failure(m_backEnd);
    return {failure.code(), failure.what(), advice(path, failure.code())};
}

void StubKind::refuseStub(const std::string& path, const struct stat& st) {
    if (isStub(path, st))
        throw Failure(EEXIST, "Not replacing the stub " + path + ": File exists", advice(path, EEXIST));
}

void StubKind::beforeStubbing(const std::string& path, const std::string&, const struct stat& st) {
    if (!S_ISREG(st.st_mode))
        throw Failure(QZHSM_FAILURE, "Not stubbing special file " + path);
    refuseStub(path, st);
}

int StubKind::stub(const std::string& path, const std::string& meta, time_t refTime, long long size) {
    return m_backEnd.stubFile(path.c_str(), meta.c_str(), refTime, size);
}

void StubKind::afterStubbing(const std::string&) {}

void StubKind::beforeBackup(const std::string& path, const struct stat& st) {
    // A back-end may say no more than "is not a stub", whatever went wrong; this question tells.
    if (!isStub(path, st))
        throw Failure(QZHSM_NOT_A_STUB, path + " is not a stub", advice(path, QZHSM_NOT_A_STUB));
}

void StubKind::refuseEmpty(const std::string& path, const StubFacts& saved) {
    if (saved.fileSize == 0)
        throw Failure(QZHSM_FAILURE, "Stub " + path + " is of an empty file, which cannot be restored here");
}

void StubKind::requireTarget(const std::string& path, const struct stat* before, bool force) {
    if (!before)
        return;
    if (!S_ISREG(before->st_mode))
        throw Failure(QZHSM_FAILURE, "Not restoring a stub over special file " + path);
    refuseStub(path, *before);
    if (before->st_size > 0 && !force)
        throw Failure(QZHSM_FAILURE, "Not restoring a stub over " + path + ": it holds data",
                      "With --force its data is given up.");
}

void StubKind::beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                               bool force) {
    refuseEmpty(path, saved);
    requireTarget(path, before, force);
}

int StubKind::restore(const std::string& path, const std::vector<char>& stubData) {
    return m_backEnd.restoreStub(path.c_str(), stubData);
}

void StubKind::clearMarks(const std::string&) {}

void StubKind::undoRestoring(const std::string& path, const struct stat& before) {
    const timespec times[] = {before.st_atim, before.st_mtim};
    if (before.st_size == 0 && ::truncate(path.c_str(), 0) == 0)
        ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

bool StubKind::isStubAsSource(const std::string& path, const struct stat& st) {
    return isStub(path, st);
}

bool StubKind::shortensLast() const {
    return false;
}

void StubKind::putBack(const std::string&, const std::vector<char>&, long long) {}

std::string StubKind::hsmState(const std::string&) {
    throw Failure(QZHSM_NOT_IMPLEMENTED, "hsm-state is for Lustre only: --fs LUSTRE_FS");
}

void StubKind::release(const std::string&) {
    throw Failure(QZHSM_NOT_IMPLEMENTED, "release is for Lustre only: --fs LUSTRE_FS");
}
