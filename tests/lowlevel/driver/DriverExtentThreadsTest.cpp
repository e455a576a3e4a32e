#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "platform/files/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

TEST(Extents, WrittenFromTwoThreadsLandWhereTheyShould) {
    constexpr int kPiece = 4096;
    constexpr int kPieces = 64;
    constexpr off_t kSize = off_t{2} * kPieces * kPiece;
    std::string path = ::testing::TempDir() + "qzhsm-extents-XXXXXX";
    const UniqueFd file(::mkstemp(path.data()));
    ASSERT_EQ(::ftruncate(file.get(), kSize), 0);
    struct stat st {};
    ASSERT_EQ(::fstat(file.get(), &st), 0);
    QZHSMLowLevelQZFSExtent driver;
    emulator::driver() = {};
    ASSERT_EQ(driver.startWatchingDirTree(path.c_str()), 0);
    ASSERT_EQ(driver.stubFile(path.c_str(), "m", st.st_mtime, kSize), 0) << driver.m_errorText;
    const auto writeExtents = [&](int first) {
        EXPECT_EQ(driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0);
        for (int i = 2 * kPieces - 2 + first; i >= 0; i -= 2) {
            const std::string piece(kPiece, static_cast<char>(i));
            EXPECT_EQ(driver.writeFileTrans(piece.data(), kPiece, off_t{i} * kPiece), kPiece);
            EXPECT_EQ(driver.writeFileTrans("", 1, -1), -1) << "beside the other's successes";
        }
        EXPECT_EQ(driver.closeFileTrans(), 0);
    };
    std::thread odd(writeExtents, 1);
    writeExtents(0);
    odd.join();
    EXPECT_EQ(driver.writeFileTrans("x", 1, 0), -1) << "both are done";
    for (int i = 0; i < 2 * kPieces; ++i) {
        char piece[kPiece];
        ASSERT_EQ(::pread(file.get(), piece, kPiece, off_t{i} * kPiece), kPiece);
        EXPECT_EQ(std::string(piece, kPiece), std::string(kPiece, static_cast<char>(i))) << i;
    }
    ::unlink(path.c_str());
}
