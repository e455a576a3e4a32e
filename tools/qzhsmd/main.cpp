#include "platform/stub/StubMark.h"
#include "platform/watch/PreContentGroup.h"
#include "service/ConfigCheck.h"
#include "service/FileIo.h"
#include "service/serve/ControlSocket.h"
#include "tools/qzhsmd/Worker.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <sched.h>
#include <set>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* kParkedName = "events";

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
    constexpr rlim_t kMost = 1 << 20;
    for (rlim_t number = 0; number < std::min(limit.rlim_cur, kMost); ++number)
        group.denyNumber(static_cast<int>(number), EIO);
}

PreContentGroup openGroup() {
    const int parked = parkedGroup();
    if (parked >= 0) {
        PreContentGroup group{UniqueFd(::fcntl(parked, F_DUPFD, STDERR_FILENO + 1))};
        ::close(parked);
        refuseForgotten(group);
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

/// A second service on the same file system would answer the first one's readers.
int lockFileSystem(const std::string& runtimeDirectory, dev_t device, const std::string& directory) {
    const std::string path = socketPath(runtimeDirectory, device) + ".lock";
    const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (lock < 0)
        throw systemFailure("Failed to open ", path, errno);
    if (::flock(lock, LOCK_EX | LOCK_NB) < 0)
        throw Failure(QZHSM_BUSY, "The file system of " + directory + " is served already");
    return lock;
}

void serveDirectory(const std::string& directory, PreContentGroup& group, std::set<dev_t>& served,
                    Serving& serving) {
    struct stat st {};
    if (::stat(directory.c_str(), &st) < 0)
        throw systemFailure("Failed to stat ", directory, errno);
    if (!S_ISDIR(st.st_mode))
        throw systemFailure("Failed to serve ", directory, ENOTDIR);
    if (!served.insert(st.st_dev).second)
        return;
    if (::getxattr(directory.c_str(), kStubMark, nullptr, 0) < 0 && errno == EOPNOTSUPP)
        throw Failure(QZHSM_FAILURE, "The file system of " + directory + " has no user attributes");
    const std::string& runtime = serving.rules.runtimeDirectory;
    serving.descriptors.locks.push_back(lockFileSystem(runtime, st.st_dev, directory));
    const int err = group.mark(directory);
    if (err == EINVAL || err == EOPNOTSUPP)
        throw Failure(QZHSM_FAILURE,
                      "The kernel has no pre-content events for the file system of " + directory,
                      "It takes Linux 6.14 and ext4, xfs or btrfs.");
    if (err != 0)
        throw systemFailure("Failed to watch ", directory, err);
    serving.descriptors.listeners.push_back(ControlSocket::listen(socketPath(runtime, st.st_dev)).release());
}

void say(const std::string& text) {
    std::cout << "qzhsmd: " << text << std::endl;
}

void complain(const std::string& text) {
    std::cerr << "qzhsmd: " << text << std::endl;
}

void begin(Serving& serving) {
    allowManyDescriptors();
    PreContentGroup group = openGroup();
    const UniqueFd tools = lockOutTools(serving.rules.runtimeDirectory);
    std::set<dev_t> served;
    for (const std::string& directory : serving.directories)
        serveDirectory(directory, group, served, serving);
    serving.descriptors.group = ::fcntl(group.descriptor(), F_DUPFD, STDERR_FILENO + 1);
    for (const std::string& directory : serving.directories)
        say("serving " + directory);
    ::sd_pid_notify_with_fds(0, 0, "FDSTORE=1\nFDNAME=events", &serving.descriptors.group, 1);
}

/// Rules that a worker has read again died with it. Where the sockets lie stays.
void readRulesAgain(Serving& serving) {
    try {
        const std::string runtimeDirectory = serving.rules.runtimeDirectory;
        serving.rules = ServeRules::read();
        serving.rules.runtimeDirectory = runtimeDirectory;
    } catch (const Failure& failure) {
        complain(failure.what());
    }
}

/// A child that shares this process's descriptors. This one has a single thread, so the child may do
/// anything.
pid_t startWorker(Serving& serving) {
    serving.guard = ::getpid();
    const auto pid = static_cast<pid_t>(::syscall(SYS_clone, CLONE_FILES | SIGCHLD, 0, 0, 0, 0));
    if (pid != 0)
        return pid;
    // In a thread: the C library does not know that the first one has a number of its own now. What fails
    // there aborts the process, and closes nothing on the way: the descriptors are needed by the next one.
    std::thread([&] { work(serving); }).join();
    ::_exit(0);
}

/// Starts workers, one after the other, until one has come to its end. Readers wait meanwhile, but not for
/// ever: if workers fail again and again, they get an error.
void watchOver(Serving& serving) {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        ::sigaddset(&signals, signal);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    constexpr auto kSoon = std::chrono::seconds(1);
    const auto refuseHeld = [&] {
        PreContentGroup group{UniqueFd(::fcntl(serving.descriptors.group, F_DUPFD_CLOEXEC, 0))};
        for (const int fd : std::exchange(serving.descriptors.held, {}))
            group.deny(fd, EIO);
        std::this_thread::sleep_for(kSoon);
    };
    constexpr int kMostDeaths = 5;
    for (int deaths = 0;;) {
        const auto began = std::chrono::steady_clock::now();
        const pid_t worker = startWorker(serving);
        if (worker < 0) {
            complain(systemFailure("Failed to start a process", "", errno).what());
            refuseHeld();
            continue;
        }
        ::sd_notify(0, "READY=1");
        int status = 0;
        while (::waitpid(worker, &status, WNOHANG) == 0) {
            const int signal = ::sigwaitinfo(&signals, nullptr);
            if (signal > 0 && signal != SIGCHLD)
                ::kill(worker, signal);
        }
        if (WIFEXITED(status))
            return;
        complain("the worker was ended by signal " + std::to_string(WTERMSIG(status)) +
                 "; another takes its place");
        serving.descriptors = Descriptors::find();
        readRulesAgain(serving);
        const bool isCrash = WTERMSIG(status) != SIGKILL;
        deaths = isCrash && std::chrono::steady_clock::now() - began < kSoon ? deaths + 1 : 0;
        if (deaths < kMostDeaths)
            continue;
        deaths = 0;
        refuseHeld(); // what is held may be what kills it
    }
}

int run(int argc, char** argv) {
    CLI::App app("Recalls stubs when they are read", "qzhsmd");
    Serving serving;
    bool takesOver = false;
    app.set_version_flag("--version", "qzhsmd " QZHSM_VERSION);
    app.add_flag("--take-over", takesOver)->group("");
    app.add_option("DIR", serving.directories, "Directories whose file systems are served")
        ->required()
        ->option_text("...");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& call) {
        return app.exit(call);
    } catch (const CLI::ParseError& error) {
        complain(error.what());
        constexpr int kWrongUsage = 2;
        return kWrongUsage;
    }
    for (std::string& directory : serving.directories) // whoever asks for the status may stand elsewhere
        directory = std::filesystem::absolute(directory).lexically_normal();
    for (const std::string& warning : configWarnings())
        complain(warning);
    if (takesOver) {
        ::prctl(PR_SET_NAME, "qzhsmd"); // it was executed by another name
        ::sd_notifyf(0, "MAINPID=%d", ::getpid());
        serving.descriptors = Descriptors::find();
        readRulesAgain(serving); // readers do not pay for a mistake in them
    } else {
        serving.rules = ServeRules::read();
        begin(serving);
    }
    watchOver(serving);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const Failure& failure) {
        complain(failure.what());
        if (!failure.advice().empty())
            complain(failure.advice());
    } catch (const std::exception& error) {
        complain(error.what());
    }
    return 1;
}
