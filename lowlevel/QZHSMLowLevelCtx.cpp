#include "lowlevel/QZHSMLowLevelCtx.h"

#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "platform/errors/NkException.h"
#include "platform/logging/EvDebug.h"

#include <string_view>

namespace {

constexpr const char* kFunction = "QZHSMLowLevelCtx::getByFSName";
constexpr const char* kDriverless = "NK_ANYFS";
constexpr int kKindDriverless = 2;
constexpr int kKindEither = 0;
constexpr int kNoKind = -1; ///< a name that no kind stands for

struct BackEnd {
    std::string_view fsName;
    int kind;
    const char* kindText;
    int debugLevel; ///< of the line written before creation; 0: a plain debug line
    const char* creating;
    QZHSMLowLevel* (*factory)();
};

/// The last row is also the one for any other name and any other kind. "ArhiveDelete" is what readers of logs
/// know the kind by.
constexpr BackEnd kBackEnds[] = {
    {kDriverless, kKindDriverless, "driverless", 2, "Creating driverless low level object",
     createQZHSMLowLevelDriverless},
    {"NK_ARCHIVE_DELETE_FS", 6, "ArhiveDelete", 0, "Creating archive-delete low level object",
     createQZHSMLowLevelArchiveDelete},
    {"HADOOP_FS", 3, "Hadoop", 0, "Creating Hadoop low level object", createQZHSMLowLevelHadoop},
    {"LUSTRE_FS", 4, "Lustre", 0, "Creating Lustre low level object", createQZHSMLowLevelLustre},
    {"GLUSTER_FS", 5, "GlusterFS", 0, "Creating GLUSTER low level object", createQZHSMLowLevelGlusterFs},
    {"qzfs_extent", kNoKind, nullptr, 0, "Creating QZHSMLowLevelQZFSExtent for extent recalls",
     createQZHSMLowLevelQZFSExtent},
    {"qzfs", kNoKind, "archiver driver", 0, nullptr, createQZHSMLowLevelQZFS},
};

template <class Fits>
const BackEnd& rowWhere(Fits fits) {
    const BackEnd* row = std::begin(kBackEnds);
    while (row != std::end(kBackEnds) - 1 && !fits(*row))
        ++row;
    return *row;
}

const BackEnd& rowOfName(std::string_view fsName) {
    return rowWhere([&](const BackEnd& row) { return row.fsName == fsName; });
}

const BackEnd& rowOfKind(int kind) {
    return rowWhere([&](const BackEnd& row) { return row.kind == kind && kind != kNoKind; });
}

void announce(const BackEnd& row) {
    if (!row.creating)
        return;
    EvDebug log(nullptr);
    if (row.debugLevel > 0)
        log.DebugLvl(kFunction, row.debugLevel, "%s", row.creating);
    else
        log.Debug(kFunction, "%s", row.creating);
}

void reportFailedCreation() {
    // With two blanks: log readers look for the text as it always was.
    EvDebug(nullptr).Error(kFunction, "Creating  low level object failed");
}

} // namespace

QZHSMLowLevelCtx::~QZHSMLowLevelCtx() {
    const NkCriticalSectionLock lock(&m_lock);
    // One at a time, in the names' order, each gone from the map only after its destructor has run: objects
    // of a service's own rely on that order.
    while (!m_objects.empty()) {
        m_objects.begin()->second.reset();
        m_objects.erase(m_objects.begin());
    }
}

template <class Lookup>
QZHSMLowLevel* QZHSMLowLevelCtx::locked(Lookup lookup) {
    EvDebug log(nullptr);
    const NkCriticalSectionLock lock(&m_lock);
    try {
        return lookup();
    } catch (const NkException& e) {
        log.Error(e.getFuncName(), "%s", e.getMessage());
        return nullptr;
    }
}

QZHSMLowLevel* QZHSMLowLevelCtx::find(const char* fsName) const {
    const auto found = m_objects.find(std::string_view(fsName));
    return found == m_objects.end() ? nullptr : found->second.get();
}

QZHSMLowLevel* QZHSMLowLevelCtx::make(const char* fsName, Factory factory) {
    std::unique_ptr<QZHSMLowLevel> object(factory());
    return object ? (m_objects[fsName] = std::move(object)).get() : nullptr;
}

QZHSMLowLevel* QZHSMLowLevelCtx::getByFSName(const char* fsName) {
    return locked([&] {
        QZHSMLowLevel* object = find(fsName);
        if (object)
            return object;
        const BackEnd& row = rowOfName(fsName);
        announce(row);
        object = make(fsName, row.factory);
        if (!object)
            reportFailedCreation();
        return object;
    });
}

QZHSMLowLevel* QZHSMLowLevelCtx::getByFSName(const char* fsName, bool) {
    return locked([&]() -> QZHSMLowLevel* {
        if (m_kind == kKindDriverless)
            fsName = kDriverless;
        for (bool retried = false;; retried = true) {
            if (QZHSMLowLevel* object = find(fsName))
                return object;
            if (m_kind == kKindEither)
                if (QZHSMLowLevel* driverless = find(kDriverless))
                    return driverless;
            // This form knows the two back-ends only, whatever other names mean to the one-argument form.
            const BackEnd& row = rowOfName(fsName == std::string_view(kDriverless) ? kDriverless : "qzfs");
            announce(row);
            if (QZHSMLowLevel* object = make(fsName, row.factory))
                return object;
            if (m_kind != kKindEither)
                reportFailedCreation();
            if (m_kind != kKindEither || retried)
                return nullptr;
            fsName = kDriverless;
        }
    });
}

QZHSMLowLevel* QZHSMLowLevelCtx::getByFileName(const char*) {
    return getByFSName(rowOfKind(m_kind).fsName.data());
}

std::string QZHSMLowLevelCtx::AsString() const {
    return rowOfKind(m_kind).kindText;
}
