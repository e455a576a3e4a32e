#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/errors/FXString.h"
#include "platform/logging/EvDebug.h"
#include "platform/mounts/QZHSMMntTab.h"

int QZHSMLowLevelQZFS::logged(const char* tag) {
    EvDebug(nullptr).Error(tag, "%s", m_errorText.c_str());
    return -1;
}

int QZHSMLowLevelQZFS::startWatchingDirTree(const char* path) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::startWatchingDirTree";
    if (!begin())
        return -1;
    const QZHSMMntTab mounts;
    EvDebug(nullptr).Debug(kTag, "Starting to watch FS containing %s", path);
    AddWatchRecord record{};
    setPath(record.path, path);
    record.mountFlag = mounts.find(path)->readOnly;
    if (const int err = QZHSM_ADD_WATCH_FS.send(admin_fd.get(), record)) {
        failRequest(QZHSM_ADD_WATCH_FS, path, err);
        return logged(kTag);
    }
    return 0;
}

int QZHSMLowLevelQZFS::stopWatchingDirTree(const char* path) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::stopWatchingDirTree";
    if (!begin())
        return -1;
    EvDebug(nullptr).Debug(kTag, "Stoping to watch FS containing %s", path);
    DelWatchRecord record{};
    setPath(record.path, path);
    if (const int err = QZHSM_DEL_WATCH_FS.send(admin_fd.get(), record)) {
        failRequest(QZHSM_DEL_WATCH_FS, path, err);
        return logged(kTag);
    }
    return 0;
}

int QZHSMLowLevelQZFS::stopWatchingDevice(unsigned long dev) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::stopWatchingDevice";
    if (!begin())
        return -1;
    const unsigned long long number = dev;
    EvDebug(nullptr).Debug(kTag, "Stoping to watch FS on block device %llx", number);
    DelWatchRecord record{};
    record.dev = dev;
    if (const int err = QZHSM_DEL_WATCH_FS.send(admin_fd.get(), record)) {
        // A device that is not there is no missing file, and has no code of its own.
        failRequest({QZHSM_DEL_WATCH_FS.command, QZHSM_DEL_WATCH_FS.name, {}},
                    FXString::Format("%llx", number), err);
        return logged(kTag);
    }
    return 0;
}

int QZHSMLowLevelQZFS::isDirBeingWatched(const char* path) {
    return isDMRFS(path);
}

int QZHSMLowLevelQZFS::isDMRFS(const char* path) {
    if (!begin())
        return -1;
    IsWatchRecord record{};
    setPath(record.path, path);
    const int err = QZHSM_IS_WATCH_FS.send(admin_fd.get(), record);
    return err == 0 ? record.answer : failRequest(QZHSM_IS_WATCH_FS, path, err);
}

int QZHSMLowLevelQZFS::isDMRFS(unsigned long dev) {
    if (!begin())
        return -1;
    IsWatchRecord record{};
    record.dev = dev;
    const int err = QZHSM_IS_WATCH_FS.send(admin_fd.get(), record);
    return err == 0 ? record.answer : failRequest(QZHSM_IS_WATCH_FS, "", err);
}

int QZHSMLowLevelQZFS::resubmitPendingRecalls() {
    if (!begin())
        return -1;
    ResubmitRecord record{};
    const int err = QZHSM_RESUBMIT_PENDING_RECALLS.send(admin_fd.get(), record);
    return err == 0 ? 0 : failRequest(QZHSM_RESUBMIT_PENDING_RECALLS, "", err);
}
