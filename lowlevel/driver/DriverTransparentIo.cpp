#include "lowlevel/driver/DriverAsk.h"
#include "lowlevel/driver/DriverClock.h"
#include "lowlevel/internal/TransparentIo.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

std::time_t (*g_driverClock)(std::time_t*) = std::time;

namespace {

constexpr int kCarrierNames = 1024;

/// Sends until the driver is not busy: 0, its errno, or EAGAIN if it stayed busy.
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
    clearError(*this);
    if (trans_fd.isOpen())
        return failSecondOpen(*this, path);
    if (openAdminNode() < 0)
        return -1;

    std::string name;
    UniqueFd carrier;
    for (int number = 0; number < kCarrierNames && !carrier.isOpen(); ++number) {
        name = FXString::Format("%s.nktmp.%d", path, number);
        carrier = UniqueFd(open_utf(name.c_str(), flags | O_CREAT | O_EXCL, static_cast<mode_t>(mode)));
    }
    if (!carrier.isOpen())
        return failErrno(*this, QZHSM_FAILURE, "Failed to open file ", name, errno);
    unlink_utf(name.c_str());

    auto record = recordFor<PassThroughRecord>(path);
    record.fd = carrier.get();
    const int err = sendPatiently(QZHSM_PASS_THROUGH, admin_fd.get(), record);
    if (err == EAGAIN) {
        // A busy driver may yet act on the descriptor: its number must not become another file's.
        static_cast<void>(carrier.release());
        return fail(*this, QZHSM_TIMEOUT,
                    std::string("Timed out while trying to request pass-through access to ") + path);
    }
    if (err != 0)
        return failRequest(*this, QZHSM_PASS_THROUGH, path, err);
    trans_fd = std::move(carrier);
    trans_pos = 0;
    trans_on_jrn = isJRNFS(path, &trans_dev, &trans_fid) > 0;
    return 0;
}

int QZHSMLowLevelQZFS::openFileTrans(int fd, unsigned long dev, const fsf_fid& fid) {
    clearError(*this);
    if (trans_fd.isOpen())
        return failSecondOpen(*this, "");
    if (openAdminNode() < 0)
        return -1;

    PassThroughByFidRecord record{};
    record.fid = fid;
    record.fd = fd;
    const int err = sendPatiently(QZHSM_PASS_THROUGH_BY_FID, admin_fd.get(), record);
    if (err == EAGAIN)
        return fail(*this, QZHSM_TIMEOUT, "Timed out while trying to request pass-through access");
    if (err != 0)
        return failRequest(*this, QZHSM_PASS_THROUGH_BY_FID, "", err);
    trans_fd = UniqueFd(::dup(fd));
    if (!trans_fd.isOpen())
        return failErrno(*this, QZHSM_FAILURE, QZHSM_PASS_THROUGH_BY_FID.failure, "", errno);
    trans_pos = 0;
    trans_dev = dev;
    trans_fid = fid;
    trans_on_jrn = isJRNFS(dev) > 0;
    return 0;
}

int QZHSMLowLevelQZFS::readFileTrans(void* buf, int len) {
    const int got = readTrans(*this, trans_fd.get(), buf, len);
    if (got > 0)
        trans_pos += got;
    return got;
}

int QZHSMLowLevelQZFS::writeFileTrans(const void* buf, int len, long long) {
    if (!requireTrans(*this, trans_fd.get()))
        return -1;
    TranWriteRecord record; // NOLINT(cppcoreguidelines-pro-type-member-init): set field by field
    record.fd = trans_fd.get();
    record.data = buf;
    record.length = len;
    record.written = 0;
    if (askFurther(QZHSM_TRAN_WRITE, record, "") < 0)
        return -1;
    if (record.written < 0 || record.written > len) // the journal would be told of bytes that are not there
        return failRequest(*this, QZHSM_TRAN_WRITE, "", EBADMSG);
    trans_pos += record.written;
    if (trans_on_jrn)
        jrnTWrite(trans_dev, trans_fid, trans_pos - record.written, buf, record.written);
    return record.written;
}

long long QZHSMLowLevelQZFS::seekFileTrans(long long offset, int whence) {
    const long long position = seekTrans(*this, trans_fd.get(), offset, whence);
    if (position >= 0)
        trans_pos = position;
    return position;
}

int QZHSMLowLevelQZFS::closeFileTrans() {
    trans_fd = UniqueFd();
    return 0;
}
