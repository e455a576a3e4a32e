#include "service/stores/TrustedDirectory.h"

#include "service/Failure.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw Failure(QZHSM_FAILURE, "The store " + path + " is not trusted where stubs name it: " + reason,
                  "If it is the right one, give it a name in the configuration; recall takes --store too.");
}

void requireTrust(int directory, const std::string& path, const std::string& upTo) {
    struct stat st {};
    if (::fstat(directory, &st) < 0)
        throw systemFailure("Failed to stat ", upTo, errno);
    if (st.st_uid != 0 && st.st_uid != ::geteuid())
        refuse(path, upTo + " belongs to another user");
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0)
        refuse(path, "others may write into " + upTo);
}

} // namespace

UniqueFd openTrustedDirectory(const std::string& path) {
    if (!path.starts_with('/') || path.find('\0') != std::string::npos)
        refuse(path, "its path is not absolute");
    UniqueFd directory(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    requireTrust(directory.get(), path, "/");
    for (size_t start = 1; start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string component = path.substr(start, end - start);
        const std::string upTo = path.substr(0, end);
        if (component.empty() || component == "." || component == "..")
            refuse(path, "its path is not in its plainest form");
        const bool last = end == path.size();
        // The last directory is read and written; those above it are only walked through.
        const int flags = (last ? O_RDONLY : O_PATH) | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        directory = UniqueFd(::openat(directory.get(), component.c_str(), flags));
        if (!directory.isOpen())
            throw systemFailure("Failed to open store ", upTo, errno);
        requireTrust(directory.get(), path, upTo);
        start = end + 1;
    }
    return directory;
}
