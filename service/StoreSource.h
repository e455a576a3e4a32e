#pragma once

#include "service/DataSource.h"
#include "service/FileState.h"
#include "service/kinds/StubKind.h"
#include "service/stores/StoreConfig.h"
#include "service/stores/VerifiedReader.h"

#include <utility>

/// A stub's data in a store. Every piece is compared with its checksum before it is handed out.
class StoreSource final : public DataSource {
public:
    StoreSource(Store& store, ObjectRecord record, StopRequest stop);

    std::optional<long long> size() const override { return static_cast<long long>(m_record.size); }
    std::optional<timespec> modified() const override;
    std::string capabilities() const override;
    std::optional<ObjectId> object() const override { return m_record.object; }
    std::span<const char> next() override;
    bool isHole() const override { return m_isHole; }

    std::uint64_t pieces() const { return m_record.checksums.pieces.size(); }
    /// The bytes that were read since the last call. Holes are none.
    std::uint64_t takeMoved() { return std::exchange(m_moved, 0); }
    /// The bytes of a piece, valid until more are read. To go on with the next one costs least.
    std::span<const char> read(std::uint64_t piece);
    /// Gives back what is needed for reading, until more is read.
    void pause();

private:
    Store& m_store;
    ObjectRecord m_record;
    std::optional<VerifiedReader> m_reader;
    std::uint64_t m_piece = 0; ///< that comes next
    std::vector<char> m_zeros; ///< what a hole is read as
    bool m_isHole = false;
    StopRequest m_stop;
    std::uint64_t m_moved = 0;
};

/// The record of the object that a stub names. Whoever may write a file can write a stub's text, so the word
/// of the stub is not taken for it: throws unless the record says that the object was taken from this very
/// file, or names it as adopted, of the same owner, size and checksum.
ObjectRecord findRecord(Store& store, const StubMetadata& metadata, const OpenFile& file,
                        const FileLook& look);

/// Confirms that a stub which was moved, copied or restored from a backup may have the data of the object
/// that it names, and gives it the time of that data and, if it has lost that, a stub's mark, all on the
/// disk. It must belong to a user whose file the object was taken from, unless `ofAnyOwner`. Others than root
/// may confirm their own stubs, if they have one name each. Throws for all else.
void adopt(StubKind& kind, Store& store, const OpenFile& file, const FileLook& look, bool ofAnyOwner);

/// What a stub's metadata says; throws if it names no object in a store.
StubMetadata readMetadata(const OpenFile& file, const FileLook& look);
