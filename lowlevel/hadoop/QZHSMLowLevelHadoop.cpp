#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"

int QZHSMLowLevelHadoop::startWatchingDirTree(const char*) {
    return succeed();
}

int QZHSMLowLevelHadoop::stopWatchingDirTree(const char*) {
    return succeed();
}

int QZHSMLowLevelHadoop::stopWatchingDevice(unsigned long) {
    return succeed();
}

int QZHSMLowLevelHadoop::isDirBeingWatched(const char*) {
    return succeed();
}

int QZHSMLowLevelHadoop::isDMRFS(const char*) {
    return 1;
}

int QZHSMLowLevelHadoop::restoreDone(const char*, bool success, const std::list<long long>&) {
    return success ? 1 : 0;
}

int QZHSMLowLevelHadoop::backupStub(const char*, std::vector<char>&) {
    return refuse("backupStub");
}

int QZHSMLowLevelHadoop::restoreStub(const char*, const std::vector<char>&) {
    return refuse("restoreStub");
}

int QZHSMLowLevelHadoop::isStub(const char*) {
    return 0;
}

int QZHSMLowLevelHadoop::getFileInfo(const char*, bool* isStub, int* state) {
    *isStub = false;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelHadoop::stubFile(const char*, const char*, time_t, long long) {
    return refuse("stubFile");
}

int QZHSMLowLevelHadoop::openFileTrans(const char*, int, int) {
    return refuse("openFileTrans");
}

int QZHSMLowLevelHadoop::readFileTrans(void*, int) {
    return refuse("readFileTrans");
}

int QZHSMLowLevelHadoop::writeFileTrans(const void*, int, long long) {
    return refuse("writeFileTrans");
}

long long QZHSMLowLevelHadoop::seekFileTrans(long long, int) {
    return refuse("seekFileTrans");
}

int QZHSMLowLevelHadoop::closeFileTrans() {
    return refuse("closeFileTrans");
}

int QZHSMLowLevelHadoop::setAMCTime(const char*, long, long, long) {
    return refuse("setAMCTime");
}

int QZHSMLowLevelHadoop::statFile(const char*, struct stat*) {
    return refuse("statFile");
}
