#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/internal/LastError.h"

int QZHSMLowLevelHadoop::startWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelHadoop::stopWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelHadoop::stopWatchingDevice(unsigned long) {
    return succeed(*this);
}

int QZHSMLowLevelHadoop::isDirBeingWatched(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelHadoop::isDMRFS(const char*) {
    return 1;
}
