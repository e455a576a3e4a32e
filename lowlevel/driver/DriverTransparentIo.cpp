#include "lowlevel/driver/DriverClock.h"
#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"

#include <fcntl.h>
#include <unistd.h>

std::time_t (*g_driverClock)(std::time_t*) = std::time;

namespace {

constexpr int kCarrierNames = 1024;

/// Sends until the driver is not busy: 0, its errno, or EAGAIN where it stayed busy.
template <class Record>
int sendPatiently(const DriverRequest<Record>& request, int device, Record& record) {
    constexpr time_t kPatienceSeconds = 4;
    const time_t start = g_driverClock(nullptr);
    while (g_driverClock(nullptr) - start <= kPatienceSeconds)
        if (const int err = request.send(device, record); err != EAGAIN)
            return err;
    return EAGAIN;
}

} // namespace

int QZHSMLowLevelQZFS::openFileTrans(const char* path, int flags, int mode) {
    clearError();
    if (trans_fd.isOpen())
        return failSecondOpen(path);
    if (openAdminNode() < 0)
        return -1;

    std::string name;
    UniqueFd carrier;
    for (int number = 0; number < kCarrierNames && !carrier.isOpen(); ++number) {
        name = FXString::Format("%s.nktmp.%d", path, number);
        carrier = UniqueFd(open_utf(name.c_str(), flags | O_CREAT | O_EXCL, static_cast<mode_t>(mode)));
    }
    if (!carrier.isOpen())
        return failErrno(QZHSM_FAILURE, "Failed to open file ", name, errno);
    unlink_utf(name.c_str());

    PassThroughRecord record{};
    setPath(record.path, path);
    record.fd = carrier.get();
    const int err = sendPatiently(QZHSM_PASS_THROUGH, admin_fd.get(), record);
    if (err == EAGAIN) {
        // A busy driver may yet act on the descriptor: its number must not become another file's.
        static_cast<void>(carrier.release());
        return fail(QZHSM_TIMEOUT,
                    std::string("Timed out while trying to request pass-through access to ") + path);
    }
    if (err != 0)
        return failWith(QZHSM_PASS_THROUGH,
                        std::string("Failed to open file ") + path + " in transparent mode", err);
    trans_fd = std::move(carrier);
    trans_pos = 0;
    trans_on_jrn = isJRNFS(path, &trans_dev, &trans_fid) > 0;
    return 0;
}

int QZHSMLowLevelQZFS::openFileTrans(int fd, unsigned long dev, const fsf_fid& fid) {
    clearError();
    if (trans_fd.isOpen())
        return failSecondOpen("");
    if (openAdminNode() < 0)
        return -1;

    constexpr const char* kFailed = "Failed to open file in transparent mode";
    PassThroughByFidRecord record{};
    record.fid = fid;
    record.fd = fd;
    const int err = sendPatiently(QZHSM_PASS_THROUGH_BY_FID, admin_fd.get(), record);
    if (err == EAGAIN)
        return fail(QZHSM_TIMEOUT, "Timed out while trying to request pass-through access");
    if (err != 0)
        return failWith(QZHSM_PASS_THROUGH_BY_FID, kFailed, err);
    trans_fd = UniqueFd(::dup(fd));
    if (!trans_fd.isOpen())
        return failErrno(QZHSM_FAILURE, kFailed, "", errno);
    trans_pos = 0;
    trans_dev = dev;
    trans_fid = fid;
    trans_on_jrn = isJRNFS(dev) > 0;
    return 0;
}

int QZHSMLowLevelQZFS::readFileTrans(void* buf, int len) {
    const int got = readTrans(trans_fd.get(), buf, len);
    if (got > 0)
        trans_pos += got;
    return got;
}

int QZHSMLowLevelQZFS::writeFileTrans(const void* buf, int len, long long) {
    if (!requireTrans(trans_fd.get()))
        return -1;
    TranWriteRecord record; // NOLINT(cppcoreguidelines-pro-type-member-init): set field by field
    record.fd = trans_fd.get();
    record.data = buf;
    record.length = len;
    record.written = 0;
    if (const int err = QZHSM_TRAN_WRITE.send(admin_fd.get(), record))
        return failWith(QZHSM_TRAN_WRITE, "QZHSM_TRAN_WRITE failed", err);
    trans_pos += record.written;
    if (trans_on_jrn)
        jrnTWrite(trans_dev, trans_fid, trans_pos - record.written, buf, record.written);
    return record.written;
}

long long QZHSMLowLevelQZFS::seekFileTrans(long long offset, int whence) {
    const long long position = seekTrans(trans_fd.get(), offset, whence);
    if (position >= 0)
        trans_pos = position;
    return position;
}

int QZHSMLowLevelQZFS::closeFileTrans() {
    trans_fd = UniqueFd();
    return 0;
}

int QZHSMLowLevelQZFS::setAMCTime(const char* path, long atime, long mtime, long) {
    clearError();
    return setTimes(path, atime, mtime);
}

int QZHSMLowLevelQZFS::statFile(const char* path, struct stat* st) {
    clearError();
    return statPath(path, st);
}
