#include "lowlevel/driver/DriverClock.h"
#include "platform/files/UniqueFd.h"
#include "tests/support/DriverFixture.h"

#include <algorithm>
#include <fcntl.h>

namespace fs = std::filesystem;

using DriverTransparentIo = DriverFixture;

TEST_F(DriverTransparentIo, AsksTheDriver) {
    ASSERT_EQ(said(stub()), "0 0 ");
    useLatin1();
    const unsigned long dev = statOf(m_localPath).st_dev;
    const fsf_fid fid = emulator::fidOf(m_localPath);
    const UniqueFd file(::open(m_localPath.c_str(), O_RDWR));
    EXPECT_ASKS(openFileTrans(m_path.c_str(), O_RDWR, 0600), 0, kPassThrough,
                "Failed to open file @ in transparent mode: ", {ENOENT, 4}, {200, 8}, {EBUSY, -1});
    EXPECT_ASKS(openFileTrans(file.get(), dev, fid), 0, kPassThroughByFid,
                "Failed to open file in transparent mode: ", {ENOENT, 4}, {200, 8}, {EBUSY, -1});
}

TEST_F(DriverTransparentIo, TakesTheFirstFreeCarrierName) {
    ASSERT_EQ(said(stub()), "0 0 ");
    const auto open = [&] { return m_driver.openFileTrans(m_path.c_str(), O_RDWR, 0600); };
    const auto name = [&](int number) { return m_path + ".nktmp." + std::to_string(number); };
    for (int i = 0; i < 1024; ++i)
        writeFile(name(i), "");
    EXPECT_EQ(said(open()), "-1 -1 Failed to open file " + name(1023) + ": File exists");
    for (const int free : {1023, 2, 0}) {
        fs::remove(name(free));
        EXPECT_EQ(said(open()), "0 0 ");
        EXPECT_EQ(m_driver.closeFileTrans(), 0);
        writeFile(name(free), "");
    }
    for (int i = 0; i < 1024; ++i)
        EXPECT_TRUE(fs::remove(name(i)));
}

TEST_F(DriverTransparentIo, GivesUpOnABusyDriver) {
    ASSERT_EQ(said(stub()), "0 0 ");
    const char* p = m_path.c_str();
    g_driverClock = [](time_t*) { return static_cast<time_t>(emulator::driver().seen.size()); };
    const auto asked = [](emulator::Request request) {
        return std::ranges::count(emulator::driver().seen, request, &emulator::Seen::request);
    };
    emulator::fail(emulator::kPassThrough, EAGAIN, 3);
    EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR, 0600)), "0 0 ") << "asked again";
    m_driver.closeFileTrans();
    emulator::fail(emulator::kPassThroughByFid, EAGAIN, -1);
    EXPECT_EQ(said(m_driver.openFileTrans(0, 0, fsf_fid{})),
              "-1 7 Timed out while trying to request pass-through access");
    EXPECT_EQ(asked(emulator::kPassThroughByFid), 5) << "at second 0, 1, 2, 3 and 4";
    emulator::driver().seen.clear();
    emulator::fail(emulator::kPassThrough, EAGAIN, -1);
    EXPECT_EQ(said(m_driver.openFileTrans(p, O_RDWR | O_APPEND, 0640)),
              "-1 7 Timed out while trying to request pass-through access to " + m_path);
    EXPECT_EQ(asked(emulator::kPassThrough), 5);

    g_driverClock = std::time;

    // The carrier stays open: a busy driver may still act on it.
    const std::string text = emulator::driver().seen.back().text;
    const UniqueFd carrier(std::stoi(text.substr(text.find("descriptor ") + 11)));
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(carrier.get())),
              m_path + ".nktmp.0 (deleted)");
    struct stat st {};
    EXPECT_EQ(::fstat(carrier.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640U);
    EXPECT_EQ(::fcntl(carrier.get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
}

TEST_F(DriverTransparentIo, ByIdentifierLeavesTheCallersDescriptor) {
    ASSERT_EQ(said(stub()), "0 0 ");
    const UniqueFd file(::open(m_path.c_str(), O_RDWR));
    const unsigned long dev = statOf(m_path).st_dev;
    const fsf_fid fid = emulator::fidOf(m_path);
    ASSERT_EQ(said(m_driver.openFileTrans(file.get(), dev, fid)), "0 0 ");
    EXPECT_EQ(said(m_driver.openFileTrans(file.get(), dev, fid)),
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
    EXPECT_GE(::fcntl(file.get(), F_GETFD), 0);
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, 0)),
              "-1 -1 No file has been open in transparent mode yet.");

    const NoMoreDescriptors noDuplicate;
    EXPECT_EQ(said(m_driver.openFileTrans(file.get(), dev, fid)),
              "-1 -1 Failed to open file in transparent mode: Too many open files");
}
