#include "service/KeptText.h"

#include "platform/stub/StubText.h"

#include <cerrno>
#include <string_view>
#include <sys/xattr.h>
#include <vector>

namespace {

constexpr const char* kAttribute = "user.TSTUB";

/// Ends the metadata of a text that is kept for a recall. Programs that back the stub up and restore it from
/// such a text get a good stub all the same.
constexpr std::string_view kRecalling = ";recalling=1";

struct Decoded {
    std::string meta;
    long long fileSize;
};

std::optional<Decoded> decode(const std::string& text) {
    std::vector<char> meta(kStubTextMax + 1);
    int length = 0;
    long long size = 0;
    if (!qzhsm_stub2meta(text.c_str(), &length, &size, meta.data(), static_cast<int>(meta.size()), true) ||
        static_cast<size_t>(length) > text.size())
        return {};
    return Decoded{meta.data(), size};
}

std::string encode(const Decoded& decoded) {
    const int length = qzhsm_meta2stub(decoded.meta.c_str(), decoded.fileSize, nullptr, 0);
    if (length < 0)
        return {};
    std::string text(static_cast<size_t>(length), '\0');
    qzhsm_meta2stub(decoded.meta.c_str(), decoded.fileSize, text.data(), length);
    return text;
}

} // namespace

std::optional<KeptText> readKeptText(const OpenFile& file) {
    std::string value(1024, '\0');
    ssize_t got = ::getxattr(file.path().c_str(), kAttribute, value.data(), value.size());
    if (got < 0 && errno == ERANGE) {
        value.resize(kStubTextMax);
        got = ::getxattr(file.path().c_str(), kAttribute, value.data(), value.size());
    }
    if (got < 0) {
        if (errno == ENODATA || errno == EOPNOTSUPP)
            return {};
        throw systemFailure("Failed to read attribute user.TSTUB of ", file.name(), errno);
    }
    value.resize(static_cast<size_t>(got));
    std::optional<Decoded> decoded = decode(value);
    if (!decoded)
        return {};
    if (!decoded->meta.ends_with(kRecalling))
        return KeptText{value, false};
    decoded->meta.resize(decoded->meta.size() - kRecalling.size());
    return KeptText{encode(*decoded), true};
}

bool keepText(const OpenFile& file, const KeptText& kept) {
    std::string value = kept.text;
    if (kept.recalling) {
        std::optional<Decoded> decoded = decode(kept.text);
        if (!decoded)
            throw Failure(QZHSM_NOT_A_STUB, file.name() + " has no valid stub text");
        decoded->meta += kRecalling;
        value = encode(*decoded);
        if (value.empty())
            return false;
    }
    if (::setxattr(file.path().c_str(), kAttribute, value.data(), value.size(), 0) == 0)
        return true;
    // ext4 has room for one block's worth of attributes; EDQUOT is as good a reason to work without.
    if (errno == EOPNOTSUPP || errno == ENOSPC || errno == E2BIG || errno == ERANGE || errno == EDQUOT)
        return false;
    throw systemFailure("Failed to set attribute user.TSTUB of ", file.name(), errno);
}

void dropKeptText(const OpenFile& file) {
    if (::removexattr(file.path().c_str(), kAttribute) < 0 && errno != ENODATA && errno != EOPNOTSUPP)
        throw systemFailure("Failed to remove attribute user.TSTUB of ", file.name(), errno);
}
