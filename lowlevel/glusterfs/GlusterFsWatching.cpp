#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/internal/LastError.h"

int QZHSMLowLevelGlusterFs::startWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelGlusterFs::stopWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelGlusterFs::stopWatchingDevice(unsigned long) {
    return succeed(*this);
}

int QZHSMLowLevelGlusterFs::isDirBeingWatched(const char*) {
    clearError(*this);
    return 1;
}

int QZHSMLowLevelGlusterFs::isDMRFS(const char*) {
    clearError(*this);
    return 1;
}
