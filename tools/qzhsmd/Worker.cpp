#include "tools/qzhsmd/Worker.h"

#include "service/ConfigCheck.h"
#include "service/serve/ControlSocket.h"
#include "service/serve/RecallRunner.h"

#include <cerrno>
#include <csignal>
#include <list>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

class Runner {
public:
    Runner(RecallService& service, NamedStores& stores)
        : m_runner(service, stores), m_thread([this] { m_runner.run(); }) {}

private:
    RecallRunner m_runner;
    std::jthread m_thread;
};

/// Waits for what is to be done beside serving, and does it.
class Control {
public:
    Control(RecallService& service, const Serving& serving)
        : m_service(service), m_socket(service, serving.directories) {
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
        for (;;) {
            std::vector<int> fds{m_signals.get()};
            m_socket.addTo(fds);
            std::vector<pollfd> waiting;
            waiting.reserve(fds.size());
            for (const int fd : fds)
                waiting.push_back({fd, POLLIN, 0});
            if (::poll(waiting.data(), waiting.size(), -1) <= 0)
                continue;
            if (waiting[0].revents != 0 && takeSignals())
                return;
            for (size_t i = 1; i < waiting.size(); ++i)
                if (waiting[i].revents != 0)
                    m_socket.serve(waiting[i].fd);
        }
    }

    void readRules() {
        try {
            m_service.setRules(ServeRules::read());
            RecallService::log("the configuration was read again");
            for (const std::string& warning : configWarnings())
                RecallService::log(warning);
        } catch (const Failure& failure) {
            RecallService::log(failure.what());
        }
    }

private:
    bool takeSignals() {
        signalfd_siginfo info{};
        while (::read(m_signals.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo != SIGHUP)
                return true;
            readRules();
        }
        return false;
    }

    RecallService& m_service;
    ControlSocket m_socket;
    UniqueFd m_signals;
};

} // namespace

void runWorker(Serving& serving) {
    PreContentGroup group(UniqueFd(serving.descriptors.group), serving.threads);
    RecallService service(group, serving.rules);
    std::optional<Control> control(
        std::in_place, service,
        serving); // knows whom not to hold up, so before the first access is looked at
    service.takeOver(serving.descriptors.held);
    service.start();
    // From here on accesses are answered, those of this process too: it may open files. What a worker that
    // died had read anew has died with it.
    if (serving.isAgain)
        control->readRules();
    {
        NamedStores stores;
        std::list<Runner> runners;
        for (int i = 0; i < serving.rules.workers; ++i)
            runners.emplace_back(service, stores);
        control->run();
        RecallService::log("ending");
        service.stop();
        // No tool has to tell of files any more, and those that wait for an answer see that.
        removeSockets(serving);
        control.reset();
    }
    serving.shared->hasEnded = true; // then the group is closed
}
