#include "platform/stub/StubText.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include <zlib.h>

namespace {

/// Whatever text the decoder accepts must be the one that the encoder makes of what it read.
void decode(const std::string& text) {
    std::vector<char> meta(kStubTextMax);
    long long fileSize = 0;
    int length = 0;
    if (qzhsm_stub2meta(text.c_str(), &length, &fileSize, meta.data(), kStubTextMax, true)) {
        std::string again(static_cast<size_t>(length), '\0');
        if (qzhsm_meta2stub(meta.data(), fileSize, again.data(), length) != length ||
            !text.starts_with(again))
            std::abort();
    }
}

/// Puts the checksum of what lies before and behind it into the text.
void putChecksum(std::string& text, size_t at, uLong before, size_t from) {
    char digits[9];
    const auto* rest = reinterpret_cast<const Bytef*>(text.data()) + from;
    std::snprintf(
        digits, sizeof digits, "%08lx",
        ::crc32(before, rest,
                static_cast<uInt>((from < kStubTextPrefix ? kStubTextPrefix : text.size()) - from)));
    text.replace(at, 8, digits);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    decode(text);
    if (size < kStubTextPrefix)
        return 0;
    // Whoever makes up a text can make its checksums as well.
    constexpr size_t kPrefixCrc = 48;
    constexpr size_t kMetaCrc = 57;
    putChecksum(text, kMetaCrc, 0, kStubTextPrefix);
    putChecksum(text, kPrefixCrc, ::crc32(0, reinterpret_cast<const Bytef*>(text.data()), kPrefixCrc),
                kMetaCrc - 1);
    decode(text);
    return 0;
}
