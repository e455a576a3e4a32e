#pragma once

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/foundation/FXMutex.h"

/// The filter driver's back-end for a stub whose data comes back extent by extent, perhaps from several
/// threads at once. One transparent session is shared: opens are counted, and each write goes to its own
/// offset. All else is as in the base.
///
/// Threads. Opens, closes and writes of one session may come from several threads; every other operation is
/// the caller's to serialise. Writing holds no lock, so each thread's writes must lie between an open and a
/// close of its own. A write that comes after the session's last close fails; if the process has opened
/// another file in the meantime, it can even land in that file.
///
/// While several threads write, go by the results alone: the last error is the last writer's to set or clear,
/// and not to be read.
class QZHSM_API QZHSMLowLevelQZFSExtent : public QZHSMLowLevelQZFS {
public:
    QZHSMLowLevelQZFSExtent();
    ~QZHSMLowLevelQZFSExtent() override;

    /// The base's form by identifier is not counted: use one form or the other.
    using QZHSMLowLevelQZFS::openFileTrans;
    /// Joins the session that is open, whatever `path` it is for, with the last error untouched, or opens
    /// one. 0, or as in the base.
    int openFileTrans(const char* path, int flags, int mode) override;
    /// Writes at `offset` and moves no position: the number of bytes, or -1. The journal is not told.
    int writeFileTrans(const void* buf, int len, long long offset) override;
    /// Does nothing: 1.
    long long seekFileTrans(long long offset, int whence) override;
    /// Ends the session if this matches its first open. Always 0.
    int closeFileTrans() override;

private:
    int64_t open_count = 0;
    FXMutex trans_lock;
    FXMutex error_lock; ///< of the last error, between writers
};
