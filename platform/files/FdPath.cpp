#include "platform/files/FdPath.h"

#include <climits>
#include <unistd.h>

std::string fdPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

std::string pathBehind(int fd) {
    char path[PATH_MAX];
    const ssize_t length = ::readlink(fdPath(fd).c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}
