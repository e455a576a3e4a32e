#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/internal/LastError.h"

int QZHSMLowLevelHadoop::openFileTrans(const char*, int, int) {
    return refuse(*this, "openFileTrans");
}

int QZHSMLowLevelHadoop::readFileTrans(void*, int) {
    return refuse(*this, "readFileTrans");
}

int QZHSMLowLevelHadoop::writeFileTrans(const void*, int, long long) {
    return refuse(*this, "writeFileTrans");
}

long long QZHSMLowLevelHadoop::seekFileTrans(long long, int) {
    return refuse(*this, "seekFileTrans");
}

int QZHSMLowLevelHadoop::closeFileTrans() {
    return refuse(*this, "closeFileTrans");
}
