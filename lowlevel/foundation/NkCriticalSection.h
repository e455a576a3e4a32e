#pragma once

#include "platform/process/NkCriticalSectionH.h"

#include <memory>
#include <utility>

/// A lock that its holder may take again.
class NkCriticalSection {
public:
    /// With a handle of its own.
    NkCriticalSection() : m_handle(std::make_unique<NkCriticalSectionH>()) {}
    /// With a null handle `enter` and `leave` do nothing.
    explicit NkCriticalSection(std::unique_ptr<NkCriticalSectionH> handle) : m_handle(std::move(handle)) {}

    /// True once inside. Without `wait`, false at once if another thread is inside.
    bool enter(bool wait) { return !m_handle || m_handle->enter(wait); }
    /// Undoes one `enter`. REQUIRES: the calling thread is inside.
    void leave() {
        if (m_handle)
            m_handle->leave();
    }

private:
    std::unique_ptr<NkCriticalSectionH> m_handle;
};

/// Holds a critical section from construction to destruction; with null it does nothing.
class NkCriticalSectionLock {
public:
    /// Waits until it is inside.
    explicit NkCriticalSectionLock(NkCriticalSection* cs) : m_cs(cs) {
        if (m_cs)
            m_cs->enter(true);
    }
    NkCriticalSectionLock(const NkCriticalSectionLock&) = delete;
    NkCriticalSectionLock& operator=(const NkCriticalSectionLock&) = delete;
    ~NkCriticalSectionLock() {
        if (m_cs)
            m_cs->leave();
    }

private:
    NkCriticalSection* m_cs;
};
