// The requests: what each must look like, and what the driver does about it.

#include "emulator/Requests.h"

#include "emulator/Files.h"
#include "emulator/State.h"
#include "lowlevel/driver/DriverRequests.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace emulator {

namespace {

void require(bool holds, const char* what) {
    if (!holds)
        die(std::string("malformed request: ") + what);
}

/// A text field ends in a NUL and is zero behind it.
std::string text(const DriverText& field) {
    const char* end = std::find(std::begin(field), std::end(field), '\0');
    require(end != std::end(field), "a text without an end");
    require(std::all_of(end, std::end(field), [](char c) { return c == '\0'; }), "rubbish behind a text");
    return {field, end};
}

std::string quoted(const DriverText& field) {
    return '"' + text(field) + '"';
}

std::string bytes(int64_t count) {
    return std::to_string(count) + " bytes";
}

std::string name(const fsf_fid& fid) {
    return "file " + std::to_string(fid.words[0]);
}

/// Requests that go by a path or by a device leave the other zero.
template <class Record>
std::string pathOrDevice(const Record& r) {
    const std::string path = text(r.path);
    require(path.empty() || r.dev == 0, "a path and a device");
    return path.empty() ? "device " + std::to_string(r.dev) : path;
}

// --- What a request asks for, in words. Even one that is to fail has to be well made. ---

template <class Record>
void requireNoAnswer(const Record& r) {
    require(r.isStub == 0 && r.fileInfo == 0 && text(r.meta).empty(), "answers that are set");
}

std::string describe(const StatRecord& r) {
    requireNoAnswer(r);
    return text(r.path);
}
std::string describe(const StatByFidRecord& r) {
    requireNoAnswer(r);
    return name(r.fid);
}
std::string describe(const CreateStubRecord& r) {
    return text(r.path) + ", " + quoted(r.meta) + ", " + bytes(r.size);
}
std::string describe(const DeleteStubRecord& r) {
    require(r.failed <= 1, "a flag that is neither 0 nor 1");
    return text(r.path) + (r.failed ? ", recall failed" : ", recalled");
}
std::string describe(const PassThroughRecord& r) {
    struct stat carrier {};
    require(::fstat(r.fd, &carrier) == 0 && S_ISREG(carrier.st_mode), "a carrier that is no open file");
    require(carrier.st_nlink == 0, "a carrier that still has a name");
    return text(r.path) + " on descriptor " + std::to_string(r.fd);
}
std::string describe(const PassThroughByFidRecord& r) {
    require(r.zero == 0, "a filler that is not zero");
    return name(r.fid) + " on descriptor " + std::to_string(r.fd);
}
std::string describe(const TranWriteRecord& r) {
    return bytes(r.length) + " at " + std::to_string(::lseek(r.fd, 0, SEEK_CUR));
}
std::string describe(const AddWatchRecord& r) {
    require(r.mountFlag >= 0 && r.mountFlag <= 255, "a mount flag that is no byte");
    return text(r.path) + ", mount flag " + std::to_string(r.mountFlag);
}
std::string describe(const DelWatchRecord& r) {
    return pathOrDevice(r);
}
std::string describe(const IsWatchRecord& r) {
    require(r.answer == 0 && r.zero == 0, "an answer or filler that is set");
    return pathOrDevice(r);
}
std::string describe(const RestoreStubRecord& r) {
    return text(r.path) + ", " + quoted(r.meta) + ", " + bytes(r.size);
}
std::string describe(const ResubmitRecord& r) {
    require(r.zero == 0, "a filler that is not zero");
    return "";
}

// --- What the driver does: 0, or an errno. What it answers is added to the request's text. ---

template <class Record>
int answerStat(Record& r, const File& file, std::string& said) {
    if (const int err = check(file))
        return err;
    r.isStub = file.isStub() ? 1 : 0;
    r.fileInfo = driver().fileInfo;
    file.meta().copy(r.meta, sizeof r.meta - 1);
    said += r.isStub ? std::string(" -> a stub, \"") + r.meta + "\"" : " -> no stub";
    if (driver().faulty)
        std::memset(r.meta, 'm', sizeof r.meta);
    return 0;
}

int answer(StatRecord& r, std::string& said) {
    return answerStat(r, look(r.path), said);
}

int answer(StatByFidRecord& r, std::string& said) {
    return r.dev == r.fid.words[2] ? answerStat(r, lookByFid(r.fid), said) : ENOENT;
}

int answer(CreateStubRecord& r, std::string&) {
    const File file = look(r.path);
    if (const int err = check(file))
        return err;
    if (file.isStub())
        return EALREADY;
    if (file.st.st_mtime > r.refTime || isLockedByAnother(file))
        return EBUSY;
    return file.st.st_size == r.size ? makeStub(file, r.size, r.meta) : EINVAL;
}

int answer(DeleteStubRecord& r, std::string&) {
    const File file = look(r.path);
    if (file.err != 0 || r.failed)
        return file.err;
    return file.isStub() ? dropStub(file) : EINVAL;
}

int answer(PassThroughRecord& r, std::string&) {
    const File file = look(r.path);
    if (file.err != 0)
        return file.err;
    if (inodeOf(r.fd).first != file.st.st_dev)
        return EXDEV;
    if (!file.isStub())
        return kDriverNotAStub;
    if (const int err = redirect(r.fd, file))
        return err;
    driver().granted.insert(inodeOf(r.fd));
    return 0;
}

int answer(PassThroughByFidRecord& r, std::string&) {
    const File file = lookByFid(r.fid);
    if (file.err != 0 || inodeOf(r.fd) != std::pair(file.st.st_dev, file.st.st_ino))
        return ENOENT;
    if (!file.isStub())
        return kDriverNotAStub;
    driver().granted.insert(inodeOf(r.fd));
    return 0;
}

int answer(TranWriteRecord& r, std::string& said) {
    if (!driver().granted.contains(inodeOf(r.fd)))
        return EBADF;
    const ssize_t written = ::write(r.fd, r.data, static_cast<size_t>(r.length));
    if (written < 0)
        return errno;
    r.written = static_cast<int32_t>(written) + (driver().faulty ? 1 : 0);
    if (r.written != r.length)
        said += " -> " + bytes(r.written);
    return 0;
}

int answer(AddWatchRecord& r, std::string&) {
    const File file = look(r.path);
    if (file.err == 0)
        driver().watched.insert(file.st.st_dev);
    return file.err;
}

int answer(DelWatchRecord& r, std::string&) {
    const uint64_t dev = *r.path ? look(r.path).st.st_dev : r.dev;
    return driver().watched.erase(dev) == 0 ? ENOENT : 0;
}

int answer(IsWatchRecord& r, std::string& said) {
    const File file = look(r.path);
    if (*r.path && file.err != 0)
        return file.err;
    r.answer = driver().watched.contains(*r.path ? file.st.st_dev : r.dev) ? driver().watchAnswer : 0;
    said += r.answer ? " -> watched" : " -> not watched";
    return 0;
}

int answer(RestoreStubRecord& r, std::string&) {
    const File file = look(r.path);
    const int err = check(file);
    return err != 0 ? err : makeStub(file, r.size, r.meta);
}

int answer(ResubmitRecord&, std::string&) {
    return 0;
}

/// Answers `command` if it is `request`. False if it is not.
template <class Record, class Operation>
bool handle(const Operation& request, unsigned long command, void* argument, int& err) {
    if (command != request.command)
        return false;
    auto& record = *static_cast<Record*>(argument);
    std::string said = std::string(request.name) + " " + describe(record);
    err = takeFailure(_IOC_NR(command));
    if (err == 0)
        err = answer(record, said);
    note(_IOC_NR(command), said, err);
    return true;
}

} // namespace

