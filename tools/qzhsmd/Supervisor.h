#pragma once

#include "platform/files/UniqueFd.h"
#include "platform/watch/PreContentGroup.h"
#include "tools/qzhsmd/Serving.h"

#include <chrono>
#include <functional>

/// Keeps a worker running. Readers wait while there is none, but not for ever: if workers crash again and
/// again, or none can be started, they get an error.
///
/// There are three processes, which share their descriptors: the supervisor; a standby that takes its place
/// when it dies; and the worker. None of them executes a program, and all but the worker have a single thread
/// and open no file: the program, its libraries and its configuration may lie on the file system that is
/// served, and nobody would answer.
class Supervisor {
public:
    /// Throws `Failure` if the process has not the means.
    explicit Supervisor(Serving& serving);

    /// Until the service has come to its end. In the standby it returns then as well, and in no worker.
    void run();

private:
    using Clock = std::chrono::steady_clock;

    void findDescriptors();
    bool startWorker();
    void tellReady() const;
    void workerHasDied();
    bool startStandby();
    void standBy();
    void beginWatching();
    void wait();
    void takeSignals();
    void withGroup(const std::function<void(PreContentGroup&)>& act) const;
    void refuseHeld();
    void refuseNew();

    Serving& m_serving;
    Shared& m_shared;
    UniqueFd m_signals;
    int m_crashes = 0; ///< in a row
    Clock::time_point m_began{};
    Clock::time_point m_again{}; ///< no worker is started before
    bool m_complained = false;
};
