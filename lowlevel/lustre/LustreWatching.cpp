#include "lowlevel/internal/LastError.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

int QZHSMLowLevelLustre::startWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelLustre::stopWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelLustre::stopWatchingDevice(unsigned long) {
    return succeed(*this);
}

int QZHSMLowLevelLustre::isDirBeingWatched(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelLustre::isDMRFS(const char*) {
    clearError(*this);
    return 1;
}
