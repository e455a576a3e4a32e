#pragma once

#include "platform/files/UniqueFd.h"

#include <string>
#include <sys/types.h>
#include <vector>

/// "/run/qzhsm/8:1.sock" for instance.
std::string socketPath(const std::string& runtimeDirectory, dev_t device);

/// The other side: what a program of root's has to tell the services of a machine before it touches stubs.
/// Where none runs it does nothing.
class RecallServices {
public:
    /// Waits for a service that is just starting, and keeps others from starting while the object lives.
    /// Throws `Failure` if a service does not answer.
    explicit RecallServices(const std::string& runtimeDirectory);

    /// These files, open in this process, are about to become stubs.
    void heed(const std::vector<int>& files);

    bool areNone() const { return m_services.empty(); }

    /// What each service answers to "status" or "metrics". For callers that only ask.
    static std::vector<std::string> ask(const std::string& runtimeDirectory, const std::string& text);

private:
    UniqueFd m_lock;
    std::vector<UniqueFd> m_services;
};

/// Held by a service while it starts.
UniqueFd lockOutTools(const std::string& runtimeDirectory);
