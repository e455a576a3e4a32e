#include "emulator/DriverEmulator.h"

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/files/UniqueFd.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

TEST(DriverEmulator, EndsAProcessThatUsesItWrongly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    constexpr const char* kDevice = "/dev/nkfsdm";
    EXPECT_DEATH(::ioctl(::open(kDevice, O_RDWR), _IO('C', 1)),
                 "^emulated driver: malformed request: an unknown");
    EXPECT_DEATH(::open(kDevice, O_RDONLY), "^emulated driver: the device is opened with other flags");
    for (const char* wish : {"", "6:200", "6:200:1:", "x"})
        EXPECT_DEATH((::setenv("QZHSM_EMULATOR_FAIL", wish, 1), ::open(kDevice, O_RDWR)),
                     "^emulated driver: QZHSM_EMULATOR_FAIL")
            << wish;
}

TEST(DriverEmulator, PassesOnWhatIsNotTheDevices) {
    const UniqueFd file(::open(::testing::TempDir().c_str(), O_TMPFILE | O_RDWR, 0604));
    struct stat st {};
    EXPECT_EQ(::fstat(file.get(), &st), 0);
    EXPECT_EQ(st.st_mode, S_IFREG | 0604U);
    EXPECT_EQ(::ioctl(file.get(), _IO('C', 1)), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(::stat("/missing", &st), -1);
    EXPECT_EQ(errno, ENOENT);
    emulator::driver() = {.loaded = false};
    EXPECT_EQ(::stat("/dev/nkfsdm", &st), -1);
}

TEST(DriverEmulator, SharesItsWatchListAmongProcesses) {
    std::string state = ::testing::TempDir() + "qzhsm-state-XXXXXX";
    const UniqueFd file(::mkstemp(state.data()));
    ::setenv("QZHSM_EMULATOR_STATE", state.c_str(), 1);
    emulator::driver() = {};
    const auto watchesAlways = [](const char* dir) {
        QZHSMLowLevelQZFS driver;
        bool right = true;
        for (int i = 0; i < 300; ++i)
            right = right && driver.startWatchingDirTree(dir) == 0 && driver.isDMRFS(dir) == 1 &&
                    driver.stopWatchingDirTree(dir) == 0 && driver.isDMRFS(dir) == 0;
        return right;
    };
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(watchesAlways("/proc") ? 0 : 1);
    EXPECT_TRUE(watchesAlways("/dev"));
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ::unsetenv("QZHSM_EMULATOR_STATE");
    std::filesystem::remove(state);
}
