#include "tests/support/DriverFixture.h"

using DriverWatching = DriverFixture;

TEST_F(DriverWatching, AsksTheDriver) {
    useLatin1();
    char delDevice[64];
    std::snprintf(delDevice, sizeof delDevice, "QZHSM_DEL_WATCH_FS(%lx) failed: ", m_dev);
    emulator::driver() = {.watchAnswer = 2};
    EXPECT_ASKS(isDMRFS(p), 0, kIsWatch, "QZHSM_IS_WATCH_FS(@) failed: ");
    EXPECT_ASKS(startWatchingDirTree(p), 0, kAddWatch, "QZHSM_ADD_WATCH_FS(@) failed: ");
    EXPECT_ASKS(isDMRFS(p), 2, kIsWatch, "QZHSM_IS_WATCH_FS(@) failed: ");
    EXPECT_ASKS(isDirBeingWatched(p), 2, kIsWatch, "QZHSM_IS_WATCH_FS(@) failed: ");
    EXPECT_ASKS(isDMRFS(m_dev), 2, kIsWatch, "QZHSM_IS_WATCH_FS() failed: ");
    EXPECT_ASKS(stopWatchingDirTree(p), 0, kDelWatch, "QZHSM_DEL_WATCH_FS(@) failed: ");
    EXPECT_EQ(m_driver.isDMRFS(p), 0);
    EXPECT_EQ(m_driver.startWatchingDirTree(p), 0);
    EXPECT_ASKS(stopWatchingDevice(m_dev), 0, kDelWatch, delDevice, {ENOENT, -1});
    EXPECT_EQ(m_driver.isDMRFS(m_dev), 0);
    EXPECT_ASKS(resubmitPendingRecalls(), 0, kResubmit,
                "QZHSM_RESUBMIT_PENDING_RECALLS() failed: ", {ENOENT, -1});
}

TEST_F(DriverWatching, TellsTheMountEntrysFlag) {
    m_file = UniqueFd(::open("/", O_RDONLY)); // so that nothing is open for writing
    m_fs.makeReadOnly();
    EXPECT_EQ(m_driver.startWatchingDirTree(p), 0);
    EXPECT_EQ(emulator::driver().seen.back().text, "QZHSM_ADD_WATCH_FS " + m_path + ", mount flag 1");
    const NoMoreDescriptors noTable;
    EXPECT_EQ(said(m_driver.startWatchingDirTree(p)), "-1 -1 No mount entry for " + m_path);
}

/// In a process of its own: the level is read once, with the first line.
TEST(DriverWatchingLog, SaysWhatIsDone) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto watch = [] {
        ::setenv("QZHSM_LOG_LEVEL", "1", 1);
        QZHSMLowLevelQZFS driver;
        driver.startWatchingDirTree("/proc");
        driver.stopWatchingDirTree("/proc");
        std::_Exit(driver.stopWatchingDevice(0x803));
    };
    EXPECT_EXIT(watch(), ::testing::ExitedWithCode(255),
                " 1 \\[QZHSMLowLevelQZFS::startWatchingDirTree\\] Starting to watch FS containing /proc\n"
                ".* 1 \\[QZHSMLowLevelQZFS::stopWatchingDirTree\\] Stoping to watch FS containing /proc\n"
                ".* 1 \\[QZHSMLowLevelQZFS::stopWatchingDevice\\] Stoping to watch FS on block device 803\n"
                ".* error \\[.*::stopWatchingDevice\\] QZHSM_DEL_WATCH_FS\\(803\\) failed: No such file");
}
