#include "service/serve/RecallServices.h"

#include "service/Failure.h"
#include "service/serve/SocketMessage.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

constexpr const char* kLock = "/lock";

UniqueFd openLock(const std::string& runtimeDirectory) {
    constexpr mode_t kMode = 0755;
    ::mkdir(runtimeDirectory.c_str(), kMode);
    return UniqueFd(
        ::open((runtimeDirectory + kLock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

/// Connected to each service that answers.
std::vector<UniqueFd> connectToAll(const std::string& runtimeDirectory) {
    std::vector<UniqueFd> services;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(runtimeDirectory, none)) {
        if (entry.path().extension() != ".sock")
            continue;
        const sockaddr_un address = socketAddress(entry.path());
        UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (!fd.isOpen())
            throw systemFailure("Failed to make a socket", "", errno);
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            services.push_back(std::move(fd));
        else if (errno != ECONNREFUSED && errno != ENOENT) // nobody serves it any more
            throw systemFailure("Failed to reach the recall service at ", entry.path().native(), errno);
    }
    return services;
}

std::string request(int service, const std::string& text, const std::vector<int>& files) {
    int err = sendMessage(service, text, files);
    std::string answer;
    std::vector<UniqueFd> none;
    while (err == 0 && (err = receiveMessage(service, answer, none)) == EINTR)
        err = 0;
    if (err == 0 && answer.empty())
        err = ECONNRESET;
    if (err != 0)
        throw systemFailure("Failed to ask the recall service for ", text, err);
    return answer;
}

} // namespace

std::string socketPath(const std::string& runtimeDirectory, dev_t device) {
    return runtimeDirectory + '/' + std::to_string(major(device)) + ':' + std::to_string(minor(device)) +
           ".sock";
}

UniqueFd lockOutTools(const std::string& runtimeDirectory) {
    UniqueFd lock = openLock(runtimeDirectory);
    if (!lock.isOpen() || ::flock(lock.get(), LOCK_EX) < 0)
        throw systemFailure("Failed to lock ", runtimeDirectory + kLock, errno);
    return lock;
}

RecallServices::RecallServices(const std::string& runtimeDirectory) : m_lock(openLock(runtimeDirectory)) {
    if (!m_lock.isOpen()) // then no service of root's can be there either
        return;
    if (::flock(m_lock.get(), LOCK_SH) < 0)
        throw systemFailure("Failed to lock ", runtimeDirectory + kLock, errno);
    m_services = connectToAll(runtimeDirectory);
    for (const UniqueFd& service : m_services)
        request(service.get(), "exempt", {});
}

void RecallServices::heed(const std::vector<int>& files) {
    for (const UniqueFd& service : m_services)
        for (size_t from = 0; from < files.size(); from += kFilesInMessage) {
            const size_t count = std::min(files.size() - from, kFilesInMessage);
            const auto begin = files.begin() + static_cast<std::ptrdiff_t>(from);
            request(service.get(), "heed", {begin, begin + static_cast<std::ptrdiff_t>(count)});
        }
}

std::vector<std::string> RecallServices::ask(const std::string& runtimeDirectory, const std::string& text) {
    std::vector<std::string> answers;
    for (const UniqueFd& service : connectToAll(runtimeDirectory))
        answers.push_back(request(service.get(), text, {}));
    return answers;
}
