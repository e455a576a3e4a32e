/// @file
/// What locks have in common.

#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <pthread.h>

/// A span of time.
struct CTimeInterval {
    int64_t milliseconds = 0; ///< its length
};

/// The id of the calling thread.
inline pthread_t GetCurrentThreadId() {
    return pthread_self();
}

/// What can be locked, and which thread locked it last.
class QZHSM_API FXLockableResource {
public:
    FXLockableResource() = default;
    FXLockableResource(const FXLockableResource&) = delete;
    FXLockableResource& operator=(const FXLockableResource&) = delete;
    virtual ~FXLockableResource();

    /// One attempt: true if the lock was taken. Its holder may take it again, and then has to unlock it as
    /// often; nobody else may unlock it.
    virtual bool TryLock() = 0;
    /// The base makes one attempt without waiting, whatever the timeout.
    virtual bool TryLock(CTimeInterval timeout) = 0;
    /// Waits for the lock as long as it takes.
    virtual void Lock() = 0;
    /// Undoes one `Lock`, or one `TryLock` that took the lock. REQUIRES: the calling thread holds it.
    virtual void Unlock() = 0;

    /// The lower 32 bits of the id of the thread that took the lock last; 0 when it is free.
    uint32_t GetOwnerThreadId() const { return m_ownerThreadId; }
    /// Notes the calling thread as owner: for the lock's own code, once it has taken it.
    void SetLockOwner() { m_ownerThreadId = static_cast<uint32_t>(GetCurrentThreadId()); }
    /// Notes that the lock is free: for the lock's own code, before it releases it.
    void ClearLockOwner() { m_ownerThreadId = 0; }

private:
    uint32_t m_ownerThreadId = 0;
};
