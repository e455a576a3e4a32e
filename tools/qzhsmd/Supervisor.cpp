#include "tools/qzhsmd/Supervisor.h"

#include "platform/stub/StubAttributes.h"
#include "service/Failure.h"
#include "tools/qzhsmd/Worker.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

constexpr auto kPause = std::chrono::seconds(1);

/// A child that shares the descriptors. The kernel notes its descriptor before the child runs, so that
/// whoever takes the place of this process, if it is killed now, finds the child.
pid_t startProcess(std::atomic<int>* note) {
    static_assert(sizeof *note == sizeof(int));
    const unsigned long flags = CLONE_FILES | SIGCHLD | (note ? CLONE_PIDFD : 0);
    const auto pid = static_cast<pid_t>(::syscall(SYS_clone, flags, 0, note, 0, 0));
    if (pid < 0 && note)
        *note = -1;
    return pid;
}

void sendSignal(int process, int signal) {
    if (process >= 0)
        ::syscall(SYS_pidfd_send_signal, process, signal, nullptr, 0);
}

bool isPlain(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        return false;
    return !S_ISREG(st.st_mode) || (::fgetxattr(fd, kStubMark, nullptr, 0) < 0 && errno == ENODATA);
}

void refuseStub(PreContentGroup& group, int fd) {
    if (isPlain(fd))
        group.allow(fd);
    else
        group.deny(fd, EIO);
}

} // namespace

Supervisor::Supervisor(Serving& serving) : m_serving(serving), m_shared(*serving.shared) {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        ::sigaddset(&signals, signal);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signals = UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)); // shows each process its own
    if (!m_signals.isOpen())
        throw systemFailure("Failed to wait for signals", "", errno);
    beginWatching();
}

void Supervisor::beginWatching() {
    const int own = static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0));
    if (const int former = m_shared.supervisor.exchange(own); former >= 0)
        ::close(former);
}

void Supervisor::run() {
    while (!m_shared.hasEnded || m_shared.worker >= 0) {
        if (m_shared.worker < 0 && Clock::now() >= m_again && !startWorker()) {
            refuseHeld();
            if (m_shared.isToEnd)
                break;
        }
        if (m_shared.standby < 0 && startStandby())
            continue;
        wait();
    }
    // A worker that died has not done this. The group may live on without us.
    withGroup([](PreContentGroup& group) { group.heedAll(); });
    removeSockets(m_serving);
    refuseNew();
    sendSignal(m_shared.standby, SIGKILL);
}

// --- The worker ---

/// What a worker that died has left. Whoever takes the place of this process does not know of it.
void Supervisor::findDescriptors() {
    const auto& locks = m_serving.descriptors.locks;
    m_serving.descriptors = Descriptors::find(
        {locks.begin(), locks.end()}, {m_signals.get(), m_shared.supervisor.load(), m_shared.standby.load()});
}

bool Supervisor::startWorker() {
    m_began = Clock::now();
    if (m_serving.isAgain)
        findDescriptors();
    const pid_t pid = startProcess(&m_shared.worker);
    if (pid < 0) {
        m_again = m_began + kPause;
        if (!std::exchange(m_complained, true))
            tell(systemFailure("Failed to start a worker", "", errno).what());
        return false;
    }
    if (pid > 0) {
        if (!std::exchange(m_serving.isAgain, true))
            tellReady();
        if (m_shared.isToEnd) // the one before was told so, and died
            sendSignal(m_shared.worker, SIGTERM);
        return true;
    }
    // Whoever starts the next one must not wait until a dump of this one is written, perhaps to a file system
    // whose accesses this one was to answer.
    ::prctl(PR_SET_DUMPABLE, 0);
    // In a thread: the C library does not know that the first one has a number of its own now. Whatever fails
    // aborts the process, and closes nothing on the way: the descriptors are needed by the next one.
    try {
        std::thread([this] { runWorker(m_serving); }).join();
    } catch (const std::exception& error) {
        tell(std::string("Failed to start a thread: ") + error.what());
        std::abort();
    }
    ::_exit(0);
}

