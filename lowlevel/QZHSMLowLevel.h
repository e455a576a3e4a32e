/// @file
/// The interface, and what all back-ends share.

#pragma once

#include "platform/Export.h"

#include <ctime>
#include <list>
#include <string>
#include <sys/stat.h>
#include <vector>

/// The values of `QZHSMLowLevel::m_errorCode` that all back-ends share. A few operations store the errno of a
/// failed call instead; their back-end's header says which.
enum QZHSMErrorCode : int {
    QZHSM_SUCCESS = 0,
    QZHSM_FAILURE = -1,        ///< no finer code: a failed system call, driver request, open or read
    QZHSM_ALREADY = 2,         ///< the driver is stubbing this file already
    QZHSM_BUSY = 3,            ///< not stubbed: the file is open or was modified after it was archived
    QZHSM_NOT_FOUND = 4,       ///< the file does not exist
    QZHSM_INVALID = 6,         ///< the driver found the request invalid
    QZHSM_TIMEOUT = 7,         ///< pass-through access was not granted in time
    QZHSM_NOT_A_STUB = 8,      ///< not a stub, or its metadata is corrupt
    QZHSM_TOO_BIG = 9,         ///< the driver found the metadata too long
    QZHSM_NOT_IMPLEMENTED = 38 ///< this back-end has no such operation
};

/// The state that `getFileInfo` reports if the back-end has no states of its own.
constexpr int QZHSM_FILE_STATE_PLAIN = 2;

/// One kind of file system, and what can be done with stubs on it.
///
/// Paths are NUL-terminated UTF-8, times are whole seconds since the epoch, sizes and offsets are bytes.
///
/// Errors. An operation that can fail clears `m_errorCode` and `m_errorText` first, and on failure sets both
/// and returns its failure value. A query that answers 0 may have failed: `m_errorCode` tells. Only
/// `NkException` is caught in here; any other exception (`std::bad_alloc`, say) passes to the caller.
///
/// Threads. An object has no lock. It holds the last error and at most one transparently opened file, so
/// callers that share an object, as the registry makes them do, serialise their calls on it.
class QZHSM_API QZHSMLowLevel {
public:
    QZHSMLowLevel() = default;
    QZHSMLowLevel(const QZHSMLowLevel&) = delete;
    QZHSMLowLevel& operator=(const QZHSMLowLevel&) = delete;
    virtual ~QZHSMLowLevel();

    // --- Watching: which file systems' stubs are watched for access ---

    /// Watches the file system that holds `dirPath`. 0, or -1.
    virtual int startWatchingDirTree(const char* dirPath) = 0;
    /// Ends watching that file system. 0, or -1.
    virtual int stopWatchingDirTree(const char* dirPath) = 0;
    /// Ends watching the file system on a device number, for one that is no longer mounted. 0, or -1.
    virtual int stopWatchingDevice(unsigned long device) = 0;
    /// 1 if the file system that holds `dirPath` is watched, else 0. The filter driver's back-end answers as
    /// its `isDMRFS` does.
    virtual int isDirBeingWatched(const char* dirPath) = 0;
    /// 1 if this back-end can keep stubs at `path`, else 0.
    virtual int isDMRFS(const char* path) = 0;
    /// Has the recalls that nobody has served yet handed out again. 0, or -1. Only the filter driver holds
    /// such recalls; the base answers 0.
    virtual int resubmitPendingRecalls();

    // --- The life of a stub ---

    /// Ends a recall of `path`: with `success` the file counts as an ordinary file from now on, else it stays
    /// a stub. `ids` are the recall's identifiers, for back-ends that track them.
    /// 0 or the back-end's own success value; negative on failure, with the file what it was.
    virtual int restoreDone(const char* path, bool success, const std::list<long long>& ids) = 0;

    /// Saves a stub's metadata: `stubData` becomes exactly the stub data that `restoreStub` takes.
    /// 0, or -1 (code 8 for a file that is not a stub, unless the back-end says otherwise). REQUIRES: it is a
    /// regular file; on a pipe the call may wait for a writer. What `stubData`
    /// holds after a failure is unspecified.
    virtual int backupStub(const char* path, std::vector<char>& stubData) = 0;

