#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"

int QZHSMLowLevelQZFS::restoreStub(const char* path, const std::vector<char>& stubData) {
    if (!begin())
        return -1;
    std::vector<char> meta;
    long long size = 0;
    if (decodeStubData(path, stubData, meta, size) < 0)
        return -1;
    RestoreStubRecord record{};
    setPath(record.path, path);
    setText(record.meta, meta.data());
    record.size = size;
    if (const int err = QZHSM_RESTORE_STUB.send(admin_fd.get(), record))
        return failWith(QZHSM_RESTORE_STUB, "ioctl(QZHSM_RESTORE_STUB) failed", err);
    jrnStub(path, meta.data());
    return 0;
}

int QZHSMLowLevelQZFS::restoreDone(const char* path, bool success, const std::list<long long>&) {
    clearError();
    if (success)
        jrnUnStub(path);
    if (openAdminNode() < 0)
        return -1;
    DeleteStubRecord record{};
    setPath(record.path, path);
    record.failed = success ? 0 : 1;
    const int err = QZHSM_DELETE_STUB.send(admin_fd.get(), record);
    return err == 0 ? 0 : failRequest(QZHSM_DELETE_STUB, path, err);
}
