#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <cstdint>
#include <map>
#include <string>

namespace NkACL {
class Helper;
}

/// Stubs on any local file system, without help from the kernel. A stub keeps its size; the stub text lies at
/// offset 0 and the rest is a hole. If user attributes work, "user.NkStubFile" = "1" marks it, and the mark
/// alone decides; elsewhere valid stub text in the first 1024 bytes does.
///
/// Symbolic links are followed, except by `statFile`. A copy that keeps attributes copies the mark too.
///
/// In archive-and-delete mode nothing is a stub and every path can be archived.
class QZHSM_API QZHSMLowLevelDriverless : public QZHSMLowLevel {
public:
    /// Reads the configuration's "sArchiveNonExtData" in section "FileSystemAgent": with "yes" file systems
    /// without attributes count as managed too.
    QZHSMLowLevelDriverless();
    /// Does not close a file that is still open for transparent I/O.
    ~QZHSMLowLevelDriverless() override;

    /// Enters archive-and-delete mode, for good. Before other threads use the object.
    void setArchiveAndDelete() { m_archiveAndDelete = true; }
    /// Whether it is in archive-and-delete mode.
    bool isArchiveAndDelete() const { return m_archiveAndDelete; }
    /// Whether file systems without attributes count as managed: the configuration's word.
    bool isArchiveNonExtData() const { return m_archiveNonExtData; }

    // --- Watching: nothing intercepts access here; the first three clear the error and answer 0 ---

    int startWatchingDirTree(const char* dirPath) override;
    int stopWatchingDirTree(const char* dirPath) override;
    int stopWatchingDevice(unsigned long device) override;
    /// 1 if the directory, an absolute path, lies in one of the client's migrated trees, else 0. The list is
    /// read anew each time.
    int isDirBeingWatched(const char* dirPath) override;
    /// 1 if user attributes work, or need not. Else 0 with code 0 and a text that names the file system; so
    /// for a path that does not exist: ask about its directory.
    int isDMRFS(const char* path) override;
    /// The same, remembered for the last path asked, for all objects of the process together; devices found
    /// without attributes are noted. Callers on several threads serialise.
    bool isDMRFSforInPlaceRestore(const char* path);
    /// Appends the mount directory of each noted device and a blank. The mount table is read once.
    void getNonXATTRmountPoints(std::string& out);
    /// Reads the mount table: the result of the last lstat of a mount directory, or of reading the table if
    /// it listed none.
    int populateMountPointDetails();

    // --- The life of a stub ---

    /// 1 or 0; 0 also on failure: code 4 for a missing file and for one that cannot be opened, else -1. With
    /// attributes the file is not opened, and a mark that may not be read counts as none, with a clear error;
    /// without them both its times are put back, to the whole second, which moves its change time and hides
    /// what somebody writes meanwhile: ask only while nobody does.
    int isStub(const char* path) override;
    /// Always 0, with state 2; `isStub`'s error stands.
    int getFileInfo(const char* path, bool* isStub, int* state) override;
    /// Whatever holds stub text can be saved, marked or not. A missing file is code -1 here.
    int backupStub(const char* path, std::vector<char>& stubData) override;

    /// `size` has no effect: the file's own size counts. Times are put back in whole seconds. A file shorter
    /// than its stub text grows to that length; an empty one fails after it was marked. A stub is refused
    /// (EEXIST) by its mark; without attributes it is stubbed again, and its metadata is replaced.
    ///
    /// Any record lock of another process refuses the file. Asking for it opens and closes the file, and by
    /// POSIX rules that drops every record lock that the calling process itself holds on it.
    ///
    /// On disk after a failure:
    ///  - untouched: the file is missing (4), was modified after `refTime` (3), is not regular (-1), its stub
    ///    text would exceed 4096 bytes (-1, EMSGSIZE's text), or the mark cannot be created (the code is
    ///    errno itself; EEXIST if it is there already, since it is never replaced);
    ///  - marked, with its data: it could not be opened (-1), is locked (3), or could not be truncated (-1);
    ///  - marked, without its data: the text could not be written (-1; a merely short write is not noticed);
    ///  - a complete stub: the times could not be put back (-1).
    ///
    /// The same states, one after the other, are what a kill leaves: untouched; marked, with its data
    /// (`isStub` answers 1); marked and empty; marked, of the old size, all hole; a complete
    /// stub with the time of the kill as modification time; a complete stub. After a power cut any of these
    /// may be found, as nothing is flushed here. Between emptying and writing the text nothing on disk says
    /// what the stub was; without attributes nothing says then that it was one.
    int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) override;

    /// Creates a missing file with mode 0600; what an existing one held is lost, its mode kept. Times are not
    /// set. The mark comes first: on a file system with attributes a missing path gives it nothing to land
    /// on, and the file made is not marked. Create it empty before.
    ///
    /// On disk after a failure: untouched if the mark cannot be set (code errno; EEXIST for a stub); marked,
    /// with its data, if the stub data is corrupt or the file cannot be opened (-1); marked and emptied if
    /// writing fails (-1), as it does for stub data that records size 0. A kill leaves: untouched; marked,
    /// with its data; marked and empty; marked, of the stub's size, with none or some of the text; a complete
    /// stub.
    int restoreStub(const char* path, const std::vector<char>& stubData) override;

    /// With `success` removes the mark. 0, or negative with the code errno: ENODATA for a file without one,
    /// EOPNOTSUPP on every file system without user attributes, where there is nothing to remove. Does not
    /// clear the error. `ids` have no effect.
    int restoreDone(const char* path, bool success, const std::list<long long>& ids) override;

    // --- Transparent I/O: plain I/O on one descriptor, which nothing intercepts ---

    int openFileTrans(const char* path, int flags, int mode) override;
    int readFileTrans(void* buf, int len) override;
    /// `offset` has no effect.
    int writeFileTrans(const void* buf, int len, long long offset) override;
    long long seekFileTrans(long long offset, int whence) override;
    /// Always 0.
    int closeFileTrans() override;

    // --- Times and stat ---

    int setAMCTime(const char* path, long atime, long mtime, long ctime) override;
    /// An lstat that gives up after 120 seconds, with code -1 and ETIMEDOUT's text. The first call of a
    /// thread that asks for more than the kernel has cached of a local file starts a helper thread, with the
    /// identity that the thread has then.
    int statFile(const char* path, struct stat* st) override;

private:
    int m_transFd = -1;
    bool m_archiveNonExtData = false;
    bool m_archiveAndDelete = false;
    NkACL::Helper* m_aclHelper;
    std::map<uint64_t, bool> m_nonXattrDevices;
    std::map<uint64_t, std::string> m_mountPointsByDevice;
};
