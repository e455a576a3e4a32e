#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "tests/support/DriverFixture.h"
#include "tests/support/RecordingLog.h"

using DriverExtentTransparentIo = DriverWorld<QZHSMLowLevelQZFSExtent>;

TEST_F(DriverExtentTransparentIo, CountsOpensAndCloses) {
    const std::string tag = "virtual int QZHSMLowLevelQZFSExtent::";
    const std::string closing = "5 " + tag + "closeFileTrans() 47 calling closeFileTrans\n";
    const std::string notSet =
        "-1 " + tag + "writeFileTrans(const void*, int, long long int) 69 trans_fd not set\n";
    const std::string closed = "-1 -1 No file has been open in transparent mode yet.";
    ASSERT_EQ(said(stub()), "0 0 ");
    RecordingLog log(5);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    emulator::fail(emulator::kPassThrough, EIO);
    EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), -1);
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, 0)), closed);
    EXPECT_EQ(log.take(), closing + notSet);
    EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), 0);
    const std::string granted = emulator::driver().seen.back().text;
    EXPECT_EQ(log.take(), "5 " + tag + "openFileTrans(const char*, int, int) 31 openFileTrans success. FD [" +
                              granted.substr(granted.rfind(' ') + 1) + "]\n");
    EXPECT_EQ(m_driver.openFileTrans("/any", O_RDWR, 0600), 0) << "joins";
    EXPECT_EQ(m_driver.openFileTrans("/any", O_RDWR, 0600), 0);
    EXPECT_EQ(m_driver.seekFileTrans(5, SEEK_SET), 1);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    emulator::driver().seen.clear();
    EXPECT_EQ(m_driver.writeFileTrans("late", 4, 4096), 4);
    EXPECT_EQ(m_driver.writeFileTrans("early", 5, 0), 5);
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, -1)), "-1 -1 pwrite failed: Invalid argument");
    EXPECT_EQ(said(m_driver.writeFileTrans("", 0, 0)), "0 0 ");
    EXPECT_TRUE(emulator::driver().seen.empty()) << "written without the driver";
    char read[6]{};
    EXPECT_EQ(m_driver.readFileTrans(read, 5), 5);
    EXPECT_STREQ(read, "early");
    EXPECT_EQ(readFile(m_path).substr(4095, 6), std::string("\0late\0", 6));
    const std::string much = noise(2 << 20);
    EXPECT_LT(m_driver.writeFileTrans(much.data(), 2 << 20, 0), 2 << 20) << "the file system has less room";
    EXPECT_EQ(m_driver.seekFileTrans(5, SEEK_SET), 1);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    log.setLevel(-1);
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, 0)), closed);
    EXPECT_EQ(log.take(), closing + notSet);
    log.setLevel(4);
    EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), 0);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(log.take(), "");
    g_ptrLogWriter = nullptr;
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, 0)), closed);
}
