#include "platform/files/NkACL.h"

#include "platform/errors/ErrorText.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubAttributes.h"

#include <cerrno>
#include <cstring>
#include <sys/xattr.h>

namespace NkACL {
namespace {

/// The most that the kernel lets one attribute hold.
constexpr size_t kMaxValue = 65536;

/// Kept by thread, since all threads share the process-wide helper.
thread_local int lastErrno = 0;
thread_local std::string lastError; // NOLINT(cert-err58-cpp): an empty string's constructor does not throw

int report(int result, const char* what, const char* name, const char* path) {
    if (result < 0) {
        lastErrno = errno;
        lastError = errnoText({what, name, " of ", path}, lastErrno);
    }
    return result;
}

class XattrHelper : public Helper {
public:
    bool supportsXattr(const char* path) override {
        return ::getxattr(LocalPath(path).c_str(), kProbeAttribute, nullptr, 0) >= 0 ||
               (errno != EOPNOTSUPP && errno != ENOSYS && errno != ENOENT);
    }

    int getAttribute(const char* path, const char* name, void* buffer, size_t size) override {
        return static_cast<int>(::getxattr(LocalPath(path).c_str(), name, buffer, size));
    }

    int setAttribute(const char* path, const char* name, const void* value, size_t size) override {
        return report(::setxattr(LocalPath(path).c_str(), name, value, size, XATTR_CREATE),
                      "Failed to set attribute ", name, path);
    }

    int removeAttribute(const char* path, const char* name) override {
        return report(::removexattr(LocalPath(path).c_str(), name), "Failed to remove attribute ", name,
                      path);
    }

    int getLastErrno() const override { return lastErrno; }
    std::string getLastError() const override { return lastError; }
};

class StubTextHelper final : public XattrHelper {
public:
    int getAttribute(const char* path, const char* name, void* buffer, size_t size) override {
        const int got = XattrHelper::getAttribute(path, name, buffer, size);
        if (got >= 0 || errno != ERANGE)
            return got;
        char whole[kMaxValue];
        const int all = XattrHelper::getAttribute(path, name, whole, sizeof whole);
        if (all < 0)
            return all;
        const int handed = static_cast<int>(std::min(size, static_cast<size_t>(all)));
        std::memcpy(buffer, whole, static_cast<size_t>(handed));
        return handed;
    }
};

} // namespace

Helper* Helper::getInstance() {
    static XattrHelper instance;
    return &instance;
}

std::unique_ptr<Helper> Helper::getInstance(Type type) {
    if (type == Type::StubText)
        return std::make_unique<StubTextHelper>();
    return std::make_unique<XattrHelper>();
}

} // namespace NkACL
