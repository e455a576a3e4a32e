#include "lowlevel/foundation/FXMutex.h"

#include "lowlevel/foundation/NkCriticalSection.h"
#include "lowlevel/foundation/auto_lock.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

/// Whether another thread can take what this one may hold.
bool isFree(FXMutex& mutex) {
    bool taken = false;
    std::thread([&] {
        taken = mutex.TryLock(CTimeInterval{60'000});
        if (taken)
            mutex.Unlock();
    }).join();
    return taken;
}

/// Counts on two threads, each step with a lock in its scope.
template <class MakeLock>
void expectCountRight(MakeLock makeLock) {
    long counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 20'000; ++i) {
            const auto lock = makeLock();
            ++counter;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counter, 40'000);
}

} // namespace

TEST(FXMutex, IsRecursiveAndCounted) {
    FXMutex mutex;
    {
        auto_lock outer(&mutex, false);
        EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
        outer.Lock();
        outer.Lock();
        {
            auto_lock inner(&mutex, true);
            EXPECT_TRUE(mutex.TryLock());
            mutex.Unlock();
            inner.Unlock(); // and not once more at its end
            const auto_lock never(&mutex, false);
        }
        EXPECT_EQ(mutex.GetOwnerThreadId(), static_cast<uint32_t>(GetCurrentThreadId()));
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
    EXPECT_TRUE(isFree(mutex));
    const auto_lock none(nullptr, true);
    expectCountRight([&] { return auto_lock(&mutex, true); });
}

#ifndef __SANITIZE_THREAD__ // which objects to what is asked here
TEST(FXMutex, SurvivesAStrayUnlock) {
    FXMutex mutex;
    mutex.Unlock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
    EXPECT_NE(mutex.GetOwnerThreadId(), 0U) << "held once";
    mutex.Unlock();
    EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
}
#endif

TEST(NkCriticalSection, LetsItsHolderInAgain) {
    NkCriticalSection section;
    {
        const NkCriticalSectionLock held(&section);
        const NkCriticalSectionLock nothing(nullptr);
        EXPECT_TRUE(section.enter(false)) << "again, by its holder";
        section.leave();
        std::thread([&] { EXPECT_FALSE(section.enter(false)); }).join();
    }
    expectCountRight([&] { return NkCriticalSectionLock(&section); });
    NkCriticalSection hollow(nullptr);
    EXPECT_TRUE(hollow.enter(true));
    hollow.leave();
}
