#pragma once

#include "lowlevel/foundation/FXLockableResource.h"

/// Holds a lock within a scope, and releases only what it took. A null resource is never locked.
class auto_lock {
public:
    /// Waits for the lock, unless told to leave that to `Lock`.
    explicit auto_lock(FXLockableResource* resource, bool lockNow = true) : m_resource(resource) {
        if (lockNow)
            Lock();
    }
    auto_lock(const auto_lock&) = delete;
    auto_lock& operator=(const auto_lock&) = delete;
    ~auto_lock() { Unlock(); }

    /// Waits for the lock; does nothing if this object has taken it already.
    void Lock() {
        if (!m_resource || m_locked)
            return;
        m_resource->Lock();
        m_locked = true;
    }
    /// Releases the lock if this object has taken it.
    void Unlock() {
        if (!m_resource || !m_locked)
            return;
        m_resource->Unlock();
        m_locked = false;
    }

private:
    FXLockableResource* m_resource;
    bool m_locked = false;
};
