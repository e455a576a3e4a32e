#include "service/Flush.h"

#include "service/Failure.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// A directory's own flush would leave out what is in its files.
bool isDirectory(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

void flushOne(int fd, const std::string& name) {
    if ((isDirectory(fd) ? ::syncfs(fd) : ::fsync(fd)) < 0)
        throw systemFailure("Failed to flush ", name, errno);
}

void flushAll(const std::vector<Flushable>& files) {
    constexpr size_t kFew = 2; // a flush of the whole file system also waits for what others wrote
    std::map<dev_t, std::vector<int>> byDevice;
    for (const Flushable& file : files)
        byDevice[file.device].push_back(file.fd);
    for (const auto& [device, fds] : byDevice) {
        if (fds.size() > kFew || std::ranges::any_of(fds, isDirectory)) {
            if (::syncfs(fds.front()) < 0)
                throw systemFailure("Failed to flush the file system", "", errno);
            continue;
        }
        for (const int fd : fds)
            if (::fsync(fd) < 0)
                throw systemFailure("Failed to flush a file", "", errno);
    }
}
