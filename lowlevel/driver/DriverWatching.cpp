#include "lowlevel/driver/DriverAsk.h"
#include "platform/errors/FXString.h"
#include "platform/logging/EvDebug.h"
#include "platform/mounts/QZHSMMntTab.h"

namespace {

/// Writes the last error into the log as well: -1.
int logged(const QZHSMLowLevel& backEnd, EvDebug& log, const char* tag) {
    log.Error(tag, "%s", backEnd.m_errorText.c_str());
    return -1;
}

} // namespace

int QZHSMLowLevelQZFS::startWatchingDirTree(const char* path) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::startWatchingDirTree";
    if (!begin())
        return -1;
    const QZHSMMntTab mounts;
    EvDebug log(nullptr);
    log.Debug(kTag, "Starting to watch FS containing %s", path);
    const QZHSMMntTab::Entry* mount = mounts.find(path);
    if (!mount) {
        fail(*this, QZHSM_FAILURE, std::string("No mount entry for ") + path);
        return logged(*this, log, kTag);
    }
    auto record = recordFor<AddWatchRecord>(path);
    record.mountFlag = mount->readOnly;
    return askFurther(QZHSM_ADD_WATCH_FS, record, path) < 0 ? logged(*this, log, kTag) : 0;
}

// "Stoping" is how the log has always had it, and what scripts that read it look for.

int QZHSMLowLevelQZFS::stopWatchingDirTree(const char* path) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::stopWatchingDirTree";
    if (!begin())
        return -1;
    EvDebug log(nullptr);
    log.Debug(kTag, "Stoping to watch FS containing %s", path);
    auto record = recordFor<DelWatchRecord>(path);
    return askFurther(QZHSM_DEL_WATCH_FS, record, path) < 0 ? logged(*this, log, kTag) : 0;
}

int QZHSMLowLevelQZFS::stopWatchingDevice(unsigned long dev) {
    constexpr const char* kTag = "QZHSMLowLevelQZFS::stopWatchingDevice";
    if (!begin())
        return -1;
    const std::string number = FXString::Format("%lx", dev);
    EvDebug log(nullptr);
    log.Debug(kTag, "Stoping to watch FS on block device %s", number.c_str());
    DelWatchRecord record{};
    record.dev = dev;
    return askFurther(QZHSM_DEL_WATCH_DEVICE, record, number) < 0 ? logged(*this, log, kTag) : 0;
}

int QZHSMLowLevelQZFS::isDirBeingWatched(const char* path) {
    return isDMRFS(path);
}

int QZHSMLowLevelQZFS::isDMRFS(const char* path) {
    auto record = recordFor<IsWatchRecord>(path);
    return ask(QZHSM_IS_WATCH_FS, record, path) < 0 ? -1 : record.answer;
}

int QZHSMLowLevelQZFS::isDMRFS(unsigned long dev) {
    IsWatchRecord record{};
    record.dev = dev;
    return ask(QZHSM_IS_WATCH_FS, record, "") < 0 ? -1 : record.answer;
}

int QZHSMLowLevelQZFS::resubmitPendingRecalls() {
    ResubmitRecord record{};
    return ask(QZHSM_RESUBMIT_PENDING_RECALLS, record, "");
}
