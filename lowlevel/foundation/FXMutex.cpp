#include "lowlevel/foundation/FXMutex.h"

FXLockableResource::~FXLockableResource() = default;

bool FXLockableResource::TryLock(CTimeInterval) {
    return TryLock();
}

FXMutex::FXMutex() {
    FXMutex::Init();
}

// The system's mutex is not destroyed: another thread may still stand in its unlock, and on Linux a mutex
// and its attributes hold nothing that would be lost.
FXMutex::~FXMutex() {
    while (m_lockCount > 0)
        FXMutex::Unlock();
}

int FXMutex::Init() {
    ClearLockOwner();
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    return pthread_mutex_init(&m_mutex, &attributes);
}

bool FXMutex::TryLock() {
    if (pthread_mutex_trylock(&m_mutex) != 0)
        return false;
    taken();
    return true;
}

bool FXMutex::TryLock(CTimeInterval timeout) {
    return FXLockableResource::TryLock(timeout);
}

void FXMutex::Lock() {
    if (pthread_mutex_lock(&m_mutex) == 0)
        taken();
}

void FXMutex::Unlock() {
    if (m_lockCount != 0 && --m_lockCount <= 0)
        ClearLockOwner();
    pthread_mutex_unlock(&m_mutex);
}

void FXMutex::taken() {
    ++m_lockCount;
    SetLockOwner();
}
