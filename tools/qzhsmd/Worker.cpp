#include "tools/qzhsmd/Worker.h"

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "service/ConfigCheck.h"
#include "service/serve/ControlSocket.h"
#include "service/serve/RecallRunner.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <list>
#include <poll.h>
#include <sched.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

constexpr int kKindDriverless = 2;

UniqueFd openProcess(pid_t process) {
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

/// A back-end for each thread, as they are not to be shared.
class Runner {
public:
    Runner(RecallService& service, NamedStores& stores)
        : m_registry(kKindDriverless), m_kind(kindOf(*m_registry.getByFileName(""))),
          m_runner(service, *m_kind, stores), m_thread([this] { m_runner.run(); }) {}

private:
    QZHSMLowLevelCtx m_registry;
    std::unique_ptr<StubKind> m_kind;
    RecallRunner m_runner;
    std::jthread m_thread;
};

/// Waits, in a process of its own that shares the descriptors, for the end of this process, and then takes
/// over. This process has threads, so that the child may only make system calls until it executes the program
/// anew.
class Standby {
public:
    explicit Standby(const std::vector<std::string>& directories)
        : m_arguments(takeOverArguments(directories)) {
        for (std::string& argument : m_arguments)
            m_argv.push_back(argument.data());
        m_argv.push_back(nullptr);
    }
    ~Standby() { end(); }
    Standby(const Standby&) = delete;
    Standby& operator=(const Standby&) = delete;

    /// False if there are not the means.
    bool start() {
        end();
        m_worker = openProcess(::getpid());
        pollfd worker{m_worker.get(), POLLIN, 0};
        m_pid = static_cast<pid_t>(::syscall(SYS_clone, CLONE_FILES | SIGCHLD, 0, 0, 0, 0));
        if (m_pid == 0) {
            while (::poll(&worker, 1, -1) != 1) {
            }
            ::execv("/proc/self/exe", m_argv.data());
            ::_exit(1);
        }
        return m_pid > 0;
    }

    pid_t pid() const { return m_pid; }

private:
    void end() {
        if (m_pid <= 0)
            return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

    std::vector<std::string> m_arguments;
    std::vector<char*> m_argv;
    UniqueFd m_worker; ///< the standby waits on it
    pid_t m_pid = -1;
};

/// Waits for what is to be done beside serving, and does it.
class Control {
public:
    Control(RecallService& service, const Serving& serving)
        : m_service(service), m_socket(service, serving.directories), m_standby(serving.directories),
          m_guard(openProcess(serving.guard)) {
        sigset_t signals;
        ::sigemptyset(&signals);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP})
            ::sigaddset(&signals, signal);
        m_signals = UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!m_signals.isOpen())
            throw systemFailure("Failed to wait for signals", "", errno);
        for (const int fd : serving.descriptors.listeners)
            m_socket.addListener(UniqueFd(fd));
        for (const int fd : serving.descriptors.connections)
            m_socket.takeOver(UniqueFd(fd));
    }

    /// Returns when the service is to end.
    void run() {
        const RecallService::OwnThread own(m_service);
        constexpr int kAgain = 1000; // milliseconds
        for (;;) {
            if (!m_guard.isOpen())
                replaceGuard();
            std::vector<int> fds{m_signals.get(), m_guard.get()};
            m_socket.addTo(fds);
            std::vector<pollfd> waiting;
            waiting.reserve(fds.size());
            for (const int fd : fds)
                waiting.push_back({fd, POLLIN, 0});
            if (::poll(waiting.data(), waiting.size(), m_guard.isOpen() ? -1 : kAgain) <= 0)
                continue;
            if (waiting[0].revents != 0 && takeSignals())
                return;
            if (waiting[1].revents != 0)
                m_guard = UniqueFd();
            for (size_t i = 2; i < waiting.size(); ++i)
                if (waiting[i].revents != 0)
                    m_socket.serve(waiting[i].fd);
        }
    }

private:
    bool takeSignals() {
        signalfd_siginfo info{};
        while (::read(m_signals.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo != SIGHUP)
                return true;
            try {
                m_service.setRules(ServeRules::read());
                RecallService::log("the configuration was read again");
                for (const std::string& warning : configWarnings())
                    RecallService::log(warning);
            } catch (const Failure& failure) {
                RecallService::log(failure.what());
            }
        }
        return false;
    }

    void replaceGuard() {
        if (!m_standby.start())
            return RecallService::log("nobody watches over this process: no other one can be started");
        m_guard = openProcess(m_standby.pid());
        RecallService::log("the process that watched over this one has died; another has taken its place");
        ::sd_notifyf(0, "MAINPID=%d", ::getpid());
    }

    RecallService& m_service;
    ControlSocket m_socket;
    Standby m_standby;
    UniqueFd m_guard;
    UniqueFd m_signals;
};

} // namespace

std::vector<std::string> takeOverArguments(const std::vector<std::string>& directories) {
    std::vector<std::string> arguments{"qzhsmd", "--take-over"};
    arguments.insert(arguments.end(), directories.begin(), directories.end());
    return arguments;
}

void work(Serving& serving) {
    PreContentGroup group{UniqueFd(serving.descriptors.group)};
    RecallService service(group, serving.rules);
    service.takeOver(serving.descriptors.held);
    Control control(service, serving); // knows whom not to hold up, so before the first access is looked at
    service.start();
    {
        NamedStores stores;
        std::list<Runner> runners;
        for (int i = 0; i < serving.rules.workers; ++i)
            runners.emplace_back(service, stores);
        control.run();
        RecallService::log("ending");
        service.stop();
    }
}
