#include "service/StoreSource.h"

#include "platform/logging/ProcessLog.h"
#include "platform/stub/StubAttributes.h"
#include "service/FileRights.h"
#include "service/Flush.h"
#include "service/Times.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

StoreSource::StoreSource(Store& store, ObjectRecord record, StopRequest stop)
    : DataSource("object " + std::string(record.object.text()) + " in store " + store.name()), m_store(store),
      m_record(std::move(record)), m_stop(std::move(stop)) {}

std::optional<timespec> StoreSource::modified() const {
    return timeOf(m_record.mtime);
}

std::string StoreSource::capabilities() const {
    return m_record.capability;
}

void StoreSource::pause() {
    m_reader.reset();
    std::vector<char>().swap(m_zeros);
}

std::span<const char> StoreSource::read(std::uint64_t piece) {
    if (std::exchange(m_piece, piece) != piece)
        m_reader.reset();
    const std::span<const char> bytes = next();
    if (bytes.empty())
        throw Failure(QZHSM_FAILURE, name() + " has no piece " + std::to_string(piece));
    return bytes;
}

std::span<const char> StoreSource::next() {
    if (m_stop())
        throw Failure(QZHSM_FAILURE, "Recall interrupted");
    if (!m_reader)
        m_reader.emplace(m_store, m_record, m_piece);
    const std::optional<Piece> piece = m_reader->next();
    if (!piece)
        return {};
    ++m_piece;
    m_moved += piece->bytes.size();
    m_isHole = piece->bytes.empty();
    if (!m_isHole)
        return piece->bytes;
    m_zeros.resize(std::max(m_zeros.size(), piece->part.length));
    return {m_zeros.data(), piece->part.length};
}

StubMetadata readMetadata(const OpenFile& file, const FileLook& look) {
    std::optional<StubMetadata> metadata = StubMetadata::fromText(look.meta);
    if (!metadata)
        throw Failure(QZHSM_FAILURE,
                      file.name() + " names no object in a store: its metadata is " + look.meta,
                      "\"qzhsm recall --from FILE\" takes the data from a file.");
    return std::move(*metadata);
}

namespace {

ObjectRecord findObject(Store& store, const StubMetadata& metadata, const OpenFile& file,
                        const FileLook& look) {
    std::optional<ObjectRecord> record = store.look(metadata.object);
    if (!record)
        throw Failure(QZHSM_NOT_FOUND, "There is no object " + std::string(metadata.object.text()) +
                                           " in store " + store.name() + ", which the stub " + file.name() +
                                           " names");
    if (record->checksums.whole != metadata.xxh128 ||
        record->size != static_cast<std::uint64_t>(look.recordedSize))
        throw Failure(QZHSM_FAILURE, "The stub " + file.name() + " does not fit object " +
                                         std::string(metadata.object.text()) +
                                         ", which it names: size or checksum differ");
    return std::move(*record);
}

/// A recall service may take it for an ordinary file.
void mark(StubKind& kind, const OpenFile& file, const FileLook& look) {
    const UniqueFd held = kind.hold(file);
    requireUntouched(file, look);
    if (kind.announces())
        kind.announce(file.fd());
    if (::setxattr(file.path().c_str(), kStubMark, &kStubMarkValue, sizeof kStubMarkValue, 0) < 0)
        throw systemFailure("Failed to mark ", file.name(), errno);
}

/// A mover that broke off may have left a part of the new record.
void replaceOrLeave(Store& store, const ObjectRecord& record, const ObjectRecord& former) {
    try {
        store.replaceRecord(record);
    } catch (const Failure&) {
        try {
            store.replaceRecord(former);
        } catch (const Failure&) { // the first one is told
        }
        throw;
    }
}

} // namespace

ObjectRecord findRecord(Store& store, const StubMetadata& metadata, const OpenFile& file,
                        const FileLook& look) {
    ObjectRecord record = findObject(store, metadata, file, look);
    if (record.isOf(FileOwner::of(file.fd(), file.name())))
        return record;
    const std::string text = "The stub " + file.name() + " names object " +
                             std::string(metadata.object.text()) + ", which was not taken from this file";
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, "findRecord", 0, 0, 0, "%s", text.c_str());
    throw Failure(
        QZHSM_FAILURE, text,
        "Its data was taken from " + record.path +
            ", and whoever may write a file can write such a "
            "stub. If it was moved, copied or restored from a backup, \"qzhsm adopt\" confirms it.");
}

void adopt(StubKind& kind, Store& store, const OpenFile& file, const FileLook& look, bool ofAnyOwner) {
    const StubMetadata metadata = readMetadata(file, look);
    ObjectRecord record = findObject(store, metadata, file, look);
    const FileOwner owner = FileOwner::of(file.fd(), file.name());
    const auto takeTime = [&] { // a later one would pass for that of a change
        if (look.state == FileState::Copy)
            mark(kind, file, look);
        else if (look.state != FileState::Stub)
            return;
        putTimesBack(file, look.st.st_atim, timeOf(record.mtime));
        flushOne(file.open(O_RDONLY).get(), file.name());
    };
    if (record.isOf(owner))
        return takeTime();
    const std::string from =
        "Not adopting the stub " + file.name() + ": its data was taken from " + record.path;
    if (!owner.matches(owner))
        throw Failure(QZHSM_FAILURE, file.name() +
                                         " could not be told from a copy later: its file system has no "
                                         "lasting file handles");
    const auto isHis = [&](const FileOwner& known) { return known.uid == owner.uid; };
    if (!ofAnyOwner && !isHis(record.owner) && std::ranges::none_of(record.adopted, isHis))
        throw Failure(QZHSM_FAILURE, from + ", which belonged to user " + std::to_string(record.owner.uid),
                      "With --force user " + std::to_string(owner.uid) + " gets that data.");
    if (::geteuid() != 0 && (owner.uid != ::geteuid() || look.st.st_nlink != 1))
        throw Failure(QZHSM_FAILURE, from + ", and it is not yours alone");
    {
        const UniqueFd lock = store.lockRecords();
        record = findObject(store, metadata, file, look); // others may have changed it
        if (!record.isOf(owner)) {
            const ObjectRecord former = record;
            record.adopted.push_back(owner);
            replaceOrLeave(store, record, former);
        }
    }
    takeTime();
}
