#include "service/stores/VerifiedReader.h"

#include "service/Failure.h"
#include "service/stores/Content.h"

#include <algorithm>
#include <new>
#include <sys/mman.h>

namespace {

/// A whole piece in huge pages, if there are any: to have a thousand small ones made takes longer than to
/// read into them.
PieceBuffer makeBuffer(size_t size) {
    constexpr size_t kHugePage = size_t{2} << 20;
    void* bytes = size < kPieceSize ? std::malloc(size) : std::aligned_alloc(kHugePage, size);
    if (!bytes)
        throw std::bad_alloc();
    if (size >= kPieceSize)
        ::madvise(bytes, size, MADV_HUGEPAGE);
    return PieceBuffer(static_cast<char*>(bytes));
}

[[noreturn]] void damaged(const Store& store, const ObjectRecord& record, std::uint64_t offset) {
    throw Failure(QZHSM_FAILURE, "Object " + std::string(record.object.text()) + " in store " + store.name() +
                                     " is damaged: wrong checksum in the piece at byte " +
                                     std::to_string(offset));
}

void requireSum(const Store& store, const ObjectRecord& record, std::uint64_t offset, std::uint64_t sum) {
    if (sum != record.checksums.pieces[offset / kPieceSize])
        damaged(store, record, offset);
}

} // namespace

VerifiedReader::VerifiedReader(Store& store, const ObjectRecord& record, std::uint64_t first,
                               std::uint64_t count)
    : m_store(store), m_record(record) {
    const std::uint64_t pieces = record.checksums.pieces.size();
    first = std::min(first, pieces);
    count = std::min(count, pieces - first);
    m_at = std::min(record.size, first * kPieceSize);
    m_end = std::min(record.size, (first + count) * kPieceSize);
    if (m_at < m_end)
        m_reader = store.open(record, {m_at, m_end - m_at});
}

std::optional<Piece> VerifiedReader::next() {
    if (m_at == m_end) {
        if (m_reader)
            m_reader->finish();
        m_reader.reset();
        m_buffer.reset();
        return std::nullopt;
    }
    Piece piece{{m_at, std::min(kPieceSize, m_end - m_at)}, {}};
    if (m_record.dataWithin(piece.part).empty()) {
        requireSum(m_store, m_record, m_at, zerosChecksum(piece.part.length)); // a record may be damaged too
        m_reader->skip(piece.part.length);
    } else {
        if (!m_buffer) // which readers that wait for their turn do without
            m_buffer = makeBuffer(std::min(m_end - m_at, kPieceSize));
        piece.bytes = {m_buffer.get(), piece.part.length};
        PieceChecksum sum; // of what is there, while the store looks for the rest
        for (size_t at = 0; at < piece.bytes.size();) {
            const size_t size = std::min<size_t>(piece.bytes.size() - at, kCopyBuffer);
            m_reader->read(m_buffer.get() + at, size);
            sum.add(m_buffer.get() + at, size);
            at += size;
        }
        requireSum(m_store, m_record, m_at, sum.finish());
    }
    m_at = piece.part.end();
    return piece;
}

void verifyObject(Store& store, const ObjectRecord& record, const OnBytes& onBytes) {
    const std::unique_ptr<ObjectReader> reader = store.open(record, {0, record.size});
    const auto buffer = std::make_unique_for_overwrite<char[]>(std::min(record.size, kCopyBuffer));
    ChecksumStream stream;
    for (std::uint64_t at = 0; at < record.size;) {
        const size_t size = std::min(kCopyBuffer, record.size - at);
        reader->read(buffer.get(), size);
        stream.add(buffer.get(), size);
        at += size;
        if (onBytes)
            onBytes(at);
    }
    reader->finish();
    const Checksums found = stream.finish();
    const auto& pieces = found.pieces;
    const auto different =
        std::ranges::mismatch(pieces, record.checksums.pieces).in1; // of one length, as the sizes are
    if (different != pieces.end())
        damaged(store, record, static_cast<std::uint64_t>(different - pieces.begin()) * kPieceSize);
    for (std::uint64_t at = 0; at < record.size; at += kPieceSize)
        if (const Extent part{at, std::min(kPieceSize, record.size - at)}; record.dataWithin(part).empty())
            requireSum(store, record, at, zerosChecksum(part.length));
    if (found.whole != record.checksums.whole)
        throw Failure(QZHSM_FAILURE, "Object " + std::string(record.object.text()) + " in store " +
                                         store.name() + " is damaged: wrong checksum of the whole");
}
