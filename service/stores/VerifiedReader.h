#pragma once

#include "service/stores/Store.h"

#include <cstdlib>
#include <span>

/// One piece of an object, or the last and shorter one.
struct Piece {
    Extent part;
    std::span<const char> bytes; ///< empty if the whole piece is a hole; valid until the next piece
};

struct FreeBuffer {
    void operator()(char* buffer) const { std::free(buffer); }
};
using PieceBuffer = std::unique_ptr<char[], FreeBuffer>;

/// Reads an object piece by piece and hands out no byte whose checksum does not agree. Belongs to one thread.
class VerifiedReader {
public:
    /// Reads the `count` pieces from `first` on, or those that there are. Store and record must live on.
    VerifiedReader(Store& store, const ObjectRecord& record, std::uint64_t first = 0,
                   std::uint64_t count = UINT64_MAX);

    /// The next piece; nothing at the end, when the store has confirmed that all went well. Throws `Failure`
    /// if the store does, or the checksum does not agree.
    std::optional<Piece> next();

private:
    const Store& m_store;
    const ObjectRecord& m_record;
    std::uint64_t m_at;
    std::uint64_t m_end;
    std::unique_ptr<ObjectReader> m_reader;
    PieceBuffer m_buffer;
};

/// Reads a whole object, holes too, and throws `Failure` if it does not agree with its record.
void verifyObject(Store& store, const ObjectRecord& record, const OnBytes& onBytes = {});
