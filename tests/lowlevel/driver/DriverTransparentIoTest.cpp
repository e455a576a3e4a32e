#include "lowlevel/driver/DriverClock.h"
#include "tests/support/DriverFixture.h"

namespace fs = std::filesystem;
using DriverTransparentIo = DriverFixture;

TEST_F(DriverTransparentIo, AsksTheDriver) {
    ASSERT_EQ(said(stub()), "0 0 ");
    useLatin1();
    EXPECT_ASKS(openFileTrans(p, O_RDWR, 0600), 0, kPassThrough,
                "Failed to open file @ in transparent mode: ", {200, 8}, {EBUSY, -1});
    EXPECT_ASKS(openFileTrans(m_file.get(), m_dev, m_fid), 0, kPassThroughByFid,
                "Failed to open file in transparent mode: ", {200, 8}, {EBUSY, -1});
}

TEST_F(DriverTransparentIo, TakesTheFirstFreeCarrierName) {
    ASSERT_EQ(said(stub()), "0 0 ");
    const auto name = [&](int number) { return m_path + ".nktmp." + std::to_string(number); };
    for (int i = 0; i < 1024; ++i)
        writeFile(name(i), "");
    EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR, 0600)),
              "-1 -1 Failed to open file " + name(1023) + ": File exists");
    for (const int free : {1023, 2, 0}) {
        fs::remove(name(free));
        EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR, 0600)), "0 0 ");
        EXPECT_EQ(m_driver.closeFileTrans(), 0);
        writeFile(name(free), "");
    }
    for (int i = 0; i < 1024; ++i)
        EXPECT_TRUE(fs::remove(name(i)));
}

TEST_F(DriverTransparentIo, GivesUpOnABusyDriver) {
    ASSERT_EQ(said(stub()), "0 0 ");
    std::vector<emulator::Seen>& seen = emulator::driver().seen;
    g_driverClock = [](time_t*) { return static_cast<time_t>(emulator::driver().seen.size()); };
    seen.clear();
    emulator::fail(emulator::kPassThrough, EAGAIN, 3);
    EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR, 0600)), "0 0 ");
    EXPECT_EQ(seen.size(), 4U) << "asked again";
    m_driver.closeFileTrans();
    emulator::fail(emulator::kPassThroughByFid, EAGAIN, -1);
    EXPECT_EQ(said(m_driver.openFileTrans(m_file.get(), m_dev, m_fid)),
              "-1 7 Timed out while trying to request pass-through access");
    EXPECT_EQ(seen.size(), 4 + 5U) << "at second 0, 1, 2, 3 and 4";
    emulator::fail(emulator::kPassThrough, EAGAIN, -1);
    EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR | O_APPEND, 0640)),
              "-1 7 Timed out while trying to request pass-through access to " + m_path);
    EXPECT_EQ(seen.size(), 4 + 5 + 5U);
    g_driverClock = std::time;

    // The carrier stays open: a busy driver may still act on it.
    const std::string text = seen.back().text;
    const UniqueFd carrier(std::stoi(text.substr(text.find("descriptor ") + 11)));
    struct stat st {};
    EXPECT_EQ(::fstat(carrier.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640U);
    EXPECT_EQ(::fcntl(carrier.get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(carrier.get())),
              m_path + ".nktmp.0 (deleted)");
}

TEST_F(DriverTransparentIo, ByIdentifierLeavesTheCallersDescriptor) {
    ASSERT_EQ(said(stub()), "0 0 ");
    ASSERT_EQ(said(m_driver.openFileTrans(m_file.get(), m_dev, m_fid)), "0 0 ");
    EXPECT_EQ(said(m_driver.openFileTrans(m_file.get(), m_dev, m_fid)),
              "-1 -1 Attempt to open a new file  in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(said(m_driver.openFileTrans("/x", O_RDWR, 0600)),
              "-1 -1 Attempt to open a new file /x in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(said(m_driver.seekFileTrans(100, SEEK_SET)), "100 0 ");
    EXPECT_EQ(m_driver.writeFileTrans("first", 5, 0), 5);
    EXPECT_EQ(m_driver.writeFileTrans("second", 6, 0), 6);
    emulator::fail(emulator::kTranWrite, ENOENT);
    const int failed = m_driver.writeFileTrans("x", 1, 0);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(said(failed), "-1 4 QZHSM_TRAN_WRITE failed: No such file or directory") << "closing left it";
    EXPECT_EQ(readFile(m_path).substr(100, 12), std::string("firstsecond\0", 12));
    EXPECT_GE(::fcntl(m_file.get(), F_GETFD), 0);

    const NoMoreDescriptors noDuplicate;
    EXPECT_EQ(said(m_driver.openFileTrans(m_file.get(), m_dev, m_fid)),
              "-1 -1 Failed to open file in transparent mode: Too many open files");
}
