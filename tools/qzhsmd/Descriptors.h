#pragma once

#include <set>
#include <vector>

/// The descriptors that outlive a process of the service: all its processes share one table. Numbers, without
/// an owner: they are closed when the last process has ended.
struct Descriptors {
    int group = -1;               ///< of the kernel's events
    std::vector<int> locks;       ///< one for each file system, against a second service
    std::vector<int> listeners;   ///< of the control sockets
    std::vector<int> connections; ///< to programs that are not held up
    std::vector<int> held;        ///< accesses without an answer

    /// Finds them among all that are open, of which the locks are known, and closes what else a worker that
    /// died has left, but not `others`.
    static Descriptors find(const std::set<int>& locks, const std::set<int>& others);
};