    /// The same for a stub seen through a file-system snapshot: read from its attribute "user.TSTUB" or,
    /// failing that, from the beginning of the file. The file's access time may change; nothing else does.
    /// 0, or -1 with code 8 for a file that holds no stub text and -1 for one that cannot be read.
    virtual int backupStubFromSnap(const char* path, std::vector<char>& stubData);

    /// Makes a stub at `path` from stub data that `backupStub` gave; whatever the path held is lost. 0, or
    /// -1.
    virtual int restoreStub(const char* path, const std::vector<char>& stubData) = 0;

    /// 1 for a stub, else 0. Never recalls. A failure sets the error and answers 0; the filter driver's
    /// back-end answers -1.
    virtual int isStub(const char* path) = 0;

    /// Stores whether `path` is a stub and the back-end's state value for it. Neither pointer may be null. 0,
    /// or -1 with both values unspecified.
    virtual int getFileInfo(const char* path, bool* isStub, int* state) = 0;

    /// Turns a file into a stub that carries `stubMeta` (NUL-terminated text): its data is given up.
    /// REQUIRES: the data has been archived, all of it, when the file's modification time was `refTime`.
    /// `size` is the file's logical size. Code 3 if the file was modified since `refTime` or is in use; whole
    /// seconds are compared, so a change within the same second is not seen. 0, or -1; each back-end's header
    /// says what a failure leaves on disk.
    virtual int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) = 0;

    // --- Transparent I/O: a stub's own data, read and written without a recall ---

    /// Opens `path` with open(2)'s `flags` and `mode`. 0, or -1. A second open fails while a file is open,
    /// and that file stays open.
    virtual int openFileTrans(const char* path, int flags, int mode) = 0;
    /// Reads up to `len` bytes at the current position: their number, 0 at the end of the file, or negative.
    virtual int readFileTrans(void* buf, int len) = 0;
    /// Writes up to `len` bytes: their number, or negative. They go to the current position; only the extent
    /// variant writes at `offset`.
    virtual int writeFileTrans(const void* buf, int len, long long offset) = 0;
    /// Moves the position as lseek(2) does: the new position, or -1.
    virtual long long seekFileTrans(long long offset, int whence) = 0;
    /// Closes the file. 0, or -1.
    virtual int closeFileTrans() = 0;

    // --- Times and stat ---

    /// Sets the access and modification times, in whole seconds. `ctime` cannot be set and is ignored.
    /// 0, or -1 (code 4 for a missing file).
    virtual int setAMCTime(const char* path, long atime, long mtime, long ctime) = 0;
    /// Fills `*st`. 0, or -1 (code 4 for a missing file) with `*st` untouched.
    virtual int statFile(const char* path, struct stat* st) = 0;

    // --- Helpers ---

    /// A new object for the filter driver, owned by the caller, or null with an error line in the log.
    static QZHSMLowLevel* create();

    /// Calls `readFileTrans` until `len` bytes are read or the file ends: the number of bytes read. A
    /// negative result of one call is returned as it stands; how much was read before it is then unknown.
    int readFileTransAll(void* buf, int len);
    /// Calls `writeFileTrans` until all is written or a call writes nothing: the number of bytes written. A
    /// negative result of one call is returned as it stands. Every piece is passed with offset 0, so on the
    /// extent variant, where offsets count, call `writeFileTrans` instead.
    int writeFileTransAll(const void* buf, int len);
    /// Writes all of `buf` to a descriptor, across interruptions by signals: `len`, or -1 with errno set.
    static int writeAll(int fd, const void* buf, int len);

    /// The code of the last failure: a QZHSMErrorCode, or an errno where an operation says so. 0 after an
    /// operation that clears the error and succeeds.
    int m_errorCode = QZHSM_SUCCESS;
    /// The text of the last failure, for people: UTF-8, as far as the paths in it are. Empty likewise.
    std::string m_errorText;
};
