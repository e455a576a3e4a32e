#include "service/StoreUse.h"

#include "service/FileIo.h"
#include "service/NotedObject.h"
#include "service/Times.h"
#include "service/stores/StubMetadata.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

void StoreUse::addFileSystem(const std::string& directory) {
    UniqueFd fd = openDirectory(directory);
    FileIdentity root = FileIdentity::of(fd.get(), directory);
    if (std::ranges::none_of(m_fileSystems,
                             [&](const FileSystem& known) { return known.root.isBeside(root); }))
        m_fileSystems.push_back({std::move(root), std::move(fd)});
}

StoreUse::Named StoreUse::namedBy(const OpenFile& file) {
    Named named;
    if (const auto noted = notedObject(file)) // in this order: the text is there before the note goes
        named.objects.push_back(*noted);
    const FileLook look = m_kind.look(file, true);
    const auto metadata = StubMetadata::fromText(look.meta);
    if (metadata)
        named.objects.push_back(metadata->object);
    named.hasLostIts = look.marked && !metadata;
    return named;
}

void StoreUse::add(const OpenFile& file) {
    for (const ObjectId& object : namedBy(file).objects)
        m_named.push_back(object);
    m_sorted = false;
}

bool StoreUse::isNamed(const ObjectId& object) {
    if (!std::exchange(m_sorted, true))
        std::ranges::sort(m_named);
    return std::ranges::binary_search(m_named, object);
}

std::string StoreUse::reasonToKeep(const ObjectRecord& record, bool otherFileSystems) {
    std::string reason = reasonToKeep(record, record.owner.file, otherFileSystems);
    for (const FileOwner& other : record.adopted)
        if (reason.empty())
            reason = reasonToKeep(record, other.file, otherFileSystems);
    return reason;
}

std::string StoreUse::reasonToKeep(const ObjectRecord& record, const FileIdentity& file,
                                   bool otherFileSystems) {
    const auto isOn = [&](const FileSystem& known) { return known.root.isBeside(file); };
    const auto found = std::ranges::find_if(m_fileSystems, isOn);
    if (found == m_fileSystems.end())
        return otherFileSystems ? "" : "its file lies on a file system that was not looked at";
    UniqueFd fd = file.open(found->fd.get());
    if (!fd.isOpen())
        return errno == ESTALE ? "" : systemFailure("its file cannot be opened", "", errno).what();
    const OpenFile opened = OpenFile::of(std::move(fd), record.path);
    UniqueFd held;
    try {
        held = m_kind.hold(opened);
    } catch (const Failure& failure) { // it names nothing until the data is in the store
        if (failure.code() != QZHSM_BUSY)
            throw;
        return "somebody works on its file";
    }
    const Named named = namedBy(opened);
    if (named.hasLostIts)
        return "its file is marked as a stub, and nothing on it tells of which object";
    if (std::ranges::find(named.objects, record.object) != named.objects.end())
        return "it is in use elsewhere";
    const struct stat st = opened.stat();
    auto data = record.size;
    for (const Extent& hole : record.holes)
        data -= hole.length;
    if (named.objects.empty() && static_cast<std::uint64_t>(st.st_size) == record.size &&
        static_cast<std::uint64_t>(allocatedBytes(st)) < data)
        return "its file does not hold the data: it may be another back-end's stub";
    return {};
}

void sweep(Store& store, StoreUse& use, const SweepRules& rules, Observer& observer,
           const std::function<void(const ObjectId&, const ObjectRecord*)>& onUnneeded) {
    std::vector<ListedObject> all;
    store.list([&](const ListedObject& object) { all.push_back(object); });
    std::vector<ObjectId> unneeded;
    const auto judge = [&](const ListedObject& listed) {
        const std::string name(listed.object.text());
        std::optional<ObjectRecord> record;
        if (use.isNamed(listed.object))
            return observer.skipped(name, "it is in use");
        const UniqueFd lock = rules.remove ? store.lockRecords() : UniqueFd(); // nobody adopts it meanwhile
        if (!listed.leftSince) {
            record = store.look(listed.object);
            if (!record)
                return;
            const std::string reason = use.reasonToKeep(*record, rules.otherFileSystems);
            if (!reason.empty())
                return observer.skipped(name, reason);
        }
        if (listed.leftSince.value_or(record ? timeOf(record->stored).tv_sec : 0) >= rules.storedBefore)
            return observer.skipped(name, "it was stored too lately");
        if (rules.remove && listed.leftSince && store.look(listed.object))
            return observer.skipped(name, "it was stored just now");
        if (rules.remove)
            store.remove(listed.object);
        onUnneeded(listed.object, record ? &*record : nullptr);
        unneeded.push_back(listed.object);
    };
    for (const ListedObject& listed : all) {
        try {
            judge(listed);
        } catch (const Failure& failure) {
            observer.failed(std::string(listed.object.text()), failure);
        }
    }
    store.flush();
    for (const ObjectId& object : unneeded)
        observer.done(std::string(object.text()), rules.remove ? "removed" : "not in use");
    if (const size_t left = store.leftovers(rules.remove))
        observer.note(std::to_string(left) + " files that a process left behind in store " + store.name() +
                      (rules.remove ? " were removed" : ""));
}
