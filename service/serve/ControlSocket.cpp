#include "service/serve/ControlSocket.h"

#include "platform/errors/ErrorText.h"
#include "service/serve/SocketMessage.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

UniqueFd ControlSocket::listen(const std::string& path) {
    const std::string unready = path + ".new"; // one that is not listened to is that of a service which died
    const sockaddr_un address = socketAddress(unready);
    ::unlink(unready.c_str());
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0));
    const mode_t mask = ::umask(0177);
    const bool works = fd.isOpen() &&
                       ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       ::listen(fd.get(), SOMAXCONN) == 0 &&
                       ::rename(unready.c_str(), path.c_str()) == 0; // whoever starts holds the lock
    const int err = errno;
    ::umask(mask);
    if (!works) {
        ::unlink(unready.c_str());
        throw systemFailure("Failed to make the socket ", path, err);
    }
    return fd;
}

ControlSocket::ControlSocket(RecallService& service, std::vector<std::string> directories)
    : m_service(service), m_directories(std::move(directories)) {}

ControlSocket::~ControlSocket() = default;

void ControlSocket::addListener(UniqueFd listener) {
    m_listeners.push_back(std::move(listener));
}

void ControlSocket::takeOver(UniqueFd connection) {
    if (Connection* added = add(std::move(connection)))
        exempt(*added);
}

ControlSocket::Connection* ControlSocket::add(UniqueFd connection) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0 ||
        (peer.uid != 0 && peer.uid != ::geteuid()))
        return nullptr;
    const int fd = connection.get();
    return &m_connections.emplace(fd, Connection{std::move(connection), peer.pid}).first->second;
}

void ControlSocket::addTo(std::vector<int>& fds) const {
    for (const UniqueFd& listener : m_listeners)
        fds.push_back(listener.get());
    for (const auto& [fd, connection] : m_connections)
        fds.push_back(fd);
}

void ControlSocket::serve(int fd) {
    if (const auto found = m_connections.find(fd); found != m_connections.end())
        return answer(found->second);
    UniqueFd connection(::accept4(fd, nullptr, nullptr, SOCK_NONBLOCK));
    if (connection.isOpen())
        add(std::move(connection));
}

void ControlSocket::exempt(Connection& connection) {
    if (!std::exchange(connection.exempt, true))
        m_service.exempt(connection.process);
}

void ControlSocket::answer(Connection& connection) {
    std::string request;
    std::vector<UniqueFd> files;
    const int err = receiveMessage(connection.fd.get(), request, files);
    if (err == EAGAIN || err == EINTR)
        return;
    std::string text;
    if (err == EMFILE)
        text = errnoReason(err);
    else if (err == 0 && !request.empty())
        text = answerTo(connection, request, files);
    if (text.empty() || sendMessage(connection.fd.get(), text, {}) != 0) {
        if (connection.exempt)
            m_service.endExemption(connection.process);
        m_connections.erase(connection.fd.get());
    }
}

std::string ControlSocket::answerTo(Connection& connection, std::string_view request,
                                    const std::vector<UniqueFd>& files) {
    if (request == "status")
        return m_service.status().toJson(m_directories);
    if (request == "metrics")
        return m_service.status().toMetrics();
    if (request == "exempt") {
        exempt(connection);
        return kDone;
    }
    if (request == "heed") {
        for (const UniqueFd& file : files)
            if (const int err = m_service.heed(file.get()))
                return err == EBUSY ? "somebody is just about to truncate one" : errnoReason(err);
        return kDone;
    }
    return {};
}
