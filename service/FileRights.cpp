#include "service/FileRights.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace {
constexpr const char* kCapabilities = "security.capability";
constexpr mode_t kPermissions = 07777;
} // namespace

std::string readCapabilities(const OpenFile& file) {
    char value[256];
    const ssize_t got = ::getxattr(file.path().c_str(), kCapabilities, value, sizeof value);
    return got > 0 ? std::string(value, static_cast<size_t>(got)) : std::string();
}

void putRightsBack(const OpenFile& file, const std::string& capabilities, mode_t mode) {
    // The mode first: to change it can take the capabilities.
    if (file.stat().st_mode != mode && ::chmod(file.path().c_str(), mode & kPermissions) < 0)
        throw systemFailure("Failed to put back the mode of ", file.name(), errno);
    if (!capabilities.empty() &&
        ::setxattr(file.path().c_str(), kCapabilities, capabilities.data(), capabilities.size(), 0) < 0)
        throw systemFailure("Failed to put back the capabilities of ", file.name(), errno);
}

void putTimesBack(const OpenFile& file, const timespec& accessed, const timespec& modified) {
    const timespec times[] = {accessed, modified};
    if (::utimensat(AT_FDCWD, file.path().c_str(), times, 0) < 0)
        throw systemFailure("Failed to change time of ", file.name(), errno);
}
