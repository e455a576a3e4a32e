#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/internal/LastError.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/NkException.h"
#include "platform/files/utf_files.h"
#include "platform/logging/EvDebug.h"

#include <cerrno>

namespace {

/// Runs a notice; what it throws becomes a log line.
template <class Notice>
void notify(Notice notice) {
    try {
        notice();
    } catch (const NkException& e) {
        EvDebug(nullptr).Error(e.getFuncName(), "%s", e.getMessage());
    }
}

} // namespace

int QZHSMLowLevelQZFS::isJRNFS(const char* path, unsigned long* dev, fsf_fid* fid) {
    clearError(*this);
    if (!flr_driver)
        return 0;
    try {
        struct stat st {};
        if (stat_utf(path, &st) != 0)
            throw NkException("QZHSMLowLevelQZFS::isJRNFS", errnoText({"Failed to stat ", path}, errno),
                              "QZHSMLowLevelQZFS", 124, QZHSM_FAILURE);
        if (dev)
            *dev = st.st_dev;
        if (!flr_driver->statFS(st.st_dev))
            return 0;
        if (fid)
            *fid = flr_driver->getFID(path, false);
        return 1;
    } catch (const NkException& e) {
        return fail(*this, QZHSM_FAILURE, e.getMessage());
    }
}

int QZHSMLowLevelQZFS::isJRNFS(unsigned long dev) {
    clearError(*this);
    if (!flr_driver)
        return 0;
    try {
        return flr_driver->statFS(dev) ? 1 : 0;
    } catch (const NkException& e) {
        return fail(*this, QZHSM_FAILURE, e.getMessage());
    }
}

void QZHSMLowLevelQZFS::jrnStub(const char* path, const char* meta) {
    unsigned long dev = 0;
    fsf_fid fid{};
    if (flr_driver && isJRNFS(path, &dev, &fid) > 0)
        notify([&] { flr_driver->injectSTUB(dev, fid, meta); });
}

void QZHSMLowLevelQZFS::jrnUnStub(const char* path) {
    unsigned long dev = 0;
    fsf_fid fid{};
    if (flr_driver && isJRNFS(path, &dev, &fid) > 0)
        notify([&] { flr_driver->injectUNSTUB(dev, fid); });
}

void QZHSMLowLevelQZFS::jrnTWrite(unsigned long dev, const fsf_fid& fid, long long offset, const void* buf,
                                  int n) {
    notify([&] { flr_driver->injectTWRITE(dev, fid, static_cast<unsigned long long>(offset), buf, n); });
}
