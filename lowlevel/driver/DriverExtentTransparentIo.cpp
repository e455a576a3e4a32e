#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "lowlevel/foundation/auto_lock.h"
#include "lowlevel/internal/LastError.h"
#include "platform/errors/ErrorText.h"
#include "platform/logging/ProcessLog.h"

#include <cerrno>
#include <unistd.h>

QZHSMLowLevelQZFSExtent::QZHSMLowLevelQZFSExtent() = default;
QZHSMLowLevelQZFSExtent::~QZHSMLowLevelQZFSExtent() = default;

int QZHSMLowLevelQZFSExtent::openFileTrans(const char* path, int flags, int mode) {
    const auto_lock lock(&trans_lock);
    if (!trans_fd.isOpen()) {
        if (const int result = QZHSMLowLevelQZFS::openFileTrans(path, flags, mode); result != 0)
            return result;
        if (CLogWriterInterface* log = processLog(5))
            log->Write(5, "virtual int QZHSMLowLevelQZFSExtent::openFileTrans(const char*, int, int)", 31, 0,
                       0, "openFileTrans success. FD [%d]", trans_fd.get());
    }
    ++open_count;
    return 0;
}

int QZHSMLowLevelQZFSExtent::closeFileTrans() {
    const auto_lock lock(&trans_lock);
    if (open_count > 0)
        --open_count;
    if (open_count > 0)
        return 0;
    if (CLogWriterInterface* log = processLog(5))
        log->Write(5, "virtual int QZHSMLowLevelQZFSExtent::closeFileTrans()", 47, 0, 0,
                   "calling closeFileTrans");
    return QZHSMLowLevelQZFS::closeFileTrans();
}

int QZHSMLowLevelQZFSExtent::writeFileTrans(const void* buf, int len, long long offset) {
    const auto failWrite = [this](std::string text) {
        const auto_lock lock(&error_lock);
        return fail(*this, QZHSM_FAILURE, std::move(text));
    };
    {
        const auto_lock lock(&error_lock);
        clearError(*this);
    }
    if (!trans_fd.isOpen()) {
        if (CLogWriterInterface* log = processLog(-1))
            log->Write(-1,
                       "virtual int QZHSMLowLevelQZFSExtent::writeFileTrans(const void*, int, long long int)",
                       69, 0, 0, "trans_fd not set");
        return failWrite("No file has been open in transparent mode yet.");
    }
    const ssize_t written = ::pwrite(trans_fd.get(), buf, static_cast<size_t>(len), offset);
    return written == -1 ? failWrite(errnoText({"pwrite failed"}, errno)) : static_cast<int>(written);
}

long long QZHSMLowLevelQZFSExtent::seekFileTrans(long long, int) {
    return 1;
}
