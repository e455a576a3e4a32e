#include "emulator/DriverEmulator.h"

#include "lowlevel/driver/DriverRequests.h"
#include "platform/drivers/QZHSMServiceHelper.h"
#include "platform/files/UniqueFd.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr const char* kRecord = "user.nkfsdm.stub"; // the file's size, a line break, the metadata

using emulator::driver;

std::mutex driverLock;
std::atomic<time_t> clockAhead{0}; ///< of the real one, and it never goes back
std::atomic<bool> answeringAtOnce{false};

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
int realOpen(const char* path, int flags) {
    static auto* open = real<int(const char*, int, ...)>("open");
    return open(path, flags);
}
int realStat(const char* path, struct stat* st) {
    static auto* stat = real<int(const char*, struct stat*)>("stat");
    return stat(path, st);
}

void require(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "emulated driver: malformed request: %s\n", what);
    std::abort();
}
/// A text field ends in a NUL and is zero behind it.
const char* text(const DriverText& field) {
    const char* end = std::find(std::begin(field), std::end(field), '\0');
    require(end != std::end(field), "a text without an end");
    require(std::all_of(end, std::end(field), [](char c) { return c == '\0'; }), "rubbish behind a text");
    return field;
}

// --- What the driver knows of files ---

struct File {
    std::string path;
    struct stat st {};
    int err = 0; ///< why there is none
    bool watched = false;
    std::string record; ///< empty for what is not a stub

    bool isStub() const { return !record.empty(); }
    std::string meta() const { return record.substr(record.find('\n') + 1); }
};

void loadWatched() {
    const char* state = std::getenv("QZHSM_EMULATOR_STATE");
    if (!state)
        return;
    driver().watched.clear();
    std::ifstream in(state);
    for (uint64_t dev = 0; in >> dev;)
        driver().watched.insert(dev);
}
void saveWatched() {
    if (const char* state = std::getenv("QZHSM_EMULATOR_STATE")) {
        std::ofstream out(state);
        for (const uint64_t dev : driver().watched)
            out << dev << '\n';
    }
}

File look(const std::string& path) {
    File file;
    file.path = path;
    if (realStat(path.c_str(), &file.st) < 0) {
        file.err = errno;
        return file;
    }
    loadWatched();
    file.watched = driver().watched.contains(file.st.st_dev);
    char record[4096];
    const ssize_t length = ::getxattr(path.c_str(), kRecord, record, sizeof record);
    if (length > 0)
        file.record.assign(record, static_cast<size_t>(length));
    return file;
}
/// The inode, its complement, the device.
File lookByFid(const fsf_fid& fid) {
    const auto found = driver().pathsByInode.find(fid.words[0]);
    File file = look(found == driver().pathsByInode.end() ? "" : found->second);
    if (file.err == 0 && (fid.words[1] != ~fid.words[0] || fid.words[2] != file.st.st_dev))
        file.err = ENOENT;
    return file;
}
int lookBadly(const File& file) {
    return file.err != 0 ? file.err : file.watched && S_ISREG(file.st.st_mode) ? 0 : EINVAL;
}

/// The record first, then the data goes; times stay.
int makeStub(const File& file, int64_t size, const char* meta) {
    const std::string record = std::to_string(size) + "\n" + meta;
    const timespec times[] = {file.st.st_atim, file.st.st_mtim};
    if (::setxattr(file.path.c_str(), kRecord, record.data(), record.size(), 0) < 0 ||
        ::truncate(file.path.c_str(), 0) < 0 || ::truncate(file.path.c_str(), size) < 0 ||
        ::utimensat(AT_FDCWD, file.path.c_str(), times, 0) < 0)
        return errno;
    return 0;
}

