#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct XXH3_state_s;

struct FreeChecksumState {
    void operator()(XXH3_state_s* state) const;
};
using ChecksumState = std::unique_ptr<XXH3_state_s, FreeChecksumState>;

/// The unit that is compared on its own, so that a part of an object can be trusted without the rest.
constexpr std::uint64_t kPieceSize = 4UL * 1024 * 1024;

/// The checksums of a content, holes counting as the zeros that they read as. They find damage, not malice.
struct Checksums {
    std::vector<std::uint64_t> pieces; ///< XXH3-64 of each piece; the last may be shorter than the others
    std::string whole;                 ///< XXH3-128, 32 lower-case hexadecimal digits, as `xxhsum -H2` prints

    bool operator==(const Checksums&) const = default;
};

/// XXH3-64 of bytes that are all there.
std::uint64_t checksumOf(std::string_view bytes);

/// The checksum of a piece of so many zeros.
std::uint64_t zerosChecksum(size_t size);

/// Computes the checksum of one piece that goes by.
class PieceChecksum {
public:
    PieceChecksum();

    void add(const char* bytes, size_t size);
    /// Ends the piece, and begins another.
    std::uint64_t finish();

private:
    ChecksumState m_state;
};

/// Computes the checksums of a content that goes by.
class ChecksumStream {
public:
    ChecksumStream();

    void add(const char* bytes, size_t size);
    /// The same as adding so many zeros, at less cost.
    void addZeros(std::uint64_t count);
    /// Ends the stream.
    Checksums finish();

private:
    void endPiece();

    PieceChecksum m_piece;
    ChecksumState m_whole;
    std::uint64_t m_inPiece = 0; ///< bytes of the piece that is not complete
    Checksums m_sums;
};
