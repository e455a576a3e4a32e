#include "service/stores/ObjectRecord.h"

#include "service/Failure.h"
#include "service/FileRights.h"
#include "service/Times.h"
#include "service/stores/Encoding.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

constexpr int kFormat = 1;
constexpr std::string_view kCheck = R"(,"check":")";

[[noreturn]] void wrong(const std::string& what) {
    throw Failure(QZHSM_FAILURE, "The record is damaged: " + what);
}

/// A member that must be there, and must be of this kind.
const Json& member(const Json& json, const char* key, bool (Json::*isOfKind)() const noexcept) {
    const auto found = json.find(key);
    if (found == json.end() || !((*found).*isOfKind)())
        wrong(std::string("no good \"") + key + '"');
    return *found;
}

template <typename Number>
Number number(const Json& json, const char* key) {
    const Json& value = member(json, key, &Json::is_number_integer);
    const bool fits = value.is_number_unsigned() ? std::in_range<Number>(value.get<std::uint64_t>())
                                                 : std::in_range<Number>(value.get<std::int64_t>());
    if (!fits)
        wrong(std::string("no good \"") + key + '"');
    return value.get<Number>();
}

const std::string& text(const Json& json, const char* key) {
    return member(json, key, &Json::is_string).get_ref<const std::string&>();
}

template <typename Value>
Value decoded(std::optional<Value> value, const char* key) {
    if (!value)
        wrong(std::string("no good \"") + key + '"');
    return *std::move(value);
}

std::vector<Extent> holesOf(const Json& json, std::uint64_t size) {
    std::vector<Extent> holes;
    std::uint64_t end = 0;
    for (const Json& pair : json) {
        if (!pair.is_array() || pair.size() != 2 || !pair[0].is_number_unsigned() ||
            !pair[1].is_number_unsigned())
            wrong("no good \"holes\"");
        const Extent hole{pair[0].get<std::uint64_t>(), pair[1].get<std::uint64_t>()};
        if (hole.offset < end || hole.offset > size || hole.length > size - hole.offset)
            wrong("no good \"holes\"");
        end = hole.end();
        holes.push_back(hole);
    }
    return holes;
}

Checksums checksumsOf(const Json& json, std::uint64_t size) {
    Checksums sums;
    const Json& pieces = member(json, "xxh3", &Json::is_array);
    const std::uint64_t expected = size / kPieceSize + (size % kPieceSize != 0);
    if (number<std::uint64_t>(json, "pieceSize") != kPieceSize || pieces.size() != expected)
        wrong("checksums of other pieces");
    sums.pieces.reserve(pieces.size());
    for (const Json& piece : pieces) {
        if (!piece.is_string())
            wrong("no good \"xxh3\"");
        sums.pieces.push_back(decoded(hexNumber(piece.get_ref<const std::string&>()), "xxh3"));
    }
    sums.whole = text(json, "xxh128");
    if (sums.whole.size() != 32 || !hexBytes(sums.whole))
        wrong("no good \"xxh128\"");
    return sums;
}

/// What follows this text at the end of a record.
std::string checkOf(std::string_view text) {
    return std::string(kCheck) + hexText(checksumOf(text)) + "\"}\n";
}

/// Without a check nothing follows the checksums of the content: another last member is a damaged check.
void requireCheck(const Json& json, std::string_view from) {
    const std::string_view text = from.substr(0, from.rfind(kCheck));
    if (std::prev(json.end()).key() != "xxh128" && from.substr(text.size()) != checkOf(text))
        wrong("its own checksum is wrong");
}

void addOwner(Json& json, const FileOwner& owner) {
    json["uid"] = owner.uid;
    json["gid"] = owner.gid;
    json["handleType"] = owner.file.handleType;
    json["handle"] = hexText(owner.file.handle);
    json["fsid"] = owner.file.fsid;
    json["fsUuid"] = owner.file.fsUuid;
}

FileOwner ownerOf(const Json& json) {
    FileOwner owner;
    owner.uid = number<std::uint32_t>(json, "uid");
    owner.gid = number<std::uint32_t>(json, "gid");
    owner.file.handleType = number<int>(json, "handleType");
    owner.file.handle = decoded(hexBytes(text(json, "handle")), "handle");
    owner.file.fsid = text(json, "fsid");
    owner.file.fsUuid = text(json, "fsUuid");
    return owner;
}

} // namespace

FileOwner FileOwner::of(int fd, const std::string& name) {
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        throw systemFailure("Failed to stat ", name, errno);
    return {FileIdentity::of(fd, name), st.st_uid, st.st_gid};
}