bool lockedByAnother(const File& file) {
    const UniqueFd opened(realOpen(file.path.c_str(), O_WRONLY));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    return ::fcntl(opened.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

std::pair<dev_t, ino_t> inodeOf(int fd) {
    struct stat st {};
    ::fstat(fd, &st);
    return {st.st_dev, st.st_ino};
}

/// A request on its way through the driver.
struct Call {
    /// Follows the checks of the record: even a request that is to fail has to be well made.
    void proceed(const std::string& what) {
        said = what;
        if (injected != 0)
            throw injected;
    }

    int injected;     ///< the errno that it is to fail with, or 0
    std::string said; ///< what the trace shows of it
};

// --- One function for each request: 0, or errno ---

template <class Record>
int answerStat(Record& r, Call& call, const File& file, const std::string& what) {
    require(r.isStub == 0 && r.fileInfo == 0 && *text(r.meta) == '\0', "answers that are set");
    call.proceed(what);
    if (const int err = lookBadly(file))
        return err;
    r.isStub = file.isStub() ? 1 : 0;
    r.fileInfo = driver().fileInfo;
    file.meta().copy(r.meta, sizeof r.meta - 1);
    call.said += r.isStub ? std::string(" -> a stub, \"") + r.meta + "\"" : " -> no stub";
    return 0;
}

int answer(StatRecord& r, Call& call) {
    return answerStat(r, call, look(text(r.path)), r.path);
}

int answer(StatByFidRecord& r, Call& call) {
    File file = lookByFid(r.fid);
    if (file.err == 0 && file.st.st_dev != r.dev)
        file.err = ENOENT;
    return answerStat(r, call, file, "file " + std::to_string(r.fid.words[0]));
}

int answer(CreateStubRecord& r, Call& call) {
    call.proceed(std::string(text(r.path)) + ", \"" + text(r.meta) + "\", " + std::to_string(r.size) +
                 " bytes");
    const File file = look(r.path);
    if (const int err = lookBadly(file))
        return err;
    if (file.isStub())
        return EALREADY;
    if (file.st.st_mtime > r.refTime || lockedByAnother(file))
        return EBUSY;
    return file.st.st_size == r.size ? makeStub(file, r.size, r.meta) : EINVAL;
}

int answer(DeleteStubRecord& r, Call& call) {
    require(r.failed <= 1, "a flag that is neither 0 nor 1");
    call.proceed(std::string(text(r.path)) + (r.failed ? ", recall failed" : ", recalled"));
    const File file = look(r.path);
    if (file.err != 0 || r.failed)
        return file.err;
    return file.isStub() ? (::removexattr(r.path, kRecord) < 0 ? errno : 0) : EINVAL;
}

/// From now on the carrier's descriptor is one of the stub's own data, with the access mode it had.
int answer(PassThroughRecord& r, Call& call) {
    struct stat carrier {};
    require(::fstat(r.fd, &carrier) == 0 && S_ISREG(carrier.st_mode), "a carrier that is no open file");
    require(carrier.st_nlink == 0, "a carrier that still has a name");
    call.proceed(std::string(text(r.path)) + " on descriptor " + std::to_string(r.fd));
    const File file = look(r.path);
    if (file.err != 0)
        return file.err;
    if (carrier.st_dev != file.st.st_dev)
        return EXDEV;
    if (!file.isStub())
        return kDriverNotAStub;
    const UniqueFd stub(realOpen(r.path, ::fcntl(r.fd, F_GETFL) & O_ACCMODE));
    if (!stub.isOpen() || ::dup3(stub.get(), r.fd, ::fcntl(r.fd, F_GETFD) != 0 ? O_CLOEXEC : 0) < 0)
        return errno;
    driver().granted.insert(inodeOf(r.fd));
    return 0;
}

int answer(PassThroughByFidRecord& r, Call& call) {
    require(r.zero == 0, "a filler that is not zero");
    call.proceed("file " + std::to_string(r.fid.words[0]) + " on descriptor " + std::to_string(r.fd));
    const File file = lookByFid(r.fid);
    if (file.err != 0 || inodeOf(r.fd).second != file.st.st_ino)
        return ENOENT;
    if (!file.isStub())
        return kDriverNotAStub;
    driver().granted.insert(inodeOf(r.fd));
    return 0;
}

int answer(TranWriteRecord& r, Call& call) {
    call.proceed(std::to_string(r.length) + " bytes at " + std::to_string(::lseek(r.fd, 0, SEEK_CUR)));
    if (!driver().granted.contains(inodeOf(r.fd)))
        return EBADF;
    const ssize_t written = ::write(r.fd, r.data, static_cast<size_t>(r.length));
    if (written < 0)
        return errno;
    r.written = static_cast<int32_t>(written);
    return 0;
}

int answer(AddWatchRecord& r, Call& call) {
    require(r.mountFlag >= 0 && r.mountFlag <= 255, "a mount flag that is no byte");
    call.proceed(std::string(text(r.path)) + ", mount flag " + std::to_string(r.mountFlag));
    const File file = look(r.path);
    if (file.err == 0 && driver().watched.insert(file.st.st_dev).second)
        saveWatched();
    return file.err;
}

int answer(DelWatchRecord& r, Call& call) {
    require(*text(r.path) == '\0' || r.dev == 0, "a path and a device");
    call.proceed(*r.path ? r.path : "device " + std::to_string(r.dev));
    const File file = look(r.path);
    loadWatched();
    if (driver().watched.erase(*r.path ? file.st.st_dev : r.dev) == 0)
        return ENOENT;
    saveWatched();
    return 0;
}

int answer(IsWatchRecord& r, Call& call) {
    require(r.answer == 0 && r.zero == 0, "an answer or filler that is set");
    require(*text(r.path) == '\0' || r.dev == 0, "a path and a device");
    call.proceed(*r.path ? r.path : "device " + std::to_string(r.dev));
    const File file = look(r.path);
    if (*r.path && file.err != 0)
        return file.err;
    loadWatched();
    r.answer = driver().watched.contains(*r.path ? file.st.st_dev : r.dev) ? driver().watchAnswer : 0;
    call.said += r.answer ? " -> watched" : " -> not watched";
    return 0;
}

int answer(RestoreStubRecord& r, Call& call) {
    call.proceed(std::string(text(r.path)) + ", \"" + text(r.meta) + "\", " + std::to_string(r.size) +
                 " bytes");
    const File file = look(r.path);
    if (const int err = lookBadly(file))
        return err;
    return makeStub(file, r.size, r.meta);
}

int answer(ResubmitRecord& r, Call& call) {
    require(r.zero == 0, "a filler that is not zero");
    call.proceed("");
    ++driver().resubmissions;
    return 0;
}

// --- The device ---

std::string errnoName(int err) {
    const char* name = ::strerrorname_np(err);
    return (name ? name : "errno " + std::to_string(err)) + " (" + ::strerror(err) + ")";
}

void trace(const char* name, const std::string& said, int err) {
    if (!std::getenv("QZHSM_EMULATOR_TRACE"))
        return;
    const std::string line =
        std::string("    driver: ") + name + " " + said + (err ? " -> " + errnoName(err) : "") + "\n";
    static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

/// The errno that the request is to fail with, or 0.
int injectedFailure(unsigned nr) {
    const auto found = driver().failures.find(nr);
    if (found == driver().failures.end() || found->second.second == 0)
        return 0;
    if (found->second.second > 0)
        --found->second.second;
    return found->second.first;
}

template <class Record>
bool handle(const DriverRequest<Record>& request, unsigned long command, void* argument, int& err) {
    if (command != request.command)
        return false;
    const auto* bytes = static_cast<unsigned char*>(argument);
    constexpr size_t kKept = 4096; // nobody looks at more of them
    if (driver().seen.size() < kKept)
        driver().seen.push_back({command, {bytes, bytes + sizeof(Record)}});
    Call call{injectedFailure(_IOC_NR(command)), {}};
    try {
        err = answer(*static_cast<Record*>(argument), call);
    } catch (int injected) {
        err = injected;
    }
    if (err == EAGAIN && driver().ticksWhenBusy)
        ++clockAhead;
    trace(request.name, call.said, err);
    return true;
}

/// As a system call answers: a success leaves errno alone.
int answerWith(int err) {
    if (err == 0)
        return 0;
    errno = err;
    return -1;
}

int request(unsigned long command, void* record) {
    const std::lock_guard lock(driverLock);
    int err = 0;
    const bool known = std::apply(
        [&](const auto&... requests) { return (handle(requests, command, record, err) || ...); },
        std::tie(QZHSM_STAT, QZHSM_STAT_BY_FID, QZHSM_CREATE_STUB, QZHSM_DELETE_STUB, QZHSM_PASS_THROUGH,
                 QZHSM_PASS_THROUGH_BY_FID, QZHSM_TRAN_WRITE, QZHSM_ADD_WATCH_FS, QZHSM_DEL_WATCH_FS,
                 QZHSM_IS_WATCH_FS, QZHSM_RESTORE_STUB, QZHSM_RESUBMIT_PENDING_RECALLS));
    require(known, "an unknown command, or a record of another size");
    return answerWith(err);
}

/// The device is "/dev/null" behind the curtain.
bool isDevice(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, 3);
}

bool isDevicePath(const char* path) {
    return std::strcmp(path, kDriverDevice) == 0 && driver().loaded;
}

} // namespace

// The C library names its parameters otherwise.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

QZHSM_API int stat(const char* path, struct stat* st) {
    return realStat(isDevicePath(path) ? "/dev/null" : path, st);
}

QZHSM_API int open(const char* path, int flags, ...) {
    static auto* open = real<int(const char*, int, ...)>("open");
    va_list args;
    va_start(args, flags);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started right above
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (!isDevicePath(path))
        return open(path, flags, mode);
    require(flags == O_RDWR, "the device opened with other flags");
    const std::lock_guard lock(driverLock);
    ++driver().deviceOpens;
    const int err = injectedFailure(0);
    return err == 0 ? open("/dev/null", flags) : answerWith(err);
}

QZHSM_API time_t time(time_t* at) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const time_t seconds = now.tv_sec + clockAhead;
    if (at)
        *at = seconds;
    return seconds;
}

