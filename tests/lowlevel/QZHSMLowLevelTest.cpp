#include "lowlevel/QZHSMLowLevelCtx.h"
#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "lowlevel/foundation/FXMutex.h"
#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"

#include <csignal>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

/// Answers each transparent read or write with the next of the given results.
class Scripted : public QZHSMLowLevelHadoop {
public:
    explicit Scripted(std::deque<int> results) : m_results(std::move(results)) {}
    int readFileTrans(void* buf, int len) override { return next(buf, len, 0); }
    int writeFileTrans(const void* buf, int len, long long offset) override { return next(buf, len, offset); }

    std::string m_calls;

    const char* m_start = nullptr;

private:
    int next(const void* buf, int len, long long offset) {
        m_calls += std::to_string(static_cast<const char*>(buf) - m_start) + "+" + std::to_string(len) + "@" +
                   std::to_string(offset) + " ";
        const int result = m_results.front();
        m_results.pop_front();
        return result;
    }
    std::deque<int> m_results;
};

} // namespace

TEST(Loops, StopAtTheEndAndAtFailures) {
    struct Row {
        std::deque<int> results;
        int len;
        int total;
        std::string calls;
    };
    const Row rows[] = {
        {{4, 6}, 10, 10, "0+10@0 4+6@0 "},
        {{4, 0}, 10, 4, "0+10@0 4+6@0 "},
        {{4, -3}, 10, -3, "0+10@0 4+6@0 "},
        {{}, 0, 0, ""},
        {{}, -5, 0, ""},
    };
    char buffer[10];
    for (const Row& row : rows) {
        Scripted reading(row.results);
        reading.m_start = buffer;
        EXPECT_EQ(reading.readFileTransAll(buffer, row.len), row.total);
        EXPECT_EQ(reading.m_calls, row.calls);
        Scripted writing(row.results);
        writing.m_start = buffer;
        EXPECT_EQ(writing.writeFileTransAll(buffer, row.len), row.total);
        EXPECT_EQ(writing.m_calls, row.calls);
    }
}

TEST(WriteAll, GoesOnAfterSignals) {
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, nullptr);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string data(1 << 20, 'd');
    std::string received;
    const pthread_t writer = pthread_self();
    std::thread reader([&] {
        char piece[65536];
        while (received.size() < data.size()) {
            pthread_kill(writer, SIGUSR1);
            received.append(piece, static_cast<size_t>(::read(ends[0], piece, sizeof piece)));
        }
    });
    EXPECT_EQ(QZHSMLowLevel::writeAll(ends[1], data.data(), static_cast<int>(data.size())), 1 << 20);
    reader.join();
    EXPECT_TRUE(received == data);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(QZHSMLowLevel::writeAll(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(QZHSMLowLevel::writeAll(ends[1], "x", 0), 0) << "nothing is written, so nothing fails";
}

TEST(Hadoop, RefusesActionsAndAnswersQueries) {
    const std::unique_ptr<QZHSMLowLevel> hadoop(createQZHSMLowLevelHadoop());
    std::vector<char> data;
    struct stat st {};
    char buffer[1];
    const auto refused = [&](long long result, const std::string& operation) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(hadoop->m_errorCode, 38);
        EXPECT_EQ(hadoop->m_errorText, operation + " not implemented");
    };
    refused(hadoop->backupStub("p", data), "backupStub");
    refused(hadoop->restoreStub("p", data), "restoreStub");
    refused(hadoop->openFileTrans("p", 0, 0), "openFileTrans");
    refused(hadoop->readFileTrans(buffer, 1), "readFileTrans");
    refused(hadoop->writeFileTrans(buffer, 1, 0), "writeFileTrans");
    refused(hadoop->seekFileTrans(0, 0), "seekFileTrans");
    refused(hadoop->closeFileTrans(), "closeFileTrans");
    refused(hadoop->setAMCTime("p", 0, 0, 0), "setAMCTime");
    refused(hadoop->statFile("p", &st), "statFile");
    refused(hadoop->stubFile("p", "m", 0, 0), "stubFile");

    bool isStub = true;
    int state = 0;
    EXPECT_EQ(hadoop->isStub("/no/such/file"), 0);
    EXPECT_EQ(hadoop->isDMRFS("/no/such/file"), 1);
    EXPECT_EQ(hadoop->getFileInfo("p", &isStub, &state), 0);
    EXPECT_FALSE(isStub);
    EXPECT_EQ(state, 2);
    EXPECT_EQ(hadoop->restoreDone("p", true, {}), 1);
    EXPECT_EQ(hadoop->restoreDone("p", false, {}), 0);
    EXPECT_EQ(hadoop->resubmitPendingRecalls(), 0);
    refused(-1, "stubFile"); // none of the queries has touched the error
    EXPECT_EQ(hadoop->isDirBeingWatched("p"), 0);
    EXPECT_EQ(hadoop->m_errorCode, 0);
    EXPECT_EQ(hadoop->m_errorText, "");
}

TEST(Registry, HandsOutEachBackEnd) {
    QZHSMLowLevelCtx registry(0);
    const auto driver = [&](const char* name) {
        return dynamic_cast<QZHSMLowLevelQZFS*>(registry.getByFSName(name));
    };
    ASSERT_NE(driver("qzfs"), nullptr);
    ASSERT_NE(driver("QZFS_EXTENT"), nullptr) << "an unknown name";
    EXPECT_EQ(dynamic_cast<QZHSMLowLevelQZFSExtent*>(driver("QZFS_EXTENT")), nullptr);
    EXPECT_NE(dynamic_cast<QZHSMLowLevelQZFSExtent*>(driver("qzfs_extent")), nullptr);
    EXPECT_EQ(registry.getByFileName("/any"), driver("qzfs"));
    EXPECT_NE(dynamic_cast<QZHSMLowLevelHadoop*>(registry.getByFSName("HADOOP_FS")), nullptr);
    const std::unique_ptr<QZHSMLowLevel> own(QZHSMLowLevel::create());
    EXPECT_NE(dynamic_cast<QZHSMLowLevelQZFS*>(own.get()), nullptr);
}

// Not among the threaded tests: ThreadSanitizer objects to what is asked here.
TEST(FXMutex, SurvivesAStrayUnlock) {
    FXMutex mutex;
    mutex.Unlock();
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
    EXPECT_EQ(mutex.GetOwnerThreadId(), 0U);
}
