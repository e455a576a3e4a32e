#include "platform/stub/StubText.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <string_view>
#include <zlib.h>

namespace {

/// The prefix's shape: "x" stands for a lower-case hexadecimal digit, anything else for itself.
constexpr std::string_view kShape = "QZHSMSTUB 01 xxxxxxxx xxxxxxxxxxxxxxxx xxxxxxxx xxxxxxxx xxxxxxxx\n";

struct Field {
    size_t offset;
    size_t width;
};
constexpr Field kTotal{13, 8};
constexpr Field kFileSize{22, 16};
constexpr Field kMetaLength{39, 8};
constexpr Field kPrefixCrc{48, 8};
constexpr Field kMetaCrc{57, 8};
static_assert(kMetaCrc.offset + kMetaCrc.width + 1 == kShape.size() && kShape.size() == kStubTextPrefix);

uint32_t crcOf(std::string_view bytes, uLong before = 0) {
    return static_cast<uint32_t>(
        crc32(before, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

uint32_t crcOfPrefix(std::string_view prefix) {
    return crcOf(prefix.substr(kPrefixCrc.offset + kPrefixCrc.width),
                 crcOf(prefix.substr(0, kPrefixCrc.offset)));
}

void putNumber(char* prefix, const Field& field, uint64_t value) {
    for (size_t i = field.width; i-- > 0; value >>= 4)
        prefix[field.offset + i] = "0123456789abcdef"[value & 0xf];
}

uint64_t getNumber(const char* prefix, const Field& field) {
    uint64_t value = 0;
    std::from_chars(prefix + field.offset, prefix + field.offset + field.width, value, 16);
    return value;
}

bool fits(char shape, char c) {
    return shape == 'x' ? (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') : c == shape;
}

struct Decoded {
    int total;
    long long fileSize;
    int metaLength;
    uint32_t metaCrc;
};

bool decodePrefix(const char* stub, Decoded& out) {
    for (size_t i = 0; i < kShape.size(); ++i)
        if (!fits(kShape[i], stub[i]))
            return false;
    if (getNumber(stub, kPrefixCrc) != crcOfPrefix({stub, kShape.size()}))
        return false;
    const uint64_t total = getNumber(stub, kTotal);
    const uint64_t fileSize = getNumber(stub, kFileSize);
    const uint64_t metaLength = getNumber(stub, kMetaLength);
    if (total > kStubTextMax || total != kShape.size() + metaLength || fileSize > LLONG_MAX)
        return false;
    out = {static_cast<int>(total), static_cast<long long>(fileSize), static_cast<int>(metaLength),
           static_cast<uint32_t>(getNumber(stub, kMetaCrc))};
    return true;
}

} // namespace

int qzhsm_meta2stub(const char* meta, long long fileSize, char* stubOut, int outLen) {
    if (!meta || fileSize < 0)
        return -1;
    const std::string_view text = meta;
    if (text.size() > kStubTextMax - kShape.size())
        return -1;
    const int total = static_cast<int>(kShape.size() + text.size());
    if (!stubOut)
        return total;
    if (total > outLen)
        return -1;

    kShape.copy(stubOut, kShape.size());
    putNumber(stubOut, kTotal, static_cast<uint64_t>(total));
    putNumber(stubOut, kFileSize, static_cast<uint64_t>(fileSize));
    putNumber(stubOut, kMetaLength, text.size());
    putNumber(stubOut, kMetaCrc, crcOf(text));
    putNumber(stubOut, kPrefixCrc, crcOfPrefix({stubOut, kShape.size()}));
    text.copy(stubOut + kShape.size(), text.size());
    return total;
}

bool qzhsm_stub2meta(const char* stub, int* stubLen, long long* fileSize, char* meta, int metaLen, bool) {
    if (stubLen)
        *stubLen = 0;
    Decoded decoded{};
    if (!stub || !decodePrefix(stub, decoded))
        return false;

    if (meta) {
        const auto length = static_cast<size_t>(decoded.metaLength);
        const std::string_view text(stub + kShape.size(), strnlen(stub + kShape.size(), length));
        if (text.size() != length || crcOf(text) != decoded.metaCrc)
            return false;
        if (metaLen <= decoded.metaLength && stubLen) {
            *stubLen = decoded.metaLength + 1;
            return false;
        }
        if (metaLen > 0)
            meta[text.copy(meta, static_cast<size_t>(metaLen) - 1)] = '\0';
    }
    if (stubLen)
        *stubLen = decoded.total;
    if (fileSize)
        *fileSize = decoded.fileSize;
    return true;
}

bool ParseStubReparseData(const std::string& text, ReparseData& out) {
    ReparseData parsed;
    bool found = false;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view field = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(field.size() + 1, rest.size()));
        const size_t equals = field.find('=');
        if (equals == std::string_view::npos)
            return false;
        if (field.substr(0, equals) == "versionGuid") {
            parsed.versionGuid = field.substr(equals + 1);
            found = true;
        }
    }
    if (found)
        out = parsed;
    return found;
}
