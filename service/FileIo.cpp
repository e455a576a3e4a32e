#include "service/FileIo.h"

#include "service/Failure.h"
#include "service/Times.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

struct stat statFollowing(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) < 0)
        throw systemFailure("Failed to stat ", path, errno);
    return st;
}

long long allocatedBytes(const struct stat& st) {
    constexpr long long kBlock = 512; // the unit of st_blocks, whatever the file system's own
    return st.st_blocks * kBlock;
}

bool wouldFreeRoom(const struct stat& st) {
    // What a network file system says is not the size of its blocks.
    const auto block = std::clamp<long long>(st.st_blksize, 4096, 65536);
    const int left = st.st_size > block ? 2 : 1; // the stub text's, and that of the last byte
    return allocatedBytes(st) > left * block;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool hasSameData(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && isSameTime(a.st_mtim, b.st_mtim);
}

bool isUntouched(const struct stat& a, const struct stat& b) {
    return hasSameData(a, b) && isSameTime(a.st_ctim, b.st_ctim);
}

bool allZero(std::string_view bytes) {
    return bytes.empty() ||
           (bytes.front() == '\0' && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

UniqueFd openForReading(const std::string& path) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME));
    if (!file.isOpen() && errno == EPERM) // another user's file
        file = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        throw systemFailure("Failed to open ", path, errno);
    return file;
}

std::vector<char> readUpTo(int fd, size_t size, const std::string& name,
                           const std::function<void()>& onSignal) {
    std::vector<char> bytes(size);
    size_t total = 0;
    while (total < size) {
        const ssize_t got = ::read(fd, bytes.data() + total, size - total);
        if (got == 0)
            break;
        if (got > 0)
            total += static_cast<size_t>(got);
        else if (errno == EINTR)
            onSignal();
        else
            throw systemFailure("Failed to read from ", name, errno);
    }
    bytes.resize(total);
    return bytes;
}

size_t readAt(int fd, char* buffer, size_t size, off_t offset, const std::string& name) {
    size_t total = 0;
    while (total < size) {
        const ssize_t got = ::pread(fd, buffer + total, size - total, offset + static_cast<off_t>(total));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw systemFailure("Failed to read from ", name, errno);
        if (got == 0)
            break;
        total += static_cast<size_t>(got);
    }
    return total;
}

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return path.substr(0, std::max<size_t>(slash, 1));
}

UniqueFd openDirectory(const std::string& path) {
    UniqueFd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen())
        throw systemFailure("Failed to open ", path, errno);
    return directory;
}

void flushDirectory(int fd, const std::string& path) {
    if (::fsync(fd) < 0)
        throw systemFailure("Failed to flush ", path, errno);
}
