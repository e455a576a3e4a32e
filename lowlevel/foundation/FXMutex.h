#pragma once

#include "lowlevel/foundation/FXLockableResource.h"

/// A recursive mutex that counts how often its holder has taken it. Destroyed while held, it is released
/// completely.
class QZHSM_API FXMutex : public FXLockableResource {
public:
    FXMutex();
    ~FXMutex() override;

    bool TryLock() override;
    /// One attempt without waiting; the timeout has no effect.
    bool TryLock(CTimeInterval timeout) override;
    /// A failure of the system's lock changes nothing and is not reported.
    void Lock() override;
    /// Unlocks once. Of a free mutex only the system's unlock is called.
    void Unlock() override;
    /// Makes the mutex anew: 0, or the system's error. To be called on a free mutex only.
    virtual int Init();

private:
    QZHSM_HIDDEN void taken();

    pthread_mutex_t m_mutex;
    int32_t m_lockCount = 0;
};
