#include "tools/qzhsmd/Setup.h"

#include "platform/config/ConfigFile.h"
#include "platform/stub/StubAttributes.h"
#include "platform/watch/FileSystems.h"
#include "platform/watch/PreContentGroup.h"
#include "service/FileIo.h"
#include "service/serve/ControlSocket.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <new>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

constexpr const char* kParkedName = "events";
constexpr size_t kMostNumbers = 1 << 20; ///< of descriptors

/// The directories that were named, the first of each file system.
using Served = std::map<dev_t, std::string>;

/// Zeros that all processes share, for as long as they live. Pages that nobody touches take no room.
void* sharedMemory(size_t size) {
    void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw systemFailure("Failed to get memory", "", errno);
    return memory;
}

Served fileSystemsOf(const std::vector<std::string>& directories) {
    Served served;
    for (const std::string& directory : directories) {
        struct stat st {};
        if (::stat(directory.c_str(), &st) < 0)
            throw systemFailure("Failed to stat ", directory, errno);
        if (!S_ISDIR(st.st_mode))
            throw systemFailure("Failed to serve ", directory, ENOTDIR);
        if (::getxattr(directory.c_str(), kStubMark, nullptr, 0) < 0 && errno == EOPNOTSUPP)
            throw Failure(QZHSM_FAILURE, "The file system of " + directory + " has no user attributes");
        const dev_t fileSystem = fileSystemOf(directory);
        if (fileSystem == 0)
            throw systemFailure("Failed to find the file system of ", directory, errno);
        served.emplace(fileSystem, directory);
    }
    return served;
}

Failure servedAlready(const std::string& directory, const std::string& by) {
    return {QZHSM_BUSY, "The file system of " + directory + " is served already" + by};
}

/// A second service on the same file system would answer the first one's readers.
int lockFileSystem(const std::string& socket, const std::string& directory) {
    const std::string path = socket + ".lock";
    constexpr mode_t kMode = 0600;
    const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, kMode);
    if (lock < 0)
        throw systemFailure("Failed to open ", path, errno);
    if (::flock(lock, LOCK_EX | LOCK_NB) < 0)
        throw servedAlready(directory, "");
    return lock;
}

/// The group that an earlier service parked with the service manager, or -1.
int parkedGroup() {
    char** names = nullptr;
    const int count = ::sd_listen_fds_with_names(1, &names);
    int group = -1;
    for (int i = 0; i < count; ++i) {
        if (std::string(names[i]) == kParkedName)
            group = SD_LISTEN_FDS_START + i;
        std::free(names[i]);
    }
    std::free(names);
    return group;
}

/// Nobody knows the files of accesses that a service had read before all its processes died.
void refuseForgotten(PreContentGroup& group) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (rlim_t number = 0; number < std::min<rlim_t>(limit.rlim_cur, kMostNumbers); ++number)
        group.denyNumber(static_cast<int>(number), EIO);
}

PreContentGroup openGroup(int parked) {
    if (parked >= 0) {
        PreContentGroup group{UniqueFd(::fcntl(parked, F_DUPFD, STDERR_FILENO + 1))};
        ::close(parked);
        return group;
    }
    PreContentGroup group;
    const int err = group.create();
    if (err == EPERM)
        throw Failure(QZHSM_FAILURE, "This needs the capability CAP_SYS_ADMIN", "Run it as root.");
    if (err != 0)
        throw systemFailure("The kernel hands out no pre-content events", "", err);
    return group;
}

void mark(PreContentGroup& group, const std::string& directory) {
    const int err = group.mark(directory);
    if (err == EINVAL || err == EOPNOTSUPP)
        throw Failure(QZHSM_FAILURE,
                      "The kernel has no pre-content events for the file system of " + directory,
                      "It takes Linux 6.14 and ext4, xfs or btrfs.");
    if (err != 0)
        throw systemFailure("Failed to watch ", directory, err);
}

