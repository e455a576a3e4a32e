#include "lowlevel/internal/LastError.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

int QZHSMLowLevelLustre::openFileTrans(const char*, int, int) {
    return refuse(*this, "openFileTrans");
}

int QZHSMLowLevelLustre::readFileTrans(void*, int) {
    return refuse(*this, "readFileTrans");
}

int QZHSMLowLevelLustre::writeFileTrans(const void*, int, long long) {
    return refuse(*this, "writeFileTrans");
}

long long QZHSMLowLevelLustre::seekFileTrans(long long, int) {
    return refuse(*this, "seekFileTrans");
}

int QZHSMLowLevelLustre::closeFileTrans() {
    return refuse(*this, "closeFileTrans");
}
