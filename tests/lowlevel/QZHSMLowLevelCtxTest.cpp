#include "lowlevel/QZHSMLowLevelCtx.h"
#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "lowlevel/foundation/FXMutex.h"
#include "lowlevel/foundation/auto_lock.h"
#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "platform/errors/NkException.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

/// Stands in for "there is no such back-end" while it is false.
std::atomic<bool> driverCanBeMade{true};
std::atomic<int> made{0};
std::atomic<int> alive{0};
bool fails = false;

class Counted : public QZHSMLowLevelHadoop {
public:
    Counted() { ++alive; }
    ~Counted() override { --alive; }
};

} // namespace

// These stand in front of the library's own factories.

QZHSMLowLevel* createQZHSMLowLevelHadoop() {
    ++made;
    if (fails)
        throw NkException("Hadoop::Hadoop", "cannot be made", "Hadoop.cpp", 1, -1);
    return std::make_unique<Counted>().release();
}

QZHSMLowLevel* createQZHSMLowLevelQZFS() {
    return driverCanBeMade ? std::make_unique<Counted>().release() : nullptr;
}

TEST(Registry, MakesEachNameOnceAndDeletesAll) {
    made = 0;
    {
        QZHSMLowLevelCtx registry(3);
        QZHSMLowLevel* got[2] = {};
        std::thread other([&] { got[0] = registry.getByFSName("HADOOP_FS"); });
        got[1] = registry.getByFileName("/any");
        other.join();
        EXPECT_NE(got[0], nullptr);
        EXPECT_EQ(got[0], got[1]);
        EXPECT_EQ(made, 1);
        EXPECT_NE(registry.getByFSName("NK_ANYFS"), registry.getByFSName("NK_ARCHIVE_DELETE_FS"));
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST(Registry, TriesAgainAfterAFailure) {
    QZHSMLowLevelCtx registry(3);
    fails = true;
    CaptureStderr();
    EXPECT_EQ(registry.getByFSName("HADOOP_FS"), nullptr);
    fails = false;
    EXPECT_NE(GetCapturedStderr().find("[Hadoop::Hadoop] cannot be made\n"), std::string::npos);
    EXPECT_NE(registry.getByFSName("HADOOP_FS"), nullptr);
}

TEST(Registry, TwoArgumentFormKnowsTwoBackEnds) {
    QZHSMLowLevelCtx driverless(2);
    QZHSMLowLevel* any = driverless.getByFSName("HADOOP_FS", true);
    EXPECT_NE(any, nullptr);
    EXPECT_EQ(driverless.getByFSName("qzfs", false), any);
    EXPECT_EQ(driverless.getByFSName("NK_ANYFS"), any);

    driverCanBeMade = false;
    QZHSMLowLevelCtx either(0);
    CaptureStderr();
    QZHSMLowLevel* fallback = either.getByFSName("nk_anyfs", true);
    EXPECT_NE(fallback, nullptr);
    EXPECT_EQ(either.getByFSName("NK_ANYFS"), fallback);
    EXPECT_EQ(either.getByFSName("other", true), fallback);
    EXPECT_EQ(GetCapturedStderr(), "") << "falling back is no failure";

    QZHSMLowLevelCtx driver(1);
    CaptureStderr();
    EXPECT_EQ(driver.getByFSName("qzfs", true), nullptr);
    EXPECT_EQ(driver.getByFileName("/any"), nullptr);
    const std::string log = GetCapturedStderr();
    const std::string line = "[QZHSMLowLevelCtx::getByFSName] Creating  low level object failed\n";
    EXPECT_NE(log.find(line), log.rfind(line)) << log;

    driverCanBeMade = true;
    QZHSMLowLevel* other = driver.getByFSName("nk_anyfs", true);
    EXPECT_NE(other, nullptr) << "any other name is the filter driver's";
    EXPECT_EQ(driver.getByFSName("nk_anyfs"), other);
    EXPECT_NE(driver.getByFileName("/any"), other) << "cached under its own name";
    QZHSMLowLevelCtx both(0);
    QZHSMLowLevel* first = both.getByFSName("qzfs", true);
    EXPECT_NE(first, both.getByFSName("NK_ANYFS", true));
    EXPECT_EQ(first, both.getByFSName("qzfs", false));
}

TEST(Registry, NamesItsKind) {
    const std::pair<int, const char*> rows[] = {
        {-1, "archiver driver"}, {0, "archiver driver"}, {1, "archiver driver"},
        {2, "driverless"},       {3, "Hadoop"},          {4, "Lustre"},
        {5, "GlusterFS"},        {6, "ArhiveDelete"},    {7, "archiver driver"}};
    for (const auto& [kind, text] : rows)
        EXPECT_EQ(QZHSMLowLevelCtx(kind).AsString(), text) << kind;
    EXPECT_EQ(QZHSMLowLevelCtx(6).getByFileName("/any")->isDMRFS("/no/such/path"), 1);
}

TEST(StatFile, ThreadsDoNotShareAHelper) {
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([] {
            const std::unique_ptr<QZHSMLowLevel> backEnd(createQZHSMLowLevelDriverless());
            struct stat st {};
            for (int i = 0; i < 500; ++i) {
                EXPECT_EQ(backEnd->statFile("/", &st), 0);
                EXPECT_EQ(backEnd->statFile("/no/such/path", &st), -1);
                EXPECT_EQ(backEnd->m_errorCode, 4);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Locks, AreRecursiveAndCounted) {
    FXMutex mutex;
    const auto takenElsewhere = [&] {
        bool taken = false;
        std::thread([&] {
            taken = mutex.TryLock(CTimeInterval{60'000});
            if (taken)
                mutex.Unlock();
        }).join();
        return taken;
    };
    {
        auto_lock outer(&mutex, false);
        EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
        outer.Lock();
        outer.Lock();
        {
            const auto_lock inner(&mutex, true);
            EXPECT_TRUE(mutex.TryLock());
            mutex.Unlock();
        }
        EXPECT_EQ(mutex.GetOwnerThreadId(), static_cast<uint32_t>(GetCurrentThreadId()));
        EXPECT_FALSE(takenElsewhere());
    }
    EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
    EXPECT_TRUE(takenElsewhere());
    const auto_lock none(nullptr, true);

    NkCriticalSection section;
    const NkCriticalSectionLock held(&section);
    const NkCriticalSectionLock nothing(nullptr);
    EXPECT_TRUE(section.enter(false)) << "again, by its holder";
    section.leave();
    std::thread([&] { EXPECT_FALSE(section.enter(false)); }).join();
    NkCriticalSection hollow(nullptr);
    EXPECT_TRUE(hollow.enter(true));
    hollow.leave();
}

TEST(Locks, KeepACounterRight) {
    FXMutex mutex;
    long counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 10'000; ++i) {
            const auto_lock lock(&mutex, true);
            ++counter;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(counter, 20'000);
}
