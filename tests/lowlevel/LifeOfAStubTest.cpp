#include "emulator/DriverEmulator.h"
#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "tests/support/StubData.h"
#include "tests/support/TestFs.h"

#include <fcntl.h>
#include <fstream>
#include <memory>
#include <ostream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// Where a back-end differs from the others.
enum Trait : unsigned {
    kTextInFile = 1, ///< the stub text lies at the beginning of the file, before a hole
    kByVolume = 2,   ///< the volume gives data up and ends stubs, in its own time; lost attributes stay lost
    kByCommand = 4,  ///< a shell command does; names must mean nothing to a shell; no transparent I/O
    kJoinsOpens = 8, ///< opening twice is closing twice
};

/// A back-end on a file system.
struct StubWorld {
    const char* name;
    FsKind fs;
    QZHSMLowLevel* (*create)();
    const char* mark; ///< the attribute that a stub carries, or null if nothing marks it
    unsigned traits;

    friend std::ostream& operator<<(std::ostream& out, const StubWorld& world) { return out << world.name; }
};

constexpr const char* kMeta = "versionGuid=0123456789abcdef0123456789abcdef;job=7";

/// What every back-end must do alike, a test for each operation, on a file beyond 4 GiB. A new one joins with
/// a line in the list of worlds.
class LifeOfAStub : public ::testing::TestWithParam<StubWorld> {
protected:
    void SetUp() override {
        REQUIRE_FS(m_fs);
        emulator::driver() = {};
        make(m_path);
        m_before = statOf(m_path);
        ASSERT_EQ(fresh().startWatchingDirTree(m_fs.dir().c_str()), 0) << m_backEnd->m_errorText;
        m_descriptors = openDescriptors();
    }
    void TearDown() override {
        fresh();
        EXPECT_TRUE(IsSkipped() || openDescriptors() == m_descriptors);
    }

    void make(const std::string& path) const {
        writeFile(path, m_data);
        ASSERT_EQ(::truncate(path.c_str(), (5LL << 30) + 1), 0);
        setTimes(path, 1'000'000'001, 1'000'000'002);
    }
    /// The back-end, with an error that its next operation must not leave.
    QZHSMLowLevel& fresh() {
        EXPECT_NE(m_backEnd->m_errorCode, 99) << "after the operation before";
        EXPECT_NE(m_backEnd->m_errorText, "old") << "after the operation before";
        m_backEnd->m_errorCode = 99;
        m_backEnd->m_errorText = "old";
        return *m_backEnd;
    }
    bool is(unsigned trait) const { return (GetParam().traits & trait) != 0; }
    bool isMarked() const { return m_mark && attribute(m_path, m_mark) != "-"; }
    /// Stubs a file, which the file system may know by another name.
    void stub(const std::string& path, const std::string& local) {
        ASSERT_EQ(fresh().stubFile(path.c_str(), kMeta, m_before.st_mtime, m_before.st_size), 0)
            << m_backEnd->m_errorText;
        if (is(kByVolume))
            setAttribute(local, "trusted.glusterfs.cs.remote", "");
    }
    void stub() { stub(m_path, m_path); }
    std::vector<char> backup() {
        std::vector<char> saved;
        EXPECT_EQ(fresh().backupStub(m_path.c_str(), saved), 0) << m_backEnd->m_errorText;
        return saved;
    }
    /// As much of a file as held data.
    std::string head(const std::string& path) const {
        std::string data(m_data.size(), '\0');
        std::ifstream(path, std::ios::binary).read(data.data(), static_cast<std::streamsize>(data.size()));
        return data;
    }
    /// The same of a stub.
    std::string hole(const std::vector<char>& text) const {
        std::string left = is(kByVolume) ? m_data : std::string(m_data.size(), '\0');
        return is(kTextInFile) ? left.replace(0, text.size(), text.data(), text.size()) : left;
    }
    void open(int flags) {
        ASSERT_EQ(fresh().openFileTrans(m_path.c_str(), flags, 0), 0) << m_backEnd->m_errorText;
    }
    /// Writes all of `data` into the transparent session, from `offset` on.
    void put(std::string_view data, long long offset) {
        ASSERT_GE(m_backEnd->seekFileTrans(offset, SEEK_SET), 0) << m_backEnd->m_errorText;
        while (!data.empty()) {
            const int written = fresh().writeFileTrans(data.data(), static_cast<int>(data.size()), offset);
            ASSERT_GT(written, 0) << m_backEnd->m_errorText;
            EXPECT_EQ(m_backEnd->m_errorCode, 0);
            data.remove_prefix(static_cast<size_t>(written));
            offset += written;
        }
    }

