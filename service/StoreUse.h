#pragma once

#include "service/Observer.h"
#include "service/kinds/StubKind.h"
#include "service/stores/Store.h"

#include <functional>
#include <string>
#include <vector>

/// Which of a store's objects files still name. A stub may lie anywhere, so what was not looked at counts as
/// naming all that was taken from it.
class StoreUse {
public:
    explicit StoreUse(StubKind& kind) : m_kind(kind) {}

    /// Files of this directory's file system are looked up by their handles.
    void addFileSystem(const std::string& directory);
    /// Notes what a file names, as a stub or in its attribute.
    void add(const OpenFile& file);

    bool isNamed(const ObjectId& object);
    /// Why an object must stay that no file named; empty if nothing else speaks for it. With
    /// `otherFileSystems` files of file systems that were not added count as gone.
    std::string reasonToKeep(const ObjectRecord& record, bool otherFileSystems);

private:
    std::string reasonToKeep(const ObjectRecord& record, const FileIdentity& file, bool otherFileSystems);
    struct Named {
        std::vector<ObjectId> objects;
        bool hasLostIts = false; ///< a stub by its mark, and no text says of which object
    };
    Named namedBy(const OpenFile& file);

    struct FileSystem {
        FileIdentity root;
        UniqueFd fd;
    };

    StubKind& m_kind;
    std::vector<FileSystem> m_fileSystems;
    std::vector<ObjectId> m_named;
    bool m_sorted = true;
};

/// What a sweep takes.
struct SweepRules {
    std::time_t storedBefore = 0;  ///< only objects that were stored before
    bool otherFileSystems = false; ///< also what was taken from file systems that were not looked at
    bool remove = false;           ///< takes them away, on the disk; else they are only told
};

/// Calls back for each object that nothing names; `record` is null for one that a crash left without.
void sweep(Store& store, StoreUse& use, const SweepRules& rules, Observer& observer,
           const std::function<void(const ObjectId& object, const ObjectRecord* record)>& onUnneeded);
