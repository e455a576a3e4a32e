#pragma once

#include "service/serve/ServeRules.h"
#include "tools/qzhsmd/Descriptors.h"

#include <atomic>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

/// Tells on standard error.
void tell(const std::string& text);

/// What each process of the service reads and writes, whoever started it: it lies in memory that all share.
/// The first three are descriptors of processes (pidfd), or -1.
struct Shared {
    std::atomic<int> supervisor{-1};
    std::atomic<int> standby{-1};
    std::atomic<int> worker{-1};
    std::atomic<bool> isToEnd{false};  ///< somebody has asked for that
    std::atomic<bool> hasEnded{false}; ///< the worker has come to its end in order
};

/// What each process knows when it is started.
struct Serving {
    ServeRules rules;
    std::vector<std::string> directories;
    std::vector<std::string> sockets; ///< their paths
    Descriptors descriptors;
    Shared* shared = nullptr;
    std::span<pid_t> threads; ///< that wait, by the number of their access; shared like that
    bool isAgain = false;     ///< another worker has served before
};

/// A tool that finds them gone tells nobody of the files that it makes stubs: none may be ignored any more.
void removeSockets(const Serving& serving);
