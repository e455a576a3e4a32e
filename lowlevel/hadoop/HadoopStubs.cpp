#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/internal/LastError.h"

int QZHSMLowLevelHadoop::restoreDone(const char*, bool success, const std::list<long long>&) {
    return success ? 1 : 0;
}

int QZHSMLowLevelHadoop::backupStub(const char*, std::vector<char>&) {
    return refuse(*this, "backupStub");
}

int QZHSMLowLevelHadoop::restoreStub(const char*, const std::vector<char>&) {
    return refuse(*this, "restoreStub");
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
    return refuse(*this, "stubFile");
}
