#include "service/StoreSource.h"

#include "platform/logging/ProcessLog.h"

#include <algorithm>
#include <utility>

StoreSource::StoreSource(Store& store, ObjectRecord record, StopRequest stop)
    : DataSource("object " + std::string(record.object.text()) + " in store " + store.name()),
      m_record(std::move(record)), m_reader(store, m_record), m_stop(std::move(stop)) {}

std::optional<timespec> StoreSource::modified() const {
    constexpr std::int64_t kSecond = 1'000'000'000;
    return timespec{m_record.mtime / kSecond, m_record.mtime % kSecond};
}

std::vector<char> StoreSource::next() {
    if (m_stop())
        throw Failure(QZHSM_FAILURE, "Recall interrupted");
    const std::optional<Piece> piece = m_reader.next();
    if (!piece)
        return {};
    std::vector<char> bytes(piece->part.length);
    std::ranges::copy(piece->bytes, bytes.begin());
    return bytes;
}

StubMetadata readMetadata(const OpenFile& file, const FileLook& look) {
    std::optional<StubMetadata> metadata = StubMetadata::fromText(look.meta);
    if (!metadata)
        throw Failure(QZHSM_FAILURE,
                      file.name() + " names no object in a store: its metadata is " + look.meta,
                      "\"qzhsm recall --from FILE\" takes the data from a file.");
    return std::move(*metadata);
}

ObjectRecord findRecord(Store& store, const StubMetadata& metadata, const OpenFile& file,
                        const FileLook& look) {
    std::optional<ObjectRecord> record = store.look(metadata.object);
    if (!record)
        throw Failure(QZHSM_NOT_FOUND, "There is no object " + std::string(metadata.object.text()) +
                                           " in store " + store.name() + ", which the stub " + file.name() +
                                           " names");
    const bool isFrom = record->uid == look.st.st_uid && record->gid == look.st.st_gid &&
                        record->file.matches(FileIdentity::of(file.fd(), file.name()));
    const bool isData = record->checksums.whole == metadata.xxh128 &&
                        record->size == static_cast<std::uint64_t>(look.recordedSize);
    if (isFrom && isData)
        return std::move(*record);
    const std::string text = "The stub " + file.name() + " names object " +
                             std::string(metadata.object.text()) + ", which was not taken from this file";
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, "findRecord", 0, 0, 0, "%s", text.c_str());
    throw Failure(QZHSM_FAILURE, text,
                  "Whoever may write a file can write such a stub. Its data was taken from " + record->path +
                      ".");
}
