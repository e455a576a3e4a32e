#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <thread>

TEST(DriverExtentThreads, WriteWhereTheyShould) {
    const std::string path = ::testing::TempDir() + "qzhsm-extents-" + std::to_string(::getpid());
    std::string wanted;
    for (char i = 0; i < 100; ++i)
        wanted.append(4096, i);
    std::ofstream(path) << std::string(wanted.size(), 'x');
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    QZHSMLowLevelQZFSExtent driver;
    emulator::driver() = {};
    ASSERT_EQ(driver.startWatchingDirTree(path.c_str()), 0) << driver.m_errorText;
    ASSERT_EQ(driver.stubFile(path.c_str(), "m", st.st_mtime, st.st_size), 0) << driver.m_errorText;
    const auto writeExtents = [&](int first) {
        EXPECT_EQ(driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0);
        for (int i = first; i >= 0; i -= 2) {
            EXPECT_EQ(driver.writeFileTrans(&wanted[4096UL * static_cast<size_t>(i)], 4096, 4096LL * i), 4096)
                << i;
            EXPECT_EQ(driver.writeFileTrans("", 1, -1), -1) << "beside the other's successes";
        }
        EXPECT_EQ(driver.closeFileTrans(), 0);
    };
    std::thread odd(writeExtents, 99);
    writeExtents(98);
    odd.join();
    EXPECT_EQ(driver.writeFileTrans("x", 1, 0), -1) << "both are done";
    std::ifstream file(path);
    EXPECT_TRUE(std::string(std::istreambuf_iterator(file), {}) == wanted);
    std::filesystem::remove(path);
}