    const char* const m_mark = GetParam().mark;
    const TestFs m_fs{GetParam().fs};
    const std::unique_ptr<QZHSMLowLevel> m_backEnd{GetParam().create()};
    const std::string m_path = m_fs.path("file");
    const std::string m_data = noise((1 << 20) + 13);
    struct stat m_before {};
    long m_descriptors = 0;
};

class RestoredStub : public LifeOfAStub {};
class TransparentIo : public LifeOfAStub {};
class OneSession : public LifeOfAStub {};

} // namespace

TEST_P(LifeOfAStub, StubFile) {
    stub();
    struct stat st {};
    ASSERT_EQ(fresh().statFile(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, m_before.st_size);
    EXPECT_EQ(st.st_atime, m_before.st_atime);
    EXPECT_EQ(st.st_mtime, m_before.st_mtime);
    EXPECT_EQ(st.st_mode, m_before.st_mode);
    EXPECT_TRUE(st.st_blocks <= 16 || is(kByVolume)) << st.st_blocks << " of " << m_before.st_blocks;
    EXPECT_EQ(isMarked(), m_mark != nullptr);
}

TEST_P(LifeOfAStub, IsStub) {
    for (const bool expected : {false, true}) {
        EXPECT_EQ(fresh().isStub(m_path.c_str()), expected) << m_backEnd->m_errorText;
        bool isStub = !expected;
        int state = 0;
        EXPECT_EQ(fresh().getFileInfo(m_path.c_str(), &isStub, &state), 0);
        EXPECT_EQ(isStub, expected);
        if (!expected)
            stub();
    }
}

TEST_P(LifeOfAStub, Watching) {
    EXPECT_EQ(fresh().isDMRFS(m_path.c_str()), GetParam().fs == FsKind::Ramfs ? 0 : 1);
    EXPECT_EQ(fresh().isDirBeingWatched(m_path.c_str()), is(kTextInFile | kByCommand) ? 0 : 1);
    EXPECT_EQ(fresh().stopWatchingDirTree(m_fs.dir().c_str()), 0);
}

TEST_P(LifeOfAStub, StopsWatching) {
    EXPECT_EQ(fresh().stopWatchingDevice(m_before.st_dev), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(m_backEnd->m_errorCode, 0);
    ASSERT_EQ(fresh().startWatchingDirTree(m_fs.dir().c_str()), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(fresh().stopWatchingDirTree(m_fs.dir().c_str()), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(m_backEnd->m_errorCode, 0);
}

TEST_P(LifeOfAStub, TimesAndStatOfWhatIsMissing) {
    const std::string missing = m_fs.path("missing");
    struct stat st {};
    EXPECT_EQ(fresh().statFile(missing.c_str(), &st), -1);
    EXPECT_EQ(m_backEnd->m_errorCode, 4);
    EXPECT_EQ(m_backEnd->m_errorText, "Failed to stat " + missing + ": No such file or directory");
    EXPECT_EQ(fresh().setAMCTime(missing.c_str(), 1, 1, 1), -1);
    EXPECT_EQ(m_backEnd->m_errorCode, is(kByCommand) ? 38 : 4);
    EXPECT_EQ(m_backEnd->m_errorText,
              is(kByCommand) ? "setAMCTime not implemented"
                             : "Failed to change time of " + missing + ": No such file or directory");
}

TEST_P(LifeOfAStub, BackupStub) {
    stub();
    const std::vector<char> saved = backup();
    EXPECT_EQ(saved, bytes(stubText(kMeta, m_before.st_size)));
    EXPECT_TRUE(head(m_path) == hole(saved)) << "stub text where it belongs, and nothing but a hole";
}

TEST_P(LifeOfAStub, RestoreDone) {
    stub();
    EXPECT_EQ(m_backEnd->restoreDone(m_path.c_str(), false, {7, 8}), 0);
    EXPECT_EQ(isMarked(), m_mark != nullptr);
    if (!m_mark)
        return; // what is written back ends the stub
    const bool endsItself = !is(kByVolume | kByCommand);
    if (!is(kTextInFile)) // the driverless back-end keeps the error, which its header says
        fresh();
    EXPECT_EQ(m_backEnd->restoreDone(m_path.c_str(), true, {7, 8}), endsItself ? 0 : 1);
    EXPECT_EQ(m_backEnd->m_errorCode, 0);
    EXPECT_EQ(fresh().isStub(m_path.c_str()), endsItself ? 0 : 1);
    EXPECT_EQ(isMarked(), !endsItself);
}

TEST_P(LifeOfAStub, TakesAnyNameThatTheFileSystemTakes) {
    for (const char* name : {"not-utf8-\xff\xfe", "\xc3\xbcml\xc3\xa4ut", "new\nline", "$(exit);' \"&"}) {
        if (is(kByCommand) && std::string_view(name).find_first_of(" \n") != std::string_view::npos)
            continue;
        const std::string path = m_fs.path(name);
        make(path);
        stub(path, path);
        EXPECT_EQ(fresh().isStub(path.c_str()), 1) << name;
    }
    if (!is(kByCommand)) {
        const Latin1Locale locale;
        const std::string path = m_fs.path("\xc3\xa4");
        make(m_fs.path("\xe4"));
        stub(path, m_fs.path("\xe4"));
        EXPECT_EQ(fresh().isStub(path.c_str()), 1) << "in the locale's encoding";
    }
    const std::string link = m_fs.path("link");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    stub(link, m_path);
    EXPECT_EQ(fresh().isStub(m_path.c_str()), 1);
}

TEST_P(RestoredStub, IsAStubAgain) {
    stub();
    const std::vector<char> saved = backup();
    const std::string restored = m_fs.path("restored");
    writeFile(restored, "what was there goes");
    ASSERT_EQ(fresh().restoreStub(restored.c_str(), saved), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(fresh().isStub(restored.c_str()), 1);
    EXPECT_EQ(statOf(restored).st_size, m_before.st_size);
    EXPECT_TRUE(head(restored) == hole(saved));
}

TEST_P(TransparentIo, WritesItAllBack) {
    stub();
    open(O_WRONLY);
    EXPECT_EQ(m_backEnd->openFileTrans("/other", O_WRONLY, 0), is(kJoinsOpens) ? 0 : -1);
    for (size_t done = 0; done < m_data.size(); done += 1 << 19)
        put(std::string_view(m_data).substr(done, 1 << 19), static_cast<long long>(done));
    EXPECT_EQ(m_backEnd->closeFileTrans(), 0);
    if (!is(kJoinsOpens))
        open(O_WRONLY); // again, after a close

    const auto end = static_cast<rlim_t>(m_before.st_size);
    const rlimit room{end + 10, RLIM_INFINITY};
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    EXPECT_GE(m_backEnd->seekFileTrans(m_before.st_size, SEEK_SET), 0);
    ::setrlimit(RLIMIT_FSIZE, &room);
    const int written = fresh().writeFileTrans(m_data.data(), 20, m_before.st_size);
    ::setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(written, 10) << "as much as there was room for";
    EXPECT_EQ(m_backEnd->closeFileTrans(), 0);
    EXPECT_TRUE(head(m_path) == m_data);
    EXPECT_EQ(statOf(m_path).st_size, m_before.st_size + 10);
    EXPECT_EQ(fresh().setAMCTime(m_path.c_str(), m_before.st_atime, m_before.st_mtime, 0), 0);
    EXPECT_EQ(statOf(m_path).st_atime, m_before.st_atime);
    EXPECT_EQ(statOf(m_path).st_mtime, m_before.st_mtime);
}

TEST_P(OneSession, ThatMustBeClosedBeforeTheNext) {
    QZHSMLowLevel& backEnd = *m_backEnd;
    const auto failedWith = [&](long long result, const std::string& text) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(backEnd.m_errorCode, -1);
        EXPECT_EQ(backEnd.m_errorText, text);
    };
    char buffer[16];
    failedWith(backEnd.readFileTrans(buffer, 1), "No file has been open in transparent mode yet.");
    failedWith(backEnd.writeFileTrans("x", 1, 0), "No file has been open in transparent mode yet.");
    failedWith(backEnd.seekFileTrans(0, SEEK_SET), "No file has been open in transparent mode yet.");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);

    stub();
    open(O_RDWR);
    put("0123456789", 0);
    EXPECT_EQ(backEnd.seekFileTrans(0, SEEK_SET), 0);
    failedWith(backEnd.openFileTrans("/other", O_RDONLY, 0),
               "Attempt to open a new file /other in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(backEnd.writeFileTrans("abc", 3, 7), 3) << "the position counts, not the offset";
    EXPECT_EQ(backEnd.readFileTrans(buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "34");
    EXPECT_EQ(backEnd.seekFileTrans(-1, SEEK_END), m_before.st_size - 1);
    EXPECT_EQ(backEnd.readFileTransAll(buffer, 10), 1) << "the file ends before ten bytes";
    failedWith(backEnd.seekFileTrans(-1, SEEK_SET), "Transparent seek() failed: Invalid argument");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
    EXPECT_EQ(head(m_path).substr(0, 10), "abc3456789");

    open(O_RDONLY);
    failedWith(backEnd.writeFileTrans("x", 1, 0),
               std::string(is(kTextInFile) ? "Transparent read()" : "QZHSM_TRAN_WRITE") +
                   " failed: Bad file descriptor");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
    open(O_WRONLY);
    failedWith(backEnd.readFileTrans(buffer, 1), "Transparent read() failed: Bad file descriptor");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
}

namespace {

constexpr const char* kNkMark = "user.NkStubFile";
constexpr const char* kUuid = "trusted.cloudsync.uuid";
constexpr const char* kRecord = "user.nkfsdm.stub";
constexpr StubWorld kWorlds[] = {
    {"DriverlessExt4", FsKind::Ext4, createQZHSMLowLevelDriverless, kNkMark, kTextInFile},
    {"DriverlessTmpfs", FsKind::Tmpfs, createQZHSMLowLevelDriverless, kNkMark, kTextInFile},
    {"DriverlessRamfs", FsKind::Ramfs, createQZHSMLowLevelDriverless, nullptr, kTextInFile},
    {"Driver", FsKind::Ext4, createQZHSMLowLevelQZFS, kRecord, 0},
    {"DriverExtent", FsKind::Ext4, createQZHSMLowLevelQZFSExtent, kRecord, kJoinsOpens},
    {"Lustre", FsKind::Ext4, createQZHSMLowLevelLustre, "user.TSTUB", kByCommand},
    {"GlusterFsExt4", FsKind::Ext4, createQZHSMLowLevelGlusterFs, kUuid, kByVolume},
    {"GlusterFsTmpfs", FsKind::Tmpfs, createQZHSMLowLevelGlusterFs, kUuid, kByVolume},
};

auto worldsWithout(unsigned traits) {
    std::vector<StubWorld> worlds;
    for (const StubWorld& world : kWorlds)
        if ((world.traits & traits) == 0)
            worlds.push_back(world);
    return ::testing::ValuesIn(worlds);
}
const auto kName = [](const auto& tested) { return tested.param.name; };

} // namespace

INSTANTIATE_TEST_SUITE_P(Of, LifeOfAStub, worldsWithout(0), kName);
INSTANTIATE_TEST_SUITE_P(Of, RestoredStub, worldsWithout(kByVolume), kName);
INSTANTIATE_TEST_SUITE_P(Of, TransparentIo, worldsWithout(kByCommand), kName);
INSTANTIATE_TEST_SUITE_P(Of, OneSession, worldsWithout(kByVolume | kByCommand | kJoinsOpens), kName);
