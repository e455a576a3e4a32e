#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "platform/files/UniqueFd.h"
#include "tests/support/BackEndTest.h"
#include "tests/support/FailingCall.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <functional>

namespace {

constexpr const char* kMark = "user.NkStubFile";

/// Metadata whose stub text is `length` bytes long.
std::string metaFor(size_t length) {
    std::string meta(length - stubText("", 0).size(), 'm');
    return meta;
}

class DriverlessStubs : public BackEndTest<QZHSMLowLevelDriverless> {
protected:
    int stub(const std::string& meta, time_t refTime) {
        return m_backEnd.stubFile(m_path.c_str(), meta.c_str(), refTime, 0);
    }
    const TestFs m_ramfs{FsKind::Ramfs};
};

} // namespace

TEST_F(DriverlessStubs, StubFileRefusesAndTellsWhy) {
    const std::string text = stubText("meta", 9000);
    const auto length = static_cast<unsigned>(text.size());
    const std::string zeros(9000, '\0');
    const std::string stubbed = text + zeros.substr(length);
    const std::string data = noise(9000);
    UniqueFd held;
    const auto lock = [&](short type) {
        return [&, type] {
            held = UniqueFd(::open(m_path.c_str(), O_RDWR));
            const struct flock byte {
                .l_type = type, .l_whence = SEEK_SET, .l_start = 100, .l_len = 1, .l_pid = 0
            };
            ASSERT_EQ(::fcntl(held.get(), F_SETLK, &byte), 0);
        };
    };
    const auto nothing = [] {};
    const auto mark = [&] { setAttribute(m_path, kMark, "1"); };
    const auto empty = [&] { ASSERT_EQ(::truncate(m_path.c_str(), 0), 0); };
    const struct {
        std::function<void()> arrange;
        SystemCall failing; ///< with EIO
        int code;
        const char* text;
        const char* markAfter;
        std::string dataAfter;
        std::string meta = "meta";
        time_t refTime = LONG_MAX;
    } rows[] = {
        {nothing, {}, 3, "Not stubbing modified file @", "-", data, "meta", kModified - 1},
        {nothing, {}, -1, "Failed to write into @: Message too long", "-", data, metaFor(4097)},
        {mark, {}, EEXIST, "Failed to set attribute user.NkStubFile of @: File exists", "1", data},
        {nothing, {SYS_openat}, -1, "Failed to open @: Input/output error", "1", data},
        {lock(F_WRLCK), {}, 3, "Not stubbing open file @", "1", data},
        {lock(F_RDLCK), {}, 3, "Not stubbing open file @", "1", data},
        {nothing, {SYS_fcntl}, 3, "Not stubbing open file @", "1", data},
        {nothing, {SYS_ftruncate}, -1, "could not truncate file @", "1", data},
        {empty, {}, -1, "Failed to write into @: Invalid argument", "1", ""},
        {nothing, {SYS_write, 1}, -1, "Failed to write into @: Input/output error", "1", ""},
        {nothing, {SYS_write, length}, -1, "Failed to write into @: Input/output error", "1", zeros},
        {nothing, {SYS_utimensat}, -1, "could not reset file times back on file @", "1", stubbed},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        arrange();
        row.arrange();
        whileFailing(row.failing, EIO,
                     [&] { expectFailure(stub(row.meta, row.refTime), row.code, row.text); });
        EXPECT_EQ(attribute(m_path, kMark), row.markAfter);
        EXPECT_TRUE(readFile(m_path) == row.dataAfter);
        held = UniqueFd();
    }
    const std::string below = m_path + "/below";
    const auto stubOther = [&](const std::string& path) {
        return m_backEnd.stubFile(path.c_str(), "m", LONG_MAX, 0);
    };
    expectFailure(stubOther(m_missing), 4, "Failed to stat @: No such file or directory", m_missing);
    expectFailure(stubOther(below), -1, "Failed to stat @: Not a directory", below);
    const std::string fifo = m_fs.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& special : {m_fs.dir(), fifo})
        expectFailure(stubOther(special), -1, "Not stubbing special file @", special);
    EXPECT_EQ(attribute(m_fs.dir(), kMark), "-");
}

