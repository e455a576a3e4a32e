#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/internal/Times.h"

int QZHSMLowLevelQZFS::setAMCTime(const char* path, long atime, long mtime, long) {
    return setTimes(*this, path, atime, mtime);
}

int QZHSMLowLevelQZFS::statFile(const char* path, struct stat* st) {
    return statPath(*this, path, st);
}
