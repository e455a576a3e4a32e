#include "service/serve/SocketMessage.h"

#include "service/Failure.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw systemFailure("Failed to use the socket ", path, ENAMETOOLONG);
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int sendMessage(int socket, const std::string& text, const std::vector<int>& files) {
    iovec bytes{const_cast<char*>(text.data()), text.size()};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(kFilesInMessage * sizeof(int))];
    if (!files.empty()) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(files.size() * sizeof(int));
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(files.size() * sizeof(int));
        std::memcpy(CMSG_DATA(header), files.data(), files.size() * sizeof(int));
    }
    return ::sendmsg(socket, &message, MSG_NOSIGNAL) < 0 ? errno : 0;
}

int receiveMessage(int socket, std::string& text, std::vector<UniqueFd>& files, size_t room) {
    text.resize(room);
    iovec bytes{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(kFilesInMessage * sizeof(int))];
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    if (got < 0)
        return errno;
    text.resize(static_cast<size_t>(got));
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
            files.emplace_back(fd);
        }
    }
    return (message.msg_flags & MSG_CTRUNC) != 0 ? EMFILE : 0;
}
