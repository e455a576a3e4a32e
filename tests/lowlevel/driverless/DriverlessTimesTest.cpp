#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "tests/support/BackEndTest.h"

#include <cerrno>
#include <thread>

using DriverlessTimes = BackEndTest<QZHSMLowLevelDriverless>;

TEST_F(DriverlessTimes, StatFileShowsTheLinkItself) {
    const std::string link = m_fs.path("dangling");
    ASSERT_EQ(::symlink("nowhere", link.c_str()), 0);
    struct stat st {};
    ASSERT_EQ(m_backEnd.statFile(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(DriverlessTimes, HaveTheCodeOfTheirOwnFailure) {
    arrange();
    const std::string below = m_path + "/below";
    struct stat st {};
    errno = ENOENT; // an old failure, which is nobody's reason
    expectFailure(m_backEnd.statFile(below.c_str(), &st), -1, "Failed to stat @: Not a directory", below);
    expectFailure(m_backEnd.setAMCTime(below.c_str(), 1, 1, 1), -1,
                  "Failed to change time of @: Not a directory", below);
    errno = ENOTDIR;
    expectFailure(m_backEnd.statFile(m_missing.c_str(), &st), 4,
                  "Failed to stat @: No such file or directory", m_missing);
}

TEST_F(DriverlessTimes, ThreadsDoNotShareAHelper) {
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([] {
            QZHSMLowLevelDriverless backEnd;
            struct stat st {};
            for (int i = 0; i < 500; ++i) {
                EXPECT_EQ(backEnd.statFile("/", &st), 0);
                EXPECT_EQ(backEnd.statFile("/no/such/path", &st), -1);
                EXPECT_EQ(backEnd.m_errorCode, 4);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}
