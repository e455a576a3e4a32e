#include "tools/qzhsmd/Descriptors.h"

#include "platform/files/FdPath.h"
#include "platform/watch/PreContentGroup.h"

#include <cstdlib>
#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool isListening(int fd) {
    int value = 0;
    socklen_t length = sizeof value;
    return ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &value, &length) == 0 && value != 0;
}

} // namespace

Descriptors Descriptors::find(const std::set<int>& locks, const std::set<int>& others) {
    std::vector<int> all;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        all.push_back(std::atoi(entry.path().filename().c_str()));
    Descriptors found;
    for (const int fd : all) {
        const std::string target = pathBehind(fd);
        if (fd <= STDERR_FILENO || target.empty() || others.contains(fd))
            continue;
        if (target == "anon_inode:[fanotify]")
            found.group = fd;
        else if (target.starts_with("socket:"))
            (isListening(fd) ? found.listeners : found.connections).push_back(fd);
        else if (PreContentGroup::isHeldAccess(fd))
            found.held.push_back(fd);
        else if (locks.contains(fd))
            found.locks.push_back(fd);
        else
            ::close(fd);
    }
    return found;
}
