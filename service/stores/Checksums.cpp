#include "service/stores/Checksums.h"

#include "service/stores/Encoding.h"

#include <algorithm>
#include <new>
#include <xxh_x86dispatch.h> // the same functions, with the widest vectors that the processor has

namespace {

constexpr size_t kZeros = 65536; // small enough for the processor's own caches
constexpr char zeros[kZeros] = {};

/// Calls back with zeros, `count` in all.
template <typename Take>
void forZeros(std::uint64_t count, Take take) {
    for (; count > 0; count -= std::min<std::uint64_t>(count, kZeros))
        take(zeros, std::min<std::uint64_t>(count, kZeros));
}

ChecksumState makeState() {
    ChecksumState state(XXH3_createState());
    if (!state)
        throw std::bad_alloc();
    return state;
}

std::uint64_t zeroPieceChecksum() {
    static const std::uint64_t checksum = [] {
        ChecksumStream stream;
        forZeros(kPieceSize, [&](const char* bytes, size_t size) { stream.add(bytes, size); });
        return stream.finish().pieces[0];
    }();
    return checksum;
}

} // namespace

std::uint64_t checksumOf(std::string_view bytes) {
    return XXH3_64bits(bytes.data(), bytes.size());
}

std::uint64_t zerosChecksum(size_t size) {
    if (size == kPieceSize)
        return zeroPieceChecksum();
    ChecksumStream stream;
    stream.addZeros(size);
    return stream.finish().pieces.at(0);
}

void FreeChecksumState::operator()(XXH3_state_s* state) const {
    XXH3_freeState(state);
}

PieceChecksum::PieceChecksum() : m_state(makeState()) {
    XXH3_64bits_reset(m_state.get());
}

void PieceChecksum::add(const char* bytes, size_t size) {
    XXH3_64bits_update(m_state.get(), bytes, size);
}

std::uint64_t PieceChecksum::finish() {
    const std::uint64_t sum = XXH3_64bits_digest(m_state.get());
    XXH3_64bits_reset(m_state.get());
    return sum;
}

ChecksumStream::ChecksumStream() : m_whole(makeState()) {
    XXH3_128bits_reset(m_whole.get());
}

void ChecksumStream::endPiece() {
    m_sums.pieces.push_back(m_piece.finish());
    m_inPiece = 0;
}

void ChecksumStream::add(const char* bytes, size_t size) {
    XXH3_128bits_update(m_whole.get(), bytes, size);
    while (size > 0) {
        const size_t now = std::min<std::uint64_t>(size, kPieceSize - m_inPiece);
        m_piece.add(bytes, now);
        m_inPiece += now;
        if (m_inPiece == kPieceSize)
            endPiece();
        bytes += now;
        size -= now;
    }
}

void ChecksumStream::addZeros(std::uint64_t count) {
    const auto addAll = [this](const char* bytes, size_t size) { add(bytes, size); };
    const std::uint64_t begun = m_inPiece == 0 ? 0 : std::min(count, kPieceSize - m_inPiece);
    forZeros(begun, addAll);
    count -= begun;
    for (; count >= kPieceSize; count -= kPieceSize) {
        m_sums.pieces.push_back(zeroPieceChecksum());
        forZeros(kPieceSize,
                 [this](const char* bytes, size_t size) { XXH3_128bits_update(m_whole.get(), bytes, size); });
    }
    forZeros(count, addAll);
}

Checksums ChecksumStream::finish() {
    if (m_inPiece > 0)
        endPiece();
    const XXH128_hash_t whole = XXH3_128bits_digest(m_whole.get());
    m_sums.whole = hexText(whole.high64) + hexText(whole.low64);
    return std::move(m_sums);
}
