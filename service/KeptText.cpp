#include "service/KeptText.h"

#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"
#include "service/StubData.h"
#include "service/Times.h"

#include <cerrno>
#include <charconv>
#include <string_view>
#include <sys/xattr.h>
#include <vector>

namespace {

/// One of these and a time in nanoseconds end the metadata of a text that is kept. Programs that back the
/// stub up and restore it from such a text get a good stub all the same.
constexpr std::string_view kRecalling = ";recalling=";
constexpr std::string_view kStubbing = ";stubbing=";

/// Nothing for a text that is not whole.
std::optional<StubFacts> decode(const std::string& text) {
    std::optional<StubFacts> facts = readFacts(text);
    if (facts && static_cast<size_t>(facts->textLength) > text.size())
        facts.reset();
    return facts;
}

struct Purpose {
    bool recalling;
    timespec modified;
};

/// Takes the purpose from the end of the metadata, if there is one.
std::optional<Purpose> takePurpose(std::string& meta) {
    for (const std::string_view purpose : {kRecalling, kStubbing}) {
        const size_t at = meta.rfind(purpose);
        if (at == std::string::npos)
            continue;
        long long modified = 0;
        const char* end = meta.data() + meta.size();
        const auto [stop, error] = std::from_chars(meta.data() + at + purpose.size(), end, modified);
        if (error != std::errc() || stop != end)
            continue;
        meta.resize(at);
        return Purpose{purpose == kRecalling, timeOf(modified)};
    }
    return {};
}

} // namespace

std::optional<KeptText> readKeptText(const OpenFile& file) {
    if (file.lacksKeptText())
        return {};
    std::string value(1024, '\0');
    ssize_t got = file.attribute(kStubTextAttribute, value.data(), value.size());
    if (got < 0 && errno == ERANGE) {
        value.resize(kStubTextMax);
        got = file.attribute(kStubTextAttribute, value.data(), value.size());
    }
    if (got < 0) {
        if (errno == ENODATA || errno == EOPNOTSUPP)
            return {};
        throw systemFailure("Failed to read attribute user.TSTUB of ", file.name(), errno);
    }
    value.resize(static_cast<size_t>(got));
    std::optional<StubFacts> decoded = decode(value);
    if (!decoded)
        return {};
    if (const std::optional<Purpose> purpose = takePurpose(decoded->meta))
        return KeptText{stubTextOf(decoded->meta, decoded->fileSize), purpose->recalling, purpose->modified};
    return KeptText{value, false, file.stat().st_mtim, true};
}

std::vector<char> withoutPurpose(std::vector<char> value) {
    std::optional<StubFacts> decoded = decode({value.begin(), value.end()});
    if (!decoded || !takePurpose(decoded->meta))
        return value;
    const std::string text = stubTextOf(decoded->meta, decoded->fileSize);
    return {text.begin(), text.end()};
}

bool keepText(const OpenFile& file, const KeptText& kept) {
    std::optional<StubFacts> decoded = decode(kept.text);
    if (!decoded)
        throw Failure(QZHSM_NOT_A_STUB, file.name() + " has no valid stub text");
    if (!kept.isAlone)
        decoded->meta.append(kept.recalling ? kRecalling : kStubbing)
            .append(std::to_string(nanoseconds(kept.modified)));
    const std::string value = stubTextOf(decoded->meta, decoded->fileSize);
    if (value.empty())
        return false;
    if (::setxattr(file.path().c_str(), kStubTextAttribute, value.data(), value.size(), 0) == 0)
        return true;
    const int err = errno;
    // ext4 has room for one block's worth of attributes; EDQUOT is as good a reason to work without. But an
    // older one would be taken for this one, and may be all that tells where the data is.
    const bool isNoRoom =
        err == EOPNOTSUPP || err == ENOSPC || err == E2BIG || err == ERANGE || err == EDQUOT;
    if (isNoRoom && ::getxattr(file.path().c_str(), kStubTextAttribute, nullptr, 0) < 0)
        return false;
    throw systemFailure("Failed to set attribute user.TSTUB of ", file.name(), err);
}

void dropKeptText(const OpenFile& file) {
    if (::removexattr(file.path().c_str(), kStubTextAttribute) < 0 && errno != ENODATA && errno != EOPNOTSUPP)
        throw systemFailure("Failed to remove attribute user.TSTUB of ", file.name(), errno);
}
