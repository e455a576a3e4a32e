#pragma once

#include "service/Walk.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// Walks that go on at once, a thread each, and share the directories that they find; the first is the
/// calling thread's. A few directories wait for whoever has nothing to do. Beyond these a walk enters itself
/// what it finds, so that a tree of any size takes no more memory. What a visitor throws ends all walks.
///
/// One walk alone hands out files in the order of their directories, several do so in no order.
class SharedWalk {
public:
    /// The walks live as long as this does, and nobody else uses them.
    explicit SharedWalk(std::vector<Walk*> walks);
    SharedWalk(const SharedWalk&) = delete;
    SharedWalk& operator=(const SharedWalk&) = delete;
    ~SharedWalk();

    /// Other threads may still walk below the path when this returns.
    void from(const std::string& path);
    /// Walks on until all is walked. Nothing can be begun from then on.
    void finish();

private:
    void serve(Walk& walk);
    std::optional<FoundDirectory> next();
    bool take(FoundDirectory& found);
    void end();
    void rethrow();

    std::vector<Walk*> m_walks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<FoundDirectory> m_found;
    size_t m_idle = 0;
    std::atomic<bool> m_isFull = false; ///< asked without the lock
    std::atomic<bool> m_ended = false;
    std::exception_ptr m_failure;
    std::vector<std::jthread> m_threads;
};
