#pragma once

#include <mutex>

/// The platform's lock behind a critical section; a thread that holds it may enter again.
class NkCriticalSectionH {
public:
    /// True once entered. Without `wait`, false at once if another thread is inside.
    bool enter(bool wait) {
        if (!wait)
            return m_mutex.try_lock();
        m_mutex.lock();
        return true;
    }
    /// Undoes one `enter`. REQUIRES: the calling thread is inside.
    void leave() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};
