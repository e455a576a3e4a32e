#include "service/serve/RecallServiceClient.h"

#include "platform/files/FdPath.h"
#include "platform/watch/FileSystems.h"
#include "service/Failure.h"
#include "service/serve/SocketMessage.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr time_t kPatience = 30; ///< seconds, for an answer

Failure unanswered(const std::string& text, int err) {
    return systemFailure("Failed to ask the recall service for ", text, err);
}

/// What a service answers; an empty text if it has closed the connection, nothing if it takes too long.
std::optional<std::string> request(int service, const std::string& text, const std::vector<int>& files,
                                   size_t room = kShortMessage) {
    int err = sendMessage(service, text, files);
    std::string answer;
    std::vector<UniqueFd> none;
    while (err == 0 && (err = receiveMessage(service, answer, none, room)) == EINTR)
        err = 0;
    if (err == EPIPE || err == ECONNRESET)
        return "";
    if (err == EAGAIN)
        return std::nullopt;
    if (err != 0)
        throw unanswered(text, err);
    return answer;
}

Failure unreachable(const std::string& socket, int err) {
    return systemFailure("Failed to reach the recall service at ", socket, err);
}

/// The kernel may still hold accesses for it, and let through those to files that it was to ignore.
Failure died(const std::string& socket) {
    return {QZHSM_FAILURE, "The recall service at " + socket + " has died",
            "Try again when it runs, or when the socket has been removed."};
}

/// Closed if nobody serves the socket any more. `patience` is how many seconds an answer may take.
UniqueFd connectTo(const std::string& path, time_t patience) {
    const sockaddr_un address = socketAddress(path);
    const timeval timeout{patience, 0};
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd.isOpen())
        throw systemFailure("Failed to make a socket", "", errno);
    for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO}) // one that was stopped never answers
        ::setsockopt(fd.get(), SOL_SOCKET, direction, &timeout, sizeof timeout);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    if (errno != ECONNREFUSED && errno != ENOENT)
        throw unreachable(path, errno);
    return UniqueFd();
}

/// A connection on which the service knows this process; closed if nobody serves the socket any more. A
/// worker that is killed takes a request along: the next one gets it on a new connection, where no late
/// answer is mistaken for that to a later request.
UniqueFd introduceTo(const std::string& socket, time_t patience = 1) {
    for (;;) {
        UniqueFd fd = connectTo(socket, patience);
        if (!fd.isOpen())
            return fd;
        const std::optional<std::string> answer = request(fd.get(), "exempt", {});
        if (answer && !answer->empty())
            return fd;
        // One that is starting may give up, and close what it has not answered.
        if (!answer && (patience *= 2) > kPatience)
            throw unanswered("exempt", ETIMEDOUT);
    }
}

std::vector<std::string> socketsIn(const std::string& runtimeDirectory) {
    std::vector<std::string> sockets;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(runtimeDirectory, none))
        if (entry.path().extension() == ".sock")
            sockets.push_back(runtimeDirectory + '/' + entry.path().filename().native());
    return sockets;
}

} // namespace

std::string socketPath(const std::string& runtimeDirectory, dev_t device) {
    return runtimeDirectory + '/' + std::to_string(major(device)) + ':' + std::to_string(minor(device)) +
           ".sock";
}

RecallServiceClient::RecallServiceClient(std::string runtimeDirectory)
    : m_runtimeDirectory(std::move(runtimeDirectory)) {
    connectToNew();
}

bool RecallServiceClient::Service::isStill(const struct stat& st) const {
    return inode == st.st_ino && made.tv_sec == st.st_ctim.tv_sec && made.tv_nsec == st.st_ctim.tv_nsec;
}

void RecallServiceClient::connectToNew() {
    m_closed.clear();
    m_dead.clear();
    for (const std::string& socket : socketsIn(m_runtimeDirectory)) {
        struct stat st {};
        if (::lstat(socket.c_str(), &st) < 0 ||
            std::ranges::any_of(m_services, [&](const Service& known) { return known.isStill(st); }))
            continue;
        if (::access(socket.c_str(), W_OK) < 0 && errno == EACCES) { // only root may make stubs then
            m_closed = socket;
            continue;
        }
        UniqueFd fd = introduceTo(socket);
        if (fd.isOpen())
            m_services.push_back({socket, st.st_ino, st.st_ctim, std::move(fd)});
        else if (::access(socket.c_str(), F_OK) == 0) // one that comes to its end takes it away
            m_dead.push_back(socket);
    }
}

void RecallServiceClient::heed(int file) {
    if (!m_closed.empty())
        throw unreachable(m_closed, EACCES);
    const auto hasHeard = [&](Service& service) {
        std::optional<std::string> answer;
        for (time_t patience = 2; !(answer = request(service.connection.get(), "heed", {file}));
             patience *= 2) {
            if (patience > kPatience)
                throw unanswered("heed", ETIMEDOUT);
            service.connection = introduceTo(service.socket, patience);
            if (!service.connection.isOpen())
                return false;
        }
        if (!answer->empty() && *answer != kDone)
            throw Failure(QZHSM_FAILURE, "The recall service at " + service.socket +
                                             " cannot look at files again: " + *answer);
        return !answer->empty();
    };
    for (size_t i = 0; i < m_services.size();) {
        if (hasHeard(m_services[i])) {
            ++i;
            continue;
        }
        // One that comes to its end takes its socket away first. Another may be there, and is told as well.
        const Service& gone = m_services[i];
        struct stat st {};
        if (::lstat(gone.socket.c_str(), &st) == 0 && gone.isStill(st))
            throw died(gone.socket);
        m_services.erase(m_services.begin() + static_cast<std::ptrdiff_t>(i));
        connectToNew();
    }
    if (m_dead.empty())
        return;
    const std::string its = socketPath(m_runtimeDirectory, fileSystemOf(fdPath(file)));
    if (std::ranges::find(m_dead, its) != m_dead.end()) // on other file systems it may be dead
        throw died(its);
}

std::vector<std::string> RecallServiceClient::ask(const std::string& runtimeDirectory,
                                                  const std::string& text) {
    std::vector<std::string> answers;
    std::set<pid_t> asked; // a service has a socket for each file system
    for (const std::string& socket : socketsIn(runtimeDirectory)) {
        const UniqueFd fd = connectTo(socket, kPatience);
        ucred peer{}; // who made it listen, if we see his processes
        socklen_t length = sizeof peer;
        if (!fd.isOpen() || ::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0 ||
            (peer.pid != 0 && !asked.insert(peer.pid).second))
            continue;
        std::optional<std::string> answer = request(fd.get(), text, {}, kLongMessage);
        if (!answer)
            throw unanswered(text, ETIMEDOUT);
        if (!answer->empty())
            answers.push_back(std::move(*answer));
    }
    return answers;
}
