#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/internal/Times.h"

int QZHSMLowLevelGlusterFs::setAMCTime(const char* path, long atime, long mtime, long) {
    return setTimes(*this, path, atime, mtime);
}

int QZHSMLowLevelGlusterFs::statFile(const char* path, struct stat* st) {
    return statPath(*this, path, st);
}
