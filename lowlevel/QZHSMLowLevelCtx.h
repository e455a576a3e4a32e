#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "lowlevel/foundation/NkCriticalSection.h"
#include "platform/mounts/QZHSMMntTab.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

/// The registry: makes back-ends by file-system name, each once, hands the same object out on every later
/// request for that name, and deletes them all in the end. One for each process is usual.
///
/// Its operations may be called from several threads at once. The objects that they return stay the
/// registry's; calls on those are the callers' to serialise.
class QZHSM_API QZHSMLowLevelCtx {
public:
    /// `kind` says which file-system world the service runs in: 2 driverless, 3 Hadoop, 4 Lustre,
    /// 5 GlusterFS, 6 archive-and-delete, any other value the filter driver.
    explicit QZHSMLowLevelCtx(int kind) : m_kind(kind) {}
    QZHSMLowLevelCtx(const QZHSMLowLevelCtx&) = delete;
    QZHSMLowLevelCtx& operator=(const QZHSMLowLevelCtx&) = delete;
    ~QZHSMLowLevelCtx();

    /// The back-end for a file-system name: "NK_ANYFS" (driverless), "NK_ARCHIVE_DELETE_FS", "HADOOP_FS",
    /// "LUSTRE_FS", "GLUSTER_FS", "qzfs_extent"; any other name, "qzfs" by custom, is the filter driver's.
    /// Null, with an error line in the log, if it cannot be made; a later call tries again.
    QZHSMLowLevel* getByFSName(const char* fsName);

    /// The same for the choice between driverless and filter driver alone: with kind 2 always the driverless
    /// back-end; with kind 0 a driverless back-end that exists already, and the driverless one in place of a
    /// filter-driver back-end that cannot be made; null, without a line, if neither can. The boolean has no
    /// effect.
    QZHSMLowLevel* getByFSName(const char* fsName, bool);

    /// The back-end of this registry's kind; the path is not looked at.
    QZHSMLowLevel* getByFileName(const char* path);

    /// The kind's text: "driverless", "Hadoop", "Lustre", "GlusterFS", "ArhiveDelete" (spelt so), or
    /// "archiver driver" for any other kind.
    std::string AsString() const;

private:
    using Factory = QZHSMLowLevel* (*)();

    /// Runs `lookup` under the lock; an `NkException` becomes an error line and null.
    template <class Lookup>
    QZHSMLowLevel* locked(Lookup lookup);
    QZHSM_HIDDEN QZHSMLowLevel* find(const char* fsName) const;
    /// Makes an object and keeps it; null if the factory gives null.
    QZHSM_HIDDEN QZHSMLowLevel* make(const char* fsName, Factory factory);

    std::map<std::string, std::unique_ptr<QZHSMLowLevel>, std::less<>> m_objects;
    NkCriticalSection m_lock;
    QZHSMMntTab m_mntTab; ///< unread here, but part of the object's layout that callers were built with
    int m_kind;
};
