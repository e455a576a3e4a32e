#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/Times.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

int QZHSMLowLevelLustre::setAMCTime(const char*, long, long, long) {
    return refuse(*this, "setAMCTime");
}

int QZHSMLowLevelLustre::statFile(const char* path, struct stat* st) {
    return statPath(*this, path, st);
}
