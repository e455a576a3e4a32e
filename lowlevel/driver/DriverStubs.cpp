#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/stub/StubText.h"

namespace {

void storeStubData(bool found, const char* meta, long long size, bool& isStub, std::vector<char>& stubData) {
    isStub = found;
    if (!found)
        return;
    const int length = qzhsm_meta2stub(meta, size, nullptr, 0);
    stubData.resize(static_cast<size_t>(length));
    qzhsm_meta2stub(meta, size, stubData.data(), length);
}

} // namespace

int QZHSMLowLevelQZFS::isStub(const char* path) {
    if (!begin())
        return -1;
    StatRecord record{};
    setPath(record.path, path);
    const int err = QZHSM_STAT.send(admin_fd.get(), record);
    if (err == EINVAL)
        return 0;
    return err == 0 ? record.isStub != 0 : failRequest(QZHSM_STAT, path, err);
}

int QZHSMLowLevelQZFS::isStub(unsigned long dev, const fsf_fid& fid) {
    if (!begin())
        return -1;
    StatByFidRecord record{};
    record.dev = dev;
    record.fid = fid;
    const int err = QZHSM_STAT_BY_FID.send(admin_fd.get(), record);
    return err == 0 ? record.isStub != 0 : failRequest(QZHSM_STAT_BY_FID, "", err);
}

int QZHSMLowLevelQZFS::askStat(const char* path, StatRecord& record) {
    if (!begin())
        return -1;
    setPath(record.path, path);
    const int err = QZHSM_STAT.send(admin_fd.get(), record);
    return err == 0 ? 0 : failRequest(QZHSM_STAT, path, err);
}

int QZHSMLowLevelQZFS::getFileInfo(const char* path, bool* isStub, int* state) {
    StatRecord record{};
    if (askStat(path, record) < 0)
        return -1;
    if (isStub)
        *isStub = record.isStub != 0;
    if (state)
        *state = record.fileInfo;
    return 0;
}

int QZHSMLowLevelQZFS::getStubData(const char* path, bool& isStub, std::vector<char>& stubData,
                                   const long& size) {
    StatRecord record{};
    if (askStat(path, record) < 0)
        return -1;
    storeStubData(record.isStub != 0, record.meta, size, isStub, stubData);
    return 0;
}

int QZHSMLowLevelQZFS::getStubData(int, unsigned long dev, const fsf_fid& fid, bool& isStub,
                                   std::vector<char>& stubData, const long& size) {
    if (!begin())
        return -1;
    StatByFidRecord record{};
    record.dev = dev;
    record.fid = fid;
    if (const int err = QZHSM_STAT_BY_FID.send(admin_fd.get(), record))
        return failWith(QZHSM_STAT_BY_FID, "QZHSM_STAT_BY_FID failed", err);
    storeStubData(record.isStub != 0, record.meta, size, isStub, stubData);
    return 0;
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
    return found ? result : fail(QZHSM_FAILURE, std::string(path) + " is not a stub");
}

int QZHSMLowLevelQZFS::backupStub(int fd, unsigned long dev, const fsf_fid& fid,
                                  std::vector<char>& stubData) {
    if (!begin())
        return -1;
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        return fail(errno, "failed to stat");
    bool found = false;
    const int result = getStubData(fd, dev, fid, found, stubData, st.st_size);
    return found ? result : fail(QZHSM_FAILURE, "Not a stub");
}

int QZHSMLowLevelQZFS::stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) {
    if (!begin())
        return -1;
    CreateStubRecord record{};
    record.refTime = refTime;
    record.size = size;
    setPath(record.path, path);
    setText(record.meta, stubMeta);
    if (const int err = QZHSM_CREATE_STUB.send(admin_fd.get(), record))
        return failRequest(QZHSM_CREATE_STUB, path, err);
    jrnStub(path, stubMeta);
    return 0;
}
