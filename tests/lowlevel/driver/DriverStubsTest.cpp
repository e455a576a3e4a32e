#include "tests/support/DriverFixture.h"

using DriverStubs = DriverFixture;

TEST_F(DriverStubs, AskTheDriver) {
    useLatin1();
    const time_t modified = statOf(m_localPath).st_mtime;
    const std::vector<char> umlaut = stubDataOf("\xc3\xa4", 5LL << 32);
    std::vector<char> data;
    bool found = false;
    EXPECT_ASKS(isStub(p), 0, kStat, "QZHSM_STAT(@) failed: ");
    EXPECT_ASKS(isStub(m_dev, m_fid), 0, kStatByFid, "QZHSM_STAT_BY_FID() failed: ", {EINVAL, -1});
    EXPECT_ASKS(stubFile(p, kMeta, modified, 5000), 0, kCreateStub,
                "QZHSM_CREATE_STUB(@) failed: ", {EALREADY, 2}, {EBUSY, 3}, {EINVAL, 6}, {E2BIG, 9},
                {EAGAIN, -1});
    EXPECT_ASKS(isStub(p), 1, kStat, "QZHSM_STAT(@) failed: ");
    EXPECT_ASKS(isStub(m_dev, m_fid), 1, kStatByFid, "QZHSM_STAT_BY_FID() failed: ");
    EXPECT_ASKS(getFileInfo(p, nullptr, nullptr), 0, kStat, "QZHSM_STAT(@) failed: ", {EINVAL, -1});
    EXPECT_ASKS(getStubData(p, found, data, 77), 0, kStat, "QZHSM_STAT(@) failed: ", {EINVAL, -1});
    EXPECT_ASKS(getStubData(-1, m_dev, m_fid, found, data, 77), 0, kStatByFid,
                "QZHSM_STAT_BY_FID failed: ", {EINVAL, -1});
    EXPECT_ASKS(backupStub(p, data), 0, kStat, "@ is not a stub", {ENOENT, -1});
    EXPECT_ASKS(backupStub(m_file.get(), m_dev, m_fid, data), 0, kStatByFid, "Not a stub", {ENOENT, -1});
    EXPECT_ASKS(restoreDone(p, false, {1}), 0, kDeleteStub, "QZHSM_DELETE_STUB(@) failed: ", {EINVAL, -1});
    EXPECT_EQ(m_driver.isStub(p), 1);
    EXPECT_ASKS(restoreDone(p, true, {1}), 0, kDeleteStub, "QZHSM_DELETE_STUB(@) failed: ");
    EXPECT_EQ(m_driver.isStub(p), 0);
    EXPECT_ASKS(restoreStub(p, umlaut), 0, kRestoreStub, "ioctl(QZHSM_RESTORE_STUB) failed: ", {EINVAL, 6},
                {EBUSY, -1});
    EXPECT_EQ(m_driver.backupStub(p, data), 0);
    EXPECT_TRUE(data == umlaut) << "metadata is not converted";
    EXPECT_EQ(m_driver.stubFile(p, "\xc3\xa4", 0, 0), -1);
    EXPECT_NE(emulator::driver().seen.back().text.find("\"\xc3\xa4\""), std::string::npos);
}

TEST_F(DriverStubs, HandOutWhatTheDriverKnows) {
    const std::vector<char> kept(3000, 'k');
    std::vector<char> data = kept;
    bool found = true;
    int state = 0;
    emulator::driver().fileInfo = -77;
    EXPECT_EQ(m_driver.getStubData(p, found, data, 5000), 0);
    EXPECT_FALSE(std::exchange(found, true));
    EXPECT_EQ(m_driver.getFileInfo(p, &found, &state), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(state, -77);
    EXPECT_EQ(said(m_driver.backupStub(p, data)), "-1 -1 " + m_path + " is not a stub");
    EXPECT_EQ(said(m_driver.backupStub(m_file.get(), m_dev, m_fid, data)), "-1 -1 Not a stub");
    EXPECT_EQ(said(m_driver.backupStub(-1, m_dev, m_fid, data)), "-1 9 failed to stat") << "EBADF itself";
    EXPECT_EQ(said(m_driver.backupStub("/x", data)), "-1 4 Failed to stat /x: No such file or directory");
    EXPECT_TRUE(data == kept);

    ASSERT_EQ(said(stub()), "0 0 ");
    EXPECT_EQ(m_driver.getFileInfo(p, &found, nullptr), 0);
    EXPECT_TRUE(found);
    EXPECT_EQ(m_driver.backupStub(m_file.get(), m_dev, m_fid, data), 0);
    EXPECT_TRUE(std::exchange(data, kept) == stubDataOf(kMeta, 5000)) << "and not a byte more";
    EXPECT_EQ(m_driver.backupStub(p, data), 0);
    EXPECT_TRUE(data == stubDataOf(kMeta, 5000));
    EXPECT_EQ(m_driver.stopWatchingDirTree(p), 0);
    EXPECT_EQ(said(m_driver.isStub(p)), "0 0 ") << "a file that is not the driver's";
}

TEST_F(DriverStubs, RefuseAnswersThatMakeNoSense) {
    const std::vector<char> kept(3000, 'k');
    std::vector<char> data = kept;
    bool found = false;
    ASSERT_EQ(said(stub()), "0 0 ");
    ASSERT_EQ(said(m_driver.openFileTrans(m_file.get(), m_dev, m_fid)), "0 0 ");
    emulator::driver().faulty = true;
    EXPECT_EQ(said(m_driver.getStubData(p, found, data, 77)),
              "-1 -1 QZHSM_STAT(" + m_path + ") failed: Bad message");
    EXPECT_EQ(said(m_driver.getStubData(-1, m_dev, m_fid, found, data, 77)),
              "-1 -1 QZHSM_STAT_BY_FID failed: Bad message");
    EXPECT_EQ(said(m_driver.backupStub(p, data)), "-1 -1 " + m_path + " is not a stub");
    EXPECT_FALSE(found);
    EXPECT_TRUE(data == kept);
    EXPECT_EQ(said(m_driver.writeFileTrans("x", 1, 0)), "-1 -1 QZHSM_TRAN_WRITE failed: Bad message");
}

TEST_F(DriverStubs, CutLongTextsAt2047Bytes) {
    const std::string longPath = m_fs.path(std::string(3000, 'p'));
    EXPECT_EQ(said(m_driver.isStub(longPath.c_str())),
              "-1 -1 QZHSM_STAT(" + longPath + ") failed: File name too long");
    EXPECT_EQ(emulator::driver().seen.back().text.find(" -> "), 11 + 2047U) << "asked all the same";
    const std::string meta(5000, 'm');
    const std::vector<char> cut = stubDataOf(meta.substr(0, 2047), 5000);
    std::vector<char> saved;
    ASSERT_EQ(said(stub(meta.c_str())), "0 0 ");
    EXPECT_EQ(m_driver.backupStub(p, saved), 0);
    EXPECT_TRUE(saved == cut);
    ASSERT_EQ(said(m_driver.restoreStub(p, stubDataOf(meta, 5000))), "0 0 ");
    EXPECT_EQ(m_driver.backupStub(p, saved), 0);
    EXPECT_TRUE(saved == cut) << "decoded whole, then cut";

    emulator::driver().seen.clear();
    saved.back() = 'x';
    for (const auto& data : {saved, std::vector<char>{}})
        EXPECT_EQ(said(m_driver.restoreStub(p, data)), "-1 -1 Stub " + m_path + " has corrupt metadata.");
    EXPECT_TRUE(emulator::driver().seen.empty()) << "nothing is asked of the driver";
}
