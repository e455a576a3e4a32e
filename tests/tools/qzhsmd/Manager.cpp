// What a service manager does: manager READY AGAIN PROGRAM DIR DIR starts the program, keeps the descriptor
// that it parks, makes the file READY, and once the file AGAIN is there becomes the program anew, for the
// first directory only, which gets the descriptor.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int count, char** arguments) {
    if (count != 6)
        return 2;
    constexpr int kPassed = 3;
    const int inbox = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s.socket", arguments[1]);
    if (::bind(inbox, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
        return 1;
    ::setenv("NOTIFY_SOCKET", address.sun_path, 1);
    if (::fork() == 0) {
        ::execv(arguments[3], arguments + 3);
        ::_exit(127);
    }
    for (int parked = -1; parked < 0;) {
        std::array<char, 4096> text{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        iovec bytes{text.data(), text.size()};
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        if (::recvmsg(inbox, &message, MSG_CMSG_CLOEXEC) < 0)
            return 1;
        if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
            std::memcpy(&parked, CMSG_DATA(header), sizeof parked);
            if (::dup2(parked, kPassed) < 0)
                return 1;
        }
    }
    ::close(::open(arguments[1], O_CREAT | O_WRONLY, 0600));
    while (::access(arguments[2], F_OK) < 0)
        ::usleep(20000);
    arguments[5] = nullptr;
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_FDNAMES", "events", 1);
    ::execv(arguments[3], arguments + 3);
    return 1;
}