/// One with another runtime directory holds other locks. Of two that start at once each sees the other.
void requireToBeAlone(const Served& served) {
    for (const auto& [fileSystem, directory] : served)
        if (const pid_t other = watcherOf(fileSystem))
            throw servedAlready(directory, ", by process " + std::to_string(other));
}

/// What a parked group has marked and is served no more.
void forget(PreContentGroup& group, const Served& served, const std::string& runtimeDirectory) {
    for (const dev_t fileSystem : markedFileSystems(group.descriptor())) {
        if (served.contains(fileSystem))
            continue;
        for (const std::string& point : mountPointsOf(fileSystem))
            if (group.unmark(point) == 0)
                tell("no longer serving " + point);
        try { // else tools would take its service for one that has died
            const std::string socket = socketPath(runtimeDirectory, fileSystem);
            const UniqueFd lock(lockFileSystem(socket, ""));
            ::unlink(socket.c_str());
        } catch (const Failure&) { // another one serves it by now
        }
    }
}

/// Whether the group may outlive all processes: not if it would keep the next service from being started.
bool mayBeParked(const Served& served, const std::string& runtimeDirectory) {
    std::set<dev_t> needed = ownFileSystems();
    needed.insert({fileSystemOf(ConfigFile::path()), fileSystemOf(runtimeDirectory)});
    return std::ranges::none_of(served, [&](const auto& each) { return needed.contains(each.first); });
}

/// Removes the sockets if set-up fails: tools would look for a service behind them.
struct SocketsOfAFailure {
    explicit SocketsOfAFailure(const std::vector<std::string>& made) : sockets(made) {}
    SocketsOfAFailure(const SocketsOfAFailure&) = delete;
    SocketsOfAFailure& operator=(const SocketsOfAFailure&) = delete;
    ~SocketsOfAFailure() {
        if (std::uncaught_exceptions() > 0)
            for (const std::string& socket : sockets)
                ::unlink(socket.c_str());
    }
    const std::vector<std::string>& sockets;
};

} // namespace

void setUpService(Serving& serving) {
    serving.shared = new (sharedMemory(sizeof(Shared))) Shared;
    serving.threads = {static_cast<pid_t*>(sharedMemory(kMostNumbers * sizeof(pid_t))), kMostNumbers};
    allowManyDescriptors();
    const std::string& runtime = serving.rules.runtimeDirectory;
    constexpr mode_t kMode = 0755;
    ::mkdir(runtime.c_str(), kMode);

    // Nobody answers yet: once the first mark is there, no file must be opened. And once it is there tools
    // must find the sockets.
    const Served served = fileSystemsOf(serving.directories);
    const int parked = parkedGroup();
    PreContentGroup group = openGroup(parked); // who must not have one is to hear that first
    for (const auto& [fileSystem, directory] : served)
        serving.descriptors.locks.push_back(lockFileSystem(socketPath(runtime, fileSystem), directory));
    // A parked group has the marks of what was served before, and does not ask about files that tools may
    // have made stubs since. Until it does, the sockets that are left keep them from that.
    if (parked >= 0)
        refuseForgotten(group);
    group.heedAll();
    const SocketsOfAFailure sockets(serving.sockets);
    for (const auto& [fileSystem, directory] : served) {
        serving.sockets.push_back(socketPath(runtime, fileSystem));
        serving.descriptors.listeners.push_back(ControlSocket::listen(serving.sockets.back()).release());
    }
    const bool parks = mayBeParked(served, runtime);
    if (!parks)
        tell("readers will not wait if all processes die: "
             "the program, its configuration or its sockets lie on a file system that is served");
    for (const auto& [fileSystem, directory] : served)
        mark(group, directory);
    requireToBeAlone(served);
    forget(group, served, runtime);
    group.ignore(STDERR_FILENO); // perhaps a file there, to which whoever has nobody to answer him writes
    serving.descriptors.group = ::fcntl(group.descriptor(), F_DUPFD, STDERR_FILENO + 1);
    if (parks)
        ::sd_pid_notify_with_fds(0, 0, "FDSTORE=1\nFDNAME=events", &serving.descriptors.group, 1);
}
