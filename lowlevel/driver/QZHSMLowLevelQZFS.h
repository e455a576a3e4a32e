#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "platform/drivers/FlrDriver.h"
#include "platform/files/UniqueFd.h"

#include <cstdint>
#include <memory>
#include <string_view>

template <class Record>
struct DriverRequest;

/// Stubs that the kernel filter driver keeps. Each operation is one request on the driver's administrative
/// device, "/dev/nkfsdm", which the first one opens and the object then keeps.
///
/// A failed request has the driver's errno as reason in the text, and code 4 for a missing file, else -1,
/// unless an operation says otherwise. If the driver is not loaded, or its device cannot be opened, an
/// operation fails with -1 and says so, and the next call tries again. Paths beyond 2047 bytes and metadata
/// beyond 2047 bytes reach the driver cut.
///
/// If the configuration says that the journal driver or the Sortwell component is installed ("nINSTALL" in
/// section "Tessly/<instance>/JRN" or "Tessly/<instance>/Sortwell", read once), the journal is told of
/// stubbing, un-stubbing and transparent writes. That changes no result: a notice that fails is a line in the
/// log; a question that fails (on which device the file lies, whether its file system is tracked, which file
/// it is) counts as "not tracked" and leaves code -1 and its text behind although the operation returns 0.
class QZHSM_API QZHSMLowLevelQZFS : public QZHSMLowLevel {
public:
    QZHSMLowLevelQZFS();
    /// Ends a transparent session that is still open, and closes the device.
    ~QZHSMLowLevelQZFS() override;

    /// Opens the administrative device unless it is open. 0, or -1.
    int openAdminNode();

    // --- Watching: the driver acts on watched file systems only ---

    /// `path` may be any path in the file system. Code -1, and nothing asked of the driver, if the mount
    /// table has no entry for it.
    int startWatchingDirTree(const char* path) override;
    int stopWatchingDirTree(const char* path) override;
    /// Every failure is code -1.
    int stopWatchingDevice(unsigned long dev) override;
    /// As `isDMRFS`.
    int isDirBeingWatched(const char* path) override;
    /// The driver's answer as it comes, not 0 if the file system is watched; or -1.
    int isDMRFS(const char* path) override;
    /// The same by device number.
    int isDMRFS(unsigned long dev);
    /// Every failure is code -1.
    int resubmitPendingRecalls() override;

    // --- The life of a stub ---

    /// 1 or 0, or -1. A file that is not the driver's (EINVAL) is not a stub.
    int isStub(const char* path) override;
    /// The same by identifier; here EINVAL is a failure.
    int isStub(unsigned long dev, const fsf_fid& fid);
    /// `isStub` and `state` may be null. Both are untouched on failure. 0, or -1.
    int getFileInfo(const char* path, bool* isStub, int* state) override;

    /// Stores whether the file is a stub, and if so its stub data, which records `size` as the file's.
    /// REQUIRES: `size` is not negative. 0, or -1 with both outputs untouched.
    int getStubData(const char* path, bool& isStub, std::vector<char>& stubData, const long& size);
    /// The same by identifier; `fd` is not used.
    int getStubData(int fd, unsigned long dev, const fsf_fid& fid, bool& isStub, std::vector<char>& stubData,
                    const long& size);

    /// 0, or -1: code -1 for what is not a stub and for whatever the driver's answer was; a file that cannot
    /// be looked at has `statFile`'s code. `stubData` is untouched on failure.
    int backupStub(const char* path, std::vector<char>& stubData) override;
    /// The same by identifier, with `fd` open on the file. If it cannot be looked at the code is errno.
    int backupStub(int fd, unsigned long dev, const fsf_fid& fid, std::vector<char>& stubData);

    /// The driver compares `refTime` and `size` with the file's. Codes 2, 3, 4, 6 or 9 as the driver refuses,
    /// else -1; what is on disk after a refusal is the driver's to say, nothing is changed from here.
    int stubFile(const char* path, const char* stubMeta, time_t refTime, long long size) override;