TEST_F(DriverlessStubs, HeaderOf4096BytesIsWhole) {
    arrange();
    ASSERT_EQ(stub(metaFor(4096), kModified), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(readFile(m_path), stubText(metaFor(4096), 9000) + std::string(9000 - 4096, '\0'));
}

TEST_F(DriverlessStubs, TheMarkAloneMakesAStub) {
    const std::string valid = stubText("m", 5000);
    constexpr const char* kRamfs = nullptr; // has no attributes
    const std::tuple<const char*, std::string, int> rows[] = {
        {"1", "anything", 1}, {"11", valid, 0}, {"0", valid, 0},      {"", valid, 0},
        {kRamfs, valid, 1},   {kRamfs, "", 0},  {kRamfs, "plain", 0}, {kRamfs, valid.substr(1), 0}};
    for (const auto& [mark, content, isStub] : rows) {
        const std::string path = mark ? m_path : m_ramfs.path("file");
        writeFile(path, content);
        if (mark && *mark)
            setAttribute(path, kMark, mark);
        setTimes(path, 1000, 2000);
        EXPECT_EQ(m_backEnd.isStub(path.c_str()), isStub) << (mark ? mark : "ramfs") << content;
        expectError(0, "");
        EXPECT_EQ(statOf(path).st_atime, 1000) << "looking must not show";
        ::unlink(path.c_str());
    }
    setAttribute(m_fs.dir(), kMark, "1");
    QZHSMLowLevelDriverless archiveDelete;
    archiveDelete.setArchiveAndDelete();
    archiveDelete.m_errorCode = 99;
    EXPECT_EQ(archiveDelete.isStub(m_fs.dir().c_str()), 0) << "nothing is a stub to it";
    EXPECT_EQ(archiveDelete.m_errorCode, 0);

    writeFile(m_ramfs.path("file"), valid);
    const struct {
        std::string path;
        SystemCall failing; ///< with EIO
        int code;
        const char* text;
    } failures[] = {
        {m_missing, {}, 4, "Failed to stat @: No such file or directory"},
        {m_path, {SYS_newfstatat}, -1, "Failed to stat @: Input/output error"},
        {m_ramfs.path("file"), {SYS_openat}, 4, "Failed to open @"},
        {m_ramfs.path("file"), {SYS_read}, -1, "Failed to read from @"},
    };
    for (const auto& row : failures)
        whileFailing(row.failing, EIO, [&] {
            EXPECT_EQ(m_backEnd.isStub(row.path.c_str()), 0);
            expectError(row.code, row.text, row.path);
        });

    const Latin1Locale locale;
    const std::string local = m_ramfs.path("\xe4");
    writeFile(local, valid);
    setTimes(local, 1000, 2000);
    EXPECT_EQ(m_backEnd.isStub(m_ramfs.path("\xc3\xa4").c_str()), 1);
    EXPECT_NE(statOf(local).st_atime, 1000) << "times are put back on the path as it was given";
}

TEST_F(DriverlessStubs, RestoreStubKeepsWhatItCannotReplace) {
    const std::string valid = stubText("m", 5000);
    const auto length = static_cast<unsigned>(valid.size());
    const std::string zeros(5000, '\0');
    const struct {
        std::string stubData;
        SystemCall failing; ///< with EIO
        int code;
        const char* text;
        std::string contentAfter;
    } rows[] = {
        {"", {}, -1, "Stub @ has corrupt metadata.", "old"},
        {valid.substr(0, valid.size() - 1), {}, -1, "Stub @ has corrupt metadata.", "old"},
        {stubText("m", 0), {}, -1, "Failed to write into @: Invalid argument", ""},
        {valid, {SYS_write, 1}, -1, "Failed to write into @: Input/output error", ""},
        {valid, {SYS_write, length}, -1, "Failed to write into @: Input/output error", zeros},
        {valid, {SYS_openat}, -1, "Failed to open @ for writing: Input/output error", "old"},
        {valid,
         {SYS_setxattr},
         EIO,
         "Failed to set attribute user.NkStubFile of @: Input/output error",
         "old"},
    };
    for (const auto& row : rows) {
        ::unlink(m_path.c_str());
        writeFile(m_path, "old");
        whileFailing(row.failing, EIO, [&] {
            expectFailure(m_backEnd.restoreStub(m_path.c_str(), bytes(row.stubData)), row.code, row.text);
        });
        EXPECT_EQ(readFile(m_path), row.contentAfter);
    }
}

TEST_F(DriverlessStubs, RestoreStubTakesLongMetadataAndMissingPaths) {
    const std::string text = stubText(std::string(9000, 'm'), 5000);
    for (const TestFs* fs : {&m_fs, &m_ramfs}) {
        const std::string path = fs->path("new");
        ASSERT_EQ(m_backEnd.restoreStub(path.c_str(), bytes(text)), 0) << m_backEnd.m_errorText;
        EXPECT_EQ(readFile(path), text);
        EXPECT_EQ(statOf(path).st_mode & 0777, 0600U);
        EXPECT_EQ(m_backEnd.isStub(path.c_str()), fs == &m_ramfs) << "the mark found no file to land on";
    }
}

TEST_F(DriverlessStubs, RestoreDoneKeepsTheErrorUnlessItFails) {
    arrange();
    expectFailure(m_backEnd.restoreDone(m_path.c_str(), true, {}), ENODATA,
                  "Failed to remove attribute user.NkStubFile of @: No data available");
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), false, {}), 0);
    EXPECT_EQ(m_backEnd.m_errorCode, ENODATA) << "the error is not cleared";
}

TEST_F(DriverlessStubs, BackupReadsTheAttributeBeforeTheFile) {
    const std::string inFile = stubText(std::string(2000, 'f'), 5000); // longer than the first guess
    const std::string inAttribute = stubText(std::string(3000, 'a'), 6000);
    std::vector<char> saved(5, 'x');
    writeFile(m_path, inFile);
    for (const auto& [value, expected] : {std::pair{"", inFile}, {inAttribute.c_str(), inAttribute}}) {
        setAttribute(m_path, "user.TSTUB", value);
        m_backEnd.m_errorCode = 99;
        ASSERT_EQ(m_backEnd.backupStubFromSnap(m_path.c_str(), saved), 0) << m_backEnd.m_errorText;
        EXPECT_EQ(m_backEnd.m_errorCode, 0);
        EXPECT_EQ(saved, bytes(expected));
    }
    setAttribute(m_path, "user.TSTUB", "");
    for (const char* content : {"", "plain"}) {
        writeFile(m_path, content);
        expectFailure(m_backEnd.backupStubFromSnap(m_path.c_str(), saved), 8, "@ is not a stub.");
    }
    expectFailure(m_backEnd.backupStub(m_missing.c_str(), saved), -1,
                  "Failed to open @: No such file or directory", m_missing);
    expectFailure(m_backEnd.backupStub(m_fs.dir().c_str(), saved), -1,
                  "Failed to read from @: Is a directory", m_fs.dir());
}
