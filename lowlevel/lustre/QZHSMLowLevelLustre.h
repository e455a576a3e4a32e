#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <string>

/// Stubs on a Lustre file system that uses Lustre's own HSM. A file is a stub when it carries the stub text
/// in its attribute "user.TSTUB", which the site's copy agent writes when it archives the file, and Lustre
/// reports its state as released. Lustre itself gives a released file its data back.
///
/// The state is asked of, and the release done by, the command "lfs", run through the shell with the path
/// unquoted: what a path holds of blanks or shell characters is the shell's to interpret, so check paths that
/// others can choose. Every such operation starts a process. What "lfs" prints holds the path too: to a path
/// with the word "released" in it every file with the attribute is a stub.
///
/// There is no transparent I/O and no setting of times: those fail with code 38.
class QZHSM_API QZHSMLowLevelLustre : public QZHSMLowLevel {
public:
    /// Loads the Lustre user library, and reads from the configuration how long `stubFile` waits. If the
    /// library cannot be loaded there is a line in the log, and `stubFile` will fail.
    QZHSMLowLevelLustre();
    ~QZHSMLowLevelLustre() override;

    // --- Watching: Lustre itself notices access to stubs; these clear the error and do nothing ---

    int startWatchingDirTree(const char* dirPath) override;
    int stopWatchingDirTree(const char* dirPath) override;
    int stopWatchingDevice(unsigned long device) override;
    /// Always 0.
    int isDirBeingWatched(const char* dirPath) override;
    /// Always 1.
    int isDMRFS(const char* path) override;

    // --- The life of a stub ---

    /// What "lfs hsm_state" prints: 0, whatever its exit status, or -1 with `state` untouched if it could not
    /// be run.
    int getHSMState(const char* path, std::string& state);
    /// 1 for a stub. Else 0: with code 8 for a file without the attribute, which starts no process, with code
    /// 0 for one whose data is there, with code -1 if the state could not be learned. Symbolic links are not
    /// followed.
    int isStub(const char* path) override;
    /// Always 0, with state 2; `isStub`'s error stands.
    int getFileInfo(const char* path, bool* isStub, int* state) override;

    /// Has Lustre archive the file, with `stubMeta`, "|" and `refTime` in decimal for the copy agent, waits
    /// for that as long as the configuration says ("archiveTimeout" in section "Lustre", in seconds, default
    /// 3600), and releases it. `refTime` is not compared with the file's time here, and `size` has no effect.
    /// 0, or -1 with code -1; 0 even if Lustre refused the release, which shows in the state.
    ///
    /// On disk after a failure: the data; perhaps the attribute, since Lustre may go on with the request
    /// after a time-out (ETIMEDOUT's text). If the release could not be run the attribute is removed.
    int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) override;
    /// Has Lustre give up the data of an archived file. 0, whatever the command's exit status (a refused
    /// release shows in the state), or -1 if it could not be run; with `removeAttrOnFailure` the file then
    /// loses its stub text.
    int releaseFile(const char* path, bool removeAttrOnFailure);
    /// 0, or -1: with code 8 for an attribute that holds no stub text, with code 0 if there is none.
    int backupStub(const char* path, std::vector<char>& stubData) override;

    /// Creates a missing file with mode 0600; what an existing one held is lost. A size of 0 fails.
    /// 0, or -1 with code -1.
    ///
    /// On disk after a failure: untouched if the stub data is corrupt; emptied if the attribute is there
    /// already or cannot be set; with the attribute but empty if the size cannot be set; of the right size
    /// but without the attribute if the release could not be run.
    int restoreStub(const char* path, const std::vector<char>& stubData) override;
    /// 1 if `success` is true, else 0. Nothing else is done: Lustre ends the stub.
    int restoreDone(const char* path, bool success, const std::list<long long>& ids) override;

    // --- Transparent I/O: not implemented, code 38 ---

    int openFileTrans(const char* path, int flags, int mode) override;
    int readFileTrans(void* buf, int len) override;
    int writeFileTrans(const void* buf, int len, long long offset) override;
    long long seekFileTrans(long long offset, int whence) override;
    int closeFileTrans() override;

    // --- Times and stat ---

    /// Always -1, with code 38.
    int setAMCTime(const char* path, long atime, long mtime, long ctime) override;
    int statFile(const char* path, struct stat* st) override;
};
