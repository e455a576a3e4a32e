#include "lowlevel/driver/DriverAsk.h"
#include "lowlevel/internal/StubData.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <cstring>

namespace {

StatByFidRecord recordFor(unsigned long dev, const fsf_fid& fid) {
    StatByFidRecord record{};
    record.dev = dev;
    record.fid = fid;
    return record;
}

/// Stores what the driver knows of a file; `stubData` only for a stub. 0, or -1 with the error set for an
/// answer whose metadata has no end.
template <class Record>
int storeStubData(QZHSMLowLevel& backEnd, const DriverOperation& operation, std::string_view path,
                  const Record& record, long long size, bool& isStub, std::vector<char>& stubData) {
    if (record.isStub != 0 && !std::memchr(record.meta, '\0', sizeof record.meta))
        return failRequest(backEnd, operation, path, EBADMSG);
    isStub = record.isStub != 0;
    if (!isStub)
        return 0;
    const int length = qzhsm_meta2stub(record.meta, size, nullptr, 0);
    stubData.resize(static_cast<size_t>(length));
    qzhsm_meta2stub(record.meta, size, stubData.data(), length);
    return 0;
}

} // namespace

int QZHSMLowLevelQZFS::isStub(const char* path) {
    auto record = recordFor<StatRecord>(path);
    const int result = ask(QZHSM_STAT_IS_STUB, record, path);
    return result < 0 ? -1 : static_cast<int>(result == 0 && record.isStub != 0);
}

int QZHSMLowLevelQZFS::isStub(unsigned long dev, const fsf_fid& fid) {
    StatByFidRecord record = recordFor(dev, fid);
    return ask(QZHSM_STAT_BY_FID, record, "") < 0 ? -1 : static_cast<int>(record.isStub != 0);
}

int QZHSMLowLevelQZFS::getFileInfo(const char* path, bool* isStub, int* state) {
    auto record = recordFor<StatRecord>(path);
    if (ask(QZHSM_STAT, record, path) < 0)
        return -1;
    if (isStub)
        *isStub = record.isStub != 0;
    if (state)
        *state = record.fileInfo;
    return 0;
}

int QZHSMLowLevelQZFS::getStubData(const char* path, bool& isStub, std::vector<char>& stubData,
                                   const long& size) {
    auto record = recordFor<StatRecord>(path);
    if (ask(QZHSM_STAT, record, path) < 0)
        return -1;
    return storeStubData(*this, QZHSM_STAT, path, record, size, isStub, stubData);
}

int QZHSMLowLevelQZFS::getStubData(int, unsigned long dev, const fsf_fid& fid, bool& isStub,
                                   std::vector<char>& stubData, const long& size) {
    StatByFidRecord record = recordFor(dev, fid);
    if (ask(QZHSM_STAT_DATA_BY_FID, record, "") < 0)
        return -1;
    return storeStubData(*this, QZHSM_STAT_DATA_BY_FID, "", record, size, isStub, stubData);
}

int QZHSMLowLevelQZFS::backupStub(const char* path, std::vector<char>& stubData) {
    if (!begin())
        return -1;
    struct stat st {};
    if (statFile(path, &st) < 0)
        return -1;
    bool found = false;
    const int result = getStubData(path, found, stubData, st.st_size);
    // Whatever kept the stub data from being read, a backup has none.
    return found ? result : fail(*this, QZHSM_FAILURE, std::string(path) + " is not a stub");
}

int QZHSMLowLevelQZFS::backupStub(int fd, unsigned long dev, const fsf_fid& fid,
                                  std::vector<char>& stubData) {
    if (!begin())
        return -1;
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        return fail(*this, errno, "failed to stat"); // errno itself, here alone: callers know it so
    bool found = false;
    const int result = getStubData(fd, dev, fid, found, stubData, st.st_size);
    return found ? result : fail(*this, QZHSM_FAILURE, "Not a stub");
}

int QZHSMLowLevelQZFS::stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) {
    auto record = recordFor<CreateStubRecord>(path);
    record.refTime = refTime;
    record.size = size;
    setText(record.meta, stubMeta);
    if (ask(QZHSM_CREATE_STUB, record, path) < 0)
        return -1;
    jrnStub(path, stubMeta);
    return 0;
}

int QZHSMLowLevelQZFS::restoreStub(const char* path, const std::vector<char>& stubData) {
    if (!begin())
        return -1;
    std::vector<char> meta;
    long long size = 0;
    if (decodeStubData(*this, path, stubData, meta, size) < 0)
        return -1;
    auto record = recordFor<RestoreStubRecord>(path);
    setText(record.meta, meta.data());
    record.size = size;
    if (askFurther(QZHSM_RESTORE_STUB, record, path) < 0)
        return -1;
    jrnStub(path, meta.data());
    return 0;
}

int QZHSMLowLevelQZFS::restoreDone(const char* path, bool success, const std::list<long long>&) {
    clearError(*this);
    if (success)
        jrnUnStub(path);
    if (openAdminNode() < 0) // not `begin`: what a question to the journal left behind stays
        return -1;
    auto record = recordFor<DeleteStubRecord>(path);
    record.failed = success ? 0 : 1;
    return askFurther(QZHSM_DELETE_STUB, record, path);
}