QZHSM_API int ioctl(int fd, unsigned long command, ...) noexcept {
    static auto* ioctl = real<int(int, unsigned long, ...)>("ioctl");
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (_IOC_TYPE(command) != 'C')
        return ioctl(fd, command, argument);
    if (answeringAtOnce) // which "/dev/null" refuses
        return ioctl(fd, command, argument) < 0 && errno == ENOTTY ? 0 : -1;
    return isDevice(fd) ? request(command, argument) : ioctl(fd, command, argument);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace emulator {

Driver& driver() {
    static Driver& made = *[] { // requests come until the very end of the process
        auto* fresh = new Driver;
        unsigned nr = 0;
        std::pair<int, int> failure;
        const char* wish = std::getenv("QZHSM_EMULATOR_FAIL");
        if (wish && std::sscanf(wish, "%u:%d:%d", &nr, &failure.first, &failure.second) == 3)
            fresh->failures[nr] = failure;
        return fresh;
    }();
    return made;
}

void fail(unsigned nr, int err, int times) {
    const std::lock_guard lock(driverLock);
    driver().failures[nr] = {err, times};
}

fsf_fid fidOf(const std::string& path) {
    struct stat st {};
    require(realStat(path.c_str(), &st) == 0, "no file to identify");
    const std::lock_guard lock(driverLock);
    driver().pathsByInode[st.st_ino] = path;
    return {{st.st_ino, ~st.st_ino, st.st_dev}};
}

void answerAtOnce(bool atOnce) {
    answeringAtOnce = atOnce;
}

} // namespace emulator
