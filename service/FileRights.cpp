#include "service/FileRights.h"

#include "platform/logging/ProcessLog.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {
constexpr mode_t kPermissions = 07777;
constexpr mode_t kTaken = S_ISUID | S_ISGID; // by a write, unless it is root's
} // namespace

std::string readCapabilities(const OpenFile& file) {
    char value[256];
    const ssize_t got = ::getxattr(file.path().c_str(), kCapabilityAttribute, value, sizeof value);
    if (got < 0 && errno != ENODATA && errno != EOPNOTSUPP)
        throw systemFailure("Failed to read the capabilities of ", file.name(), errno);
    return got > 0 ? std::string(value, static_cast<size_t>(got)) : std::string();
}

void putRightsBack(const OpenFile& file, const std::string& capabilities, const struct stat& before) {
    const struct stat now = file.stat();
    if (now.st_uid != before.st_uid || now.st_gid != before.st_gid)
        return;
    // The mode first: to change it can take the capabilities.
    const bool lacksThese =
        now.st_mode != before.st_mode && before.st_mode == (now.st_mode | (before.st_mode & kTaken));
    if (::geteuid() != 0 && lacksThese && ::chmod(file.path().c_str(), before.st_mode & kPermissions) < 0)
        throw systemFailure("Failed to put back the mode of ", file.name(), errno);
    if (capabilities.empty())
        return;
    // Whoever may write the file could have put a program of his own there just now.
    if (now.st_uid != 0 || (now.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        if (CLogWriterInterface* log = processLog(-1))
            log->Write(-1, "putRightsBack", 0, 0, 0,
                       "%s has lost its capabilities: others than root may write it", file.name().c_str());
        return;
    }
    if (::setxattr(file.path().c_str(), kCapabilityAttribute, capabilities.data(), capabilities.size(), 0) <
        0)
        throw systemFailure("Failed to put back the capabilities of ", file.name(), errno);
}

void putTimesBack(const OpenFile& file, const timespec& accessed, const timespec& modified) {
    const timespec times[] = {accessed, modified};
    if (::utimensat(AT_FDCWD, file.path().c_str(), times, 0) < 0)
        throw systemFailure("Failed to change time of ", file.name(), errno);
}