int answerRequest(unsigned long command, void* record) {
    const std::lock_guard lock(driverLock);
    const SharedWatchList shared;
    int err = 0;
    const bool known = handle<StatRecord>(QZHSM_STAT, command, record, err) ||
                       handle<StatByFidRecord>(QZHSM_STAT_BY_FID, command, record, err) ||
                       handle<CreateStubRecord>(QZHSM_CREATE_STUB, command, record, err) ||
                       handle<DeleteStubRecord>(QZHSM_DELETE_STUB, command, record, err) ||
                       handle<PassThroughRecord>(QZHSM_PASS_THROUGH, command, record, err) ||
                       handle<PassThroughByFidRecord>(QZHSM_PASS_THROUGH_BY_FID, command, record, err) ||
                       handle<TranWriteRecord>(QZHSM_TRAN_WRITE, command, record, err) ||
                       handle<AddWatchRecord>(QZHSM_ADD_WATCH_FS, command, record, err) ||
                       handle<DelWatchRecord>(QZHSM_DEL_WATCH_FS, command, record, err) ||
                       handle<IsWatchRecord>(QZHSM_IS_WATCH_FS, command, record, err) ||
                       handle<RestoreStubRecord>(QZHSM_RESTORE_STUB, command, record, err) ||
                       handle<ResubmitRecord>(QZHSM_RESUBMIT_PENDING_RECALLS, command, record, err);
    require(known, "an unknown command, or a record of another size");
    return answerWith(err, driver().success);
}

} // namespace emulator
