#include "service/NotedObject.h"

#include "service/stores/Content.h"
#include "service/stores/VerifiedReader.h"

#include <cerrno>
#include <sys/xattr.h>

namespace {

constexpr const char* kAttribute = "user.NkObject";

/// A record tells nothing of what has become of the object.
bool isWhole(Store& store, const ObjectRecord& record) {
    try {
        verifyObject(store, record);
        return true;
    } catch (const Failure&) {
        return false;
    }
}

} // namespace

std::optional<ObjectId> notedObject(const OpenFile& file) {
    char text[64];
    const ssize_t got = file.attribute(kAttribute, text, sizeof text);
    if (got < 0 && errno != ENODATA && errno != EOPNOTSUPP && errno != ERANGE)
        throw systemFailure("Failed to read attribute user.NkObject of ", file.name(), errno);
    return got < 0 ? std::nullopt : ObjectId::parse({text, static_cast<size_t>(got)});
}

void noteObject(const OpenFile& file, const ObjectId& object) {
    const std::string_view text = object.text();
    if (::setxattr(file.path().c_str(), kAttribute, text.data(), text.size(), 0) < 0 && errno == EIO)
        throw systemFailure("Failed to set attribute user.NkObject of ", file.name(), errno);
}

void dropNotedObject(const OpenFile& file) {
    if (::removexattr(file.path().c_str(), kAttribute) < 0 && errno != ENODATA && errno != EOPNOTSUPP)
        throw systemFailure("Failed to remove attribute user.NkObject of ", file.name(), errno);
}

std::optional<ObjectRecord> findArchived(Store& store, const ObjectId& object, int data,
                                         const ObjectRecord& facts) {
    std::optional<ObjectRecord> record;
    try {
        record = store.look(object);
    } catch (const Failure&) { // the file is sent again then
        return {};
    }
    if (!record || !record->isOf(facts.owner) || record->size != facts.size || record->mtime != facts.mtime)
        return {};
    if (checksumsOf(data, facts.path, facts.size) != record->checksums || !isWhole(store, *record))
        return {};
    record->capability = facts.capability;
    return record;
}
