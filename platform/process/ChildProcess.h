#pragma once

#include "platform/files/UniqueFd.h"

#include <sys/types.h>

/// A pipe whose ends lie beyond the standard descriptors, which may be closed in this process. A child gets
/// the end that `ChildProcess::start` hands it and no other.
class Pipe {
public:
    /// What fails leaves the pipe closed and the reason in errno.
    Pipe();

    bool isOpen() const { return reading.isOpen() && writing.isOpen(); }

    UniqueFd reading;
    UniqueFd writing;
};

/// A command that is running. Its owner waits for it.
class ChildProcess {
public:
    enum class Group {
        Ours, ///< what the terminal sends to this process reaches the command too
        Own,  ///< can be killed whole, with all that it started
    };

    ChildProcess() = default;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    /// Waits for the command; one in a group of its own is killed first, with all of the group.
    ~ChildProcess();

    /// Runs `/bin/sh -c COMMAND` with these standard descriptors, `inFd` -1 being an empty input, and nothing
    /// else of this process but its environment and working directory: no descriptor, no ignored or blocked
    /// signal. Descriptors must lie beyond the standard ones. What a start costs does not grow with this
    /// process's memory. 0, or an errno.
    int start(const char* command, int inFd, int outFd, int errFd, Group group = Group::Ours);

    /// A descriptor that poll finds readable once the command has ended; closed, with errno, if the system
    /// gives none.
    UniqueFd openEnd() const;
    /// Waits, and gives the status as waitpid does. False if somebody else has learned it.
    bool wait(int& status);

private:
    pid_t m_pid = -1;
    Group m_group = Group::Ours;
};
