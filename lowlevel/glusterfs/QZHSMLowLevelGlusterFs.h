/// @file
/// GlusterFS's back-end.

#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "platform/errors/CWbError.h"

#include <string>
#include <utility>

/// Stubs on a GlusterFS volume that uses the cloudsync feature. A file is a stub when it has all of
/// "trusted.cloudsync.product-id" reading "quillmoor", "trusted.cloudsync.store-id",
/// "trusted.cloudsync.uuid" and "trusted.glusterfs.cs.remote". The last is the volume's to set: it is never
/// written here, so what `stubFile` made is no stub before the volume has done its part. The stub text lies
/// in "user.TSTUB"; the file's data is not touched.
///
/// Attributes named "trusted." need the capability CAP_SYS_ADMIN: to a process without it nothing is a stub.
/// Symbolic links are followed, except by `isStub`, `getFileInfo`, `getStubData` and thus `backupStub`, which
/// look at the link itself.
class QZHSM_API QZHSMLowLevelGlusterFs : public QZHSMLowLevel {
public:
    /// Reads the configuration's "storeId" in section "GlusterFS"; empty without it. Throws `NkException` if
    /// the configuration file is there but cannot be read.
    QZHSMLowLevelGlusterFs();
    /// Does not close a file that is still open for transparent I/O.
    ~QZHSMLowLevelGlusterFs() override;

    /// What `stubFile` writes into "trusted.cloudsync.store-id" from now on; any bytes.
    void setStoreId(std::string id) { storeId = std::move(id); }

    // --- Watching: the volume itself notices access to stubs; these clear the error and do nothing ---

    int startWatchingDirTree(const char* dirPath) override;
    int stopWatchingDirTree(const char* dirPath) override;
    int stopWatchingDevice(unsigned long device) override;
    /// Always 1.
    int isDirBeingWatched(const char* dirPath) override;
    /// Always 1.
    int isDMRFS(const char* path) override;

    // --- The life of a stub ---

    /// 1 if `success` is true, else 0. No attribute is changed: the volume ends the stub.
    int restoreDone(const char* path, bool success, const std::list<long long>& ids) override;
    /// Code 8 stands after a success too: go by the result. A file that is not a stub, or whose stub text is
    /// corrupt: -1 with code -1. A stub without stub text of at most 4096 bytes: 0, and 4096 zero bytes.
    int backupStub(const char* path, std::vector<char>& stubData) override;
    /// Creates the completion marker, "trusted.glusterfs.csou.complete", with the file's modification time.
    /// `stubData` has no effect. Code -1 throughout, and a text that names stubFile.
    ///
    /// On disk after a failure: nothing for a missing file. If the marker cannot be created, for one because
    /// it is there already, the file loses the other four attributes that `stubFile` writes: it is no stub
    /// from then on, and can be stubbed again only once the marker is removed.
    int restoreStub(const char* path, const std::vector<char>& stubData) override;
    /// 1 or 0, with code 8 and "`path` is not a stub" in either case: go by the result. A stub may lack stub
    /// text, but what there is must be valid. No data is read. Like `getStubData` it does not return for stub
    /// text that is cut short.
    int isStub(const char* path) override;
    /// Always 0, with state 2; `isStub`'s error stands.
    int getFileInfo(const char* path, bool* isStub, int* state) override;

    /// `stubMeta` must hold a version GUID of 32 hexadecimal digits without dashes. `size` has no effect: the
    /// file's own size counts. Stub text beyond 4096 bytes is written if the file system takes it, but
    /// `backupStub` cannot read it back.
    ///
    /// Code -1 throughout, also for a missing file and for one modified since `refTime`. On disk after any
    /// failure, metadata beyond 65,470 bytes among them: the data and the attributes that were there before.
    /// An attribute is created, never replaced, so that a stub, or a file with one leftover attribute, is
    /// refused. Throws std::out_of_range, with nothing written, for a version GUID of less than 20
    /// characters.
    int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) override;

    // --- Transparent I/O: plain I/O on one descriptor; there is no reading ---

    int openFileTrans(const char* path, int flags, int mode) override;
    /// Always -1, with code 38.
    int readFileTrans(void* buf, int len) override;
    /// `offset` has no effect. Without an open file the system call fails, here and in `seekFileTrans`.
    int writeFileTrans(const void* buf, int len, long long offset) override;
    long long seekFileTrans(long long offset, int whence) override;
    /// Always 0.
    int closeFileTrans() override;

    // --- Times and stat ---

    int setAMCTime(const char* path, long atime, long mtime, long ctime) override;
    int statFile(const char* path, struct stat* st) override;

    // --- Stub data ---

    /// Stores in `isStub` whether the file is a stub, and for a stub its stub text in `stubData`. 0 with code
    /// 8, or, for corrupt stub text, -1 with code 8 and `isStub` false. `stubData` is left as it is for a
    /// file that is not a stub, and holds 4096 zero bytes for a stub without stub text or with one of more
    /// than 4096 bytes. `size` has no effect.
    ///
    /// Does not return for an attribute of at most 4096 bytes whose text claims to be longer.
    int getStubData(const char* path, bool& isStub, std::vector<char>& stubData, const off_t& size);

    /// Takes the version GUID from metadata text: its 16 bytes into `guid`, its dashed form into
    /// `versionGuid`. An error with code 1627 and both untouched for metadata without one; the errno that
    /// stands, or EINVAL if none does, with only `versionGuid` set for one that is none. Throws
    /// std::out_of_range for less than 20 characters.
    CWbError GetVersionGUIDFromMetaInBinaryFormat(const char* stubMeta, unsigned char (&guid)[16],
                                                  std::string& versionGuid);

private:
    int transFd = -1;
    std::string storeId;
};

/// Puts dashes between the 32 hexadecimal digits of `in`, 8-4-4-4-12; no character is checked. A shorter text
/// gives a shorter last group, a longer one is cut. Throws std::out_of_range, with `out` untouched, for less
/// than 20 characters.
QZHSM_API void TransformToStandardUUID(std::string& in, std::string& out);
