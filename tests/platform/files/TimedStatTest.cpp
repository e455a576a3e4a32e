#include "platform/files/TimedStat.h"
#include "platform/files/UniqueFd.h"
#include "tests/platform/ChildProcess.h"
#include "tests/support/TestFs.h"

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <thread>

namespace {

/// Which allocation from now on fails, on whatever thread; 0: none.
std::atomic<int> failing{0};

/// How many threads block all signals, as the helpers do.
int helpers() {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        count += readFile(task.path() / "status").find("SigBlk:\tfff") != std::string::npos;
    return count;
}

} // namespace

// What it hands out is the C++ library's, which takes it back.
// NOLINTNEXTLINE(misc-new-delete-overloads)
void* operator new(size_t size) {
    static const auto next = reinterpret_cast<void* (*)(size_t)>(::dlsym(RTLD_NEXT, "_Znwm"));
    if (failing > 0 && --failing == 0)
        throw std::bad_alloc();
    return next(size);
}

TEST(TimedStat, ReportsEveryFailedAllocation) {
    const Latin1Locale locale;
    const std::string path =
        "/proc/" + std::string(99, 'x') + "\xc3\xbc"; // to be converted, and never cached
    std::atomic<bool> failed = true;
    for (int nth = 1; failed; ++nth) {
        const std::jthread freshly([&] { // one that has no helper yet
            failing = nth;
            TimedStat timed(60);
            EXPECT_EQ(timed.class_lstat(path.c_str()), nullptr);
            failed = failing.exchange(0) == 0;
            EXPECT_EQ(timed.getErrno(), failed ? ENOMEM : ENOENT) << nth;
        });
    }
}

TEST(TimedStat, GivesUpOnADeadFileSystemAndLeavesNoThread) {
    const TestFs fs(FsKind::Tmpfs);
    REQUIRE_FS(fs);
    UniqueFd server(::open("/dev/fuse", O_RDWR)); // which never answers
    const std::string options = "fd=" + std::to_string(server.get()) + ",rootmode=40000,user_id=0,group_id=0";
    if (::mount("dead", fs.dir().c_str(), "fuse", 0, options.c_str()) != 0)
        GTEST_SKIP() << "needs /dev/fuse";
    TimedStat timed(1);
    EXPECT_NE(timed.class_lstat("/proc"), nullptr);
    EXPECT_EQ(helpers(), 1);
    for (const std::string& path : {fs.dir(), fs.path("file")}) {
        EXPECT_EQ(timed.class_lstat(path.c_str()), nullptr) << path;
        EXPECT_EQ(timed.getErrno(), ETIMEDOUT);
    }
    EXPECT_NE(timed.class_lstat("/proc"), nullptr);
    EXPECT_EQ(timed.getErrno(), 0);
    EXPECT_EQ(helpers(), 3) << "new ones took the lost ones' places";
    server = UniqueFd(); // the calls that wait fail
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (helpers() > 1 && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(helpers(), 1) << "the lost ones end";
    ::umount2(fs.dir().c_str(), MNT_DETACH);
}

TEST(TimedStat, WorksAfterAFork) {
    TimedStat timed(60);
    const struct stat* st = timed.class_lstat("/proc/self");
    EXPECT_TRUE(st && S_ISLNK(st->st_mode)) << "the link itself";
    // The parent's helper is not in the child. It goes through all that ends at an exit.
    EXPECT_TRUE(inChild([]() -> bool { std::exit(TimedStat(60).class_lstat("/proc") ? 0 : 1); }));
}