bool ObjectRecord::isOf(const FileOwner& candidate) const {
    return owner.matches(candidate) ||
           std::ranges::any_of(adopted, [&](const FileOwner& other) { return other.matches(candidate); });
}

ObjectRecord ObjectRecord::describe(int fd, std::string path) {
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        throw systemFailure("Failed to stat ", path, errno);
    ObjectRecord record;
    record.size = static_cast<std::uint64_t>(st.st_size);
    if (record.size > kSizeMax)
        throw systemFailure("Failed to describe ", path, EFBIG);
    if (!isRecordable(st.st_mtim))
        throw Failure(QZHSM_FAILURE, path + " has a modification time that no record can hold");
    record.atime = nanoseconds(st.st_atim);
    record.mtime = nanoseconds(st.st_mtim);
    record.ctime = nanoseconds(st.st_ctim);
    record.mode = st.st_mode;
    record.owner = {FileIdentity::of(fd, path), st.st_uid, st.st_gid};
    char capability[64]; // larger than any version of it
    const ssize_t length = ::fgetxattr(fd, kCapabilityAttribute, capability, sizeof capability);
    if (length >= 0)
        record.capability.assign(capability, static_cast<size_t>(length));
    else if (errno != ENODATA && errno != EOPNOTSUPP)
        throw systemFailure("Failed to read the file capabilities of ", path, errno);
    record.path = std::move(path);
    return record;
}

std::string ObjectRecord::toText() const {
    Json json; // member by member: a list of them in braces costs an array for each
    json["format"] = kFormat;
    json["object"] = object.text();
    json["path"] = percentText(path);
    json["size"] = size;
    json["atime"] = atime;
    json["mtime"] = mtime;
    json["ctime"] = ctime;
    json["stored"] = stored;
    json["mode"] = mode;
    addOwner(json, owner);
    for (const FileOwner& other : adopted)
        addOwner(json["adopted"].emplace_back(Json::object()), other);
    if (!capability.empty())
        json["capability"] = hexText(capability);
    for (const Extent& hole : holes)
        json["holes"].push_back({hole.offset, hole.length});
    json["pieceSize"] = kPieceSize;
    Json& pieces = json["xxh3"] = Json::array();
    for (const std::uint64_t piece : checksums.pieces)
        pieces.push_back(hexText(piece));
    json["xxh128"] = checksums.whole;
    std::string text = json.dump();
    text.pop_back(); // the brace
    return text.append(checkOf(text));
}

ObjectRecord ObjectRecord::fromText(std::string_view from) {
    const Json json = Json::parse(from, nullptr, false);
    if (!json.is_object())
        wrong("no JSON object");
    if (number<int>(json, "format") != kFormat)
        wrong("of a format that is not known");
    requireCheck(json, from);
    ObjectRecord record;
    record.object = decoded(ObjectId::parse(text(json, "object")), "object");
    record.path = decoded(percentBytes(text(json, "path")), "path");
    record.size = number<std::uint64_t>(json, "size");
    record.atime = number<std::int64_t>(json, "atime");
    record.mtime = number<std::int64_t>(json, "mtime");
    record.ctime = number<std::int64_t>(json, "ctime");
    record.stored = number<std::int64_t>(json, "stored");
    record.mode = number<std::uint32_t>(json, "mode");
    record.owner = ownerOf(json);
    if (json.contains("adopted"))
        for (const Json& other : member(json, "adopted", &Json::is_array)) {
            if (!other.is_object())
                wrong("no good \"adopted\"");
            record.adopted.push_back(ownerOf(other));
        }
    if (json.contains("capability"))
        record.capability = decoded(hexBytes(text(json, "capability")), "capability");
    if (json.contains("holes"))
        record.holes = holesOf(member(json, "holes", &Json::is_array), record.size);
    record.checksums = checksumsOf(json, record.size);
    return record;
}

std::vector<Extent> ObjectRecord::dataWithin(const Extent& part) const {
    std::vector<Extent> data;
    std::uint64_t at = part.offset;
    auto hole = std::partition_point(holes.begin(), holes.end(),
                                     [&](const Extent& candidate) { return candidate.end() <= at; });
    for (; hole != holes.end() && hole->offset < part.end(); ++hole) {
        if (hole->offset > at)
            data.push_back({at, hole->offset - at});
        at = hole->end();
    }
    if (at < part.end())
        data.push_back({at, part.end() - at});
    return data;
}
