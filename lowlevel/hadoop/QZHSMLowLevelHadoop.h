#pragma once

#include "lowlevel/QZHSMLowLevel.h"

/// Keeps a service running against a Hadoop data source: nothing is a stub, nothing is watched, and whatever
/// would read or change a file is refused with code 38 and "<operation> not implemented". The queries leave
/// the last error as it is.
class QZHSM_API QZHSMLowLevelHadoop : public QZHSMLowLevel {
public:
    int startWatchingDirTree(const char* dirPath) override;
    int stopWatchingDirTree(const char* dirPath) override;
    int stopWatchingDevice(unsigned long device) override;
    int isDirBeingWatched(const char* dirPath) override;
    /// Always 1.
    int isDMRFS(const char* path) override;
    /// 1 if `success` is true, else 0.
    int restoreDone(const char* path, bool success, const std::list<long long>& ids) override;
    int backupStub(const char* path, std::vector<char>& stubData) override;
    int restoreStub(const char* path, const std::vector<char>& stubData) override;
    /// Always 0.
    int isStub(const char* path) override;
    int getFileInfo(const char* path, bool* isStub, int* state) override;
    int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) override;
    int openFileTrans(const char* path, int flags, int mode) override;
    int readFileTrans(void* buf, int len) override;
    int writeFileTrans(const void* buf, int len, long long offset) override;
    long long seekFileTrans(long long offset, int whence) override;
    int closeFileTrans() override;
    int setAMCTime(const char* path, long atime, long mtime, long ctime) override;
    int statFile(const char* path, struct stat* st) override;
};