    /// Nothing is asked of the driver if the stub data is corrupt (-1). Code 6 if the driver finds the
    /// request invalid. The file's data and size become what the driver makes of them.
    int restoreStub(const char* path, const std::vector<char>& stubData) override;

    /// With `success` the driver drops its record of the stub, else it keeps it. `ids` have no effect. The
    /// journal is told of a success first, even if the driver then cannot be asked.
    int restoreDone(const char* path, bool success, const std::list<long long>& ids) override;

    // --- Transparent I/O: one session, on a descriptor to which the driver grants the stub's own data ---

    /// Makes a file in the stub's directory, with `flags` and `mode`, takes its name away at once, and has
    /// the driver grant its descriptor access. While the driver is busy it is asked again, without a pause,
    /// for at most five seconds. `flags` concern the new file: O_TRUNC does not empty the stub. A `path` that
    /// is a symbolic link must lead to a stub on the link's file system.
    ///
    /// 0, or -1: 8 for what is not a stub, 7 if the driver stayed busy, in which case the descriptor is never
    /// closed; 4 or -1 otherwise. A process that is killed between making the file and removing its
    /// name leaves an empty file, named like the stub with ".nktmp." and a number behind.
    int openFileTrans(const char* path, int flags, int mode) override;
    /// The same on the caller's descriptor of the stub, which is duplicated and stays the caller's; the two
    /// share one position, which REQUIRES to be 0 for the journal to be told the right offsets.
    int openFileTrans(int fd, unsigned long dev, const fsf_fid& fid);
    int readFileTrans(void* buf, int len) override;
    /// `offset` has no effect.
    int writeFileTrans(const void* buf, int len, long long offset) override;
    long long seekFileTrans(long long offset, int whence) override;
    /// Always 0, the last error untouched.
    int closeFileTrans() override;

    // --- Times and stat: no request ---

    int setAMCTime(const char* path, long atime, long mtime, long ctime) override;
    int statFile(const char* path, struct stat* st) override;

    // --- The journal ---

    /// 1 if the journal tracks the file's file system; 0 if not, or if no journal is installed; -1 with code
    /// -1. Stores the device and, if tracked, the identifier through what is not null.
    int isJRNFS(const char* path, unsigned long* dev, fsf_fid* fid);
    /// The same for a device: 1, 0 or -1.
    int isJRNFS(unsigned long dev);

protected:
    UniqueFd trans_fd;                     ///< of the transparent session; closed if there is none
    UniqueFd admin_fd;                     ///< of the administrative device; closed until it is needed
    int64_t trans_pos = 0;                 ///< the session's position, in bytes
    bool trans_on_jrn = false;             ///< whether its writes are told to the journal, about
    uint64_t trans_dev = 0;                ///< the file system on this device
    fsf_fid trans_fid{};                   ///< and the file of this identifier
    std::unique_ptr<FlrDriver> flr_driver; ///< the journal's client; null if no journal is installed

private:
    /// Clears the error and opens the device: false, with the error set, if that fails.
    QZHSM_HIDDEN bool begin();
    /// Begins, asks the driver, and turns a refusal into code and text, in which `path` is named: 0, -1, or 1
    /// for a refusal that is an answer.
    template <class Record>
    int ask(const DriverRequest<Record>& request, Record& record, std::string_view path);
    /// The same of a device that is open, with whatever error stands.
    template <class Record>
    int askFurther(const DriverRequest<Record>& request, Record& record, std::string_view path);

    QZHSM_HIDDEN void jrnStub(const char* path, const char* meta);
    QZHSM_HIDDEN void jrnUnStub(const char* path);
    QZHSM_HIDDEN void jrnTWrite(unsigned long dev, const fsf_fid& fid, long long offset, const void* buf,
                                int n);
};
