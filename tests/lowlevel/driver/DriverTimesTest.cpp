#include "tests/support/DriverFixture.h"

using DriverTimes = DriverFixture;

TEST_F(DriverTimes, AreTheFileSystems) {
    useLatin1();
    emulator::driver().seen.clear();
    const std::string below = m_path + "/x";
    struct stat st {};
    errno = EIO; // stale, and so is the next
    EXPECT_EQ(said(m_driver.statFile("/x", &st)), "-1 4 Failed to stat /x: No such file or directory");
    EXPECT_EQ(said(m_driver.setAMCTime(p, 11, 22, 33)), "0 0 ");
    EXPECT_EQ(said(m_driver.setAMCTime("/x", 1, 2, 3)),
              "-1 4 Failed to change time of /x: No such file or directory");
    EXPECT_EQ(said(m_driver.statFile(p, &st)), "0 0 ");
    EXPECT_EQ(st.st_atime * 100 + st.st_mtime, 1122);
    errno = ENOENT;
    EXPECT_EQ(said(m_driver.statFile(below.c_str(), &st)),
              "-1 -1 Failed to stat " + below + ": Not a directory");
    errno = ENOENT;
    EXPECT_EQ(said(m_driver.setAMCTime(below.c_str(), 1, 2, 3)),
              "-1 -1 Failed to change time of " + below + ": Not a directory");
    EXPECT_TRUE(emulator::driver().seen.empty()) << "the driver is not asked";
}