void Supervisor::workerHasDied() {
    siginfo_t how{}; // stays empty if another process has started it
    ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(m_shared.worker.load()), &how, WEXITED);
    ::close(m_shared.worker.exchange(-1));
    if (m_shared.hasEnded)
        return;
    tell("the worker was ended" +
         (how.si_pid == 0 ? std::string() : " by signal " + std::to_string(how.si_status)) +
         "; another takes its place");
    findDescriptors();
    constexpr auto kLongLife = std::chrono::minutes(10);
    constexpr int kMostCrashes = 5;
    if (Clock::now() - m_began > kLongLife)
        m_crashes = 0;
    const bool isCrash = how.si_pid != 0 && how.si_status != SIGKILL;
    if (!isCrash || ++m_crashes < kMostCrashes)
        return;
    m_crashes = 0;
    m_again = Clock::now() + kPause;
    refuseHeld(); // what is held may be what kills it
    if (m_shared.isToEnd)
        m_shared.hasEnded = true;
}

void Supervisor::tellReady() const {
    for (const std::string& directory : m_serving.directories)
        std::cout << "qzhsmd: serving " << directory << std::endl;
    ::sd_notify(0, "READY=1");
}

// --- The standby ---

/// True in the standby, once it has taken this process's place. It becomes a child of init: the worker is
/// this process's only one, by which it can be found.
bool Supervisor::startStandby() {
    const pid_t between = startProcess(nullptr);
    if (between == 0) {
        if (startProcess(&m_shared.standby) != 0)
            ::_exit(0);
        standBy();
        return true;
    }
    if (between > 0)
        ::waitpid(between, nullptr, 0);
    if (m_shared.standby < 0 && !std::exchange(m_complained, true))
        tell("nobody watches over this process: no other one can be started");
    return false;
}

void Supervisor::standBy() {
    ::prctl(PR_SET_NAME, "qzhsmd-standby");
    pollfd supervisor{m_shared.supervisor, POLLIN, 0};
    while (::poll(&supervisor, 1, -1) != 1) {
    }
    ::prctl(PR_SET_NAME, "qzhsmd");
    beginWatching();
    ::close(m_shared.standby.exchange(-1)); // this process
    m_began = Clock::now();
    ::sd_notifyf(0, "MAINPID=%d", ::getpid());
    tell("the process that watched over the worker has died; another has taken its place");
}

// --- Waiting ---

void Supervisor::wait() {
    const bool isAlone = m_shared.worker < 0;
    enum { kSignals, kWorker, kStandby, kGroup };
    std::array<pollfd, 4> waiting{{{m_signals.get(), POLLIN, 0},
                                   {m_shared.worker, POLLIN, 0},
                                   {m_shared.standby, POLLIN, 0},
                                   {isAlone ? m_serving.descriptors.group : -1, POLLIN, 0}}};
    const bool isComplete = !isAlone && m_shared.standby >= 0;
    const int most = static_cast<int>(std::chrono::milliseconds(kPause).count());
    if (::poll(waiting.data(), waiting.size(), isComplete ? -1 : most) <= 0)
        return;
    if (waiting[kSignals].revents != 0)
        takeSignals();
    if (waiting[kWorker].revents != 0)
        workerHasDied();
    if (waiting[kStandby].revents != 0)
        ::close(m_shared.standby.exchange(-1));
    if (waiting[kGroup].revents != 0)
        refuseNew();
}

void Supervisor::takeSignals() {
    signalfd_siginfo info{};
    while (::read(m_signals.get(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGCHLD)
            continue;
        if (info.ssi_signo != SIGHUP)
            m_shared.isToEnd = true;
        sendSignal(m_shared.worker, static_cast<int>(info.ssi_signo));
    }
}

// --- While nobody brings data ---

void Supervisor::withGroup(const std::function<void(PreContentGroup&)>& act) const {
    PreContentGroup group(UniqueFd(::fcntl(m_serving.descriptors.group, F_DUPFD_CLOEXEC, 0)),
                          m_serving.threads);
    act(group);
}

void Supervisor::refuseHeld() {
    withGroup([&](PreContentGroup& group) {
        for (const int fd : std::exchange(m_serving.descriptors.held, {}))
            refuseStub(group, fd);
    });
}

void Supervisor::refuseNew() {
    withGroup([](PreContentGroup& group) {
        std::vector<HeldAccess> held;
        while (group.read(held) == 0)
            for (const HeldAccess& access : std::exchange(held, {}))
                refuseStub(group, access.fd);
    });
}
