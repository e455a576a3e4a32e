#include "lowlevel/QZHSMLowLevel.h"

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "platform/files/UniqueFd.h"
#include "tests/support/TestFs.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

/// Answers each transparent read or write with the next of the given results.
struct Scripted : QZHSMLowLevelHadoop {
    int readFileTrans(void* buf, int len) override { return next(buf, len, 0); }
    int writeFileTrans(const void* buf, int len, long long offset) override { return next(buf, len, offset); }
    int next(const void* buf, int len, long long offset) {
        calls += std::to_string(static_cast<const char*>(buf) - start) + "+" + std::to_string(len) + "@" +
                 std::to_string(offset) + " ";
        return *result++;
    }

    const int* result = nullptr;
    const char* start = nullptr;
    std::string calls;
};

} // namespace

TEST(Loops, StopAtTheEndAndAtFailures) {
    const std::tuple<std::vector<int>, int, int, std::string> rows[] = {
        {{4, 6}, 10, 10, "0+10@0 4+6@0 "},
        {{4, 0}, 10, 4, "0+10@0 4+6@0 "},
        {{4, -3}, 10, -3, "0+10@0 4+6@0 "},
        {{}, 0, 0, ""},
        {{}, -5, 0, ""},
    };
    char buffer[10];
    for (const auto& [results, len, total, calls] : rows) {
        for (const bool reading : {true, false}) {
            Scripted scripted;
            scripted.result = results.data();
            scripted.start = buffer;
            EXPECT_EQ(reading ? scripted.readFileTransAll(buffer, len)
                              : scripted.writeFileTransAll(buffer, len),
                      total);
            EXPECT_EQ(scripted.calls, calls);
        }
    }
}

namespace {

/// How much a pipe is to hold, and a page.
constexpr size_t kPage = 4096;

/// A pipe that is full, and emptied by SIGUSR1.
int ends[2];

} // namespace

TEST(WriteAll, GoesOnAfterASignal) {
    struct sigaction empties {};
    empties.sa_handler = [](int) {
        char page[kPage];
        static_cast<void>(!::read(ends[0], page, kPage));
    };
    ASSERT_EQ(::sigaction(SIGUSR1, &empties, nullptr), 0);
    ASSERT_EQ(::pipe(ends), 0);
    ASSERT_EQ(::fcntl(ends[1], F_SETPIPE_SZ, kPage), kPage);
    ASSERT_EQ(::write(ends[1], noise(kPage).data(), kPage), kPage);
    std::atomic<pid_t> id = 0;
    int written = 0;
    std::thread writer([&] {
        id = ::gettid();
        written = QZHSMLowLevel::writeAll(ends[1], "data", 4);
    });
    const auto stands = [&] { // in its write
        const std::string call = readFile("/proc/self/task/" + std::to_string(id) + "/syscall");
        return call.starts_with(std::to_string(SYS_write) + " ");
    };
    while (!stands())
        std::this_thread::yield();
    ASSERT_EQ(::pthread_kill(writer.native_handle(), SIGUSR1), 0);
    writer.join();
    ASSERT_EQ(written, 4);
    char data[5] = "";
    EXPECT_EQ(::read(ends[0], data, 4), 4);
    EXPECT_STREQ(data, "data");
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(WriteAll, GoesOnWhereAWriteHasStopped) {
    void* pages = ::mmap(nullptr, 2 * kPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(::mprotect(static_cast<char*>(pages) + kPage, kPage, PROT_NONE), 0);
    const UniqueFd file(::memfd_create("file", 0));
    EXPECT_EQ(QZHSMLowLevel::writeAll(file.get(), pages, 2 * kPage), -1);
    EXPECT_EQ(errno, EFAULT) << "from the second page";
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), kPage) << "the first is written, once";
    EXPECT_EQ(QZHSMLowLevel::writeAll(file.get(), pages, 0), 0) << "nothing to do";
    ::munmap(pages, 2 * kPage);
}

TEST(Create, MakesTheFilterDriversBackEnd) {
    const std::unique_ptr<QZHSMLowLevel> own(QZHSMLowLevel::create());
    EXPECT_NE(dynamic_cast<QZHSMLowLevelQZFS*>(own.get()), nullptr);
}
