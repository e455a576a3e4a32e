#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "platform/stub/StubText.h"
#include "tests/support/TestFs.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* kMark = "user.NkStubFile";

std::string stubText(const std::string& meta, long long size) {
    std::string text(65536, '\0');
    text.resize(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, text.data(), 65536)));
    return text;
}

std::vector<char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

/// Metadata whose stub text is `length` bytes long.
std::string metaFor(size_t length) {
    std::string meta;
    meta.resize(length - stubText("", 0).size(), 'm');
    return meta;
}

/// Another process that holds a record lock on a file.
class LockHolder {
public:
    LockHolder(const std::string& path, short type) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        m_child = ::fork();
        if (m_child == 0) {
            struct flock lock {};
            lock.l_type = type;
            lock.l_start = 100;
            lock.l_len = 1;
            const int fd = ::open(path.c_str(), O_RDWR);
            const char answer = ::fcntl(fd, F_SETLK, &lock) == 0 ? 'y' : 'n';
            [[maybe_unused]] const ssize_t told = ::write(ready[1], &answer, 1);
            for (;;)
                ::pause();
        }
        char answer = 'n';
        EXPECT_EQ(::read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        ::close(ready[0]);
        ::close(ready[1]);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    ~LockHolder() {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }

private:
    pid_t m_child;
};

class Driverless : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_FS(m_fs); }

    int stub(const std::string& path, const std::string& meta = "meta") {
        return m_backEnd.stubFile(path.c_str(), meta.c_str(), statOf(path).st_mtime, 0);
    }
    void expectError(int code, const std::string& text) const {
        EXPECT_EQ(m_backEnd.m_errorCode, code);
        EXPECT_EQ(m_backEnd.m_errorText, text);
    }

    TestFs m_fs{FsKind::Tmpfs};
    std::string m_path = m_fs.path("file");
    QZHSMLowLevelDriverless m_backEnd;
};

} // namespace

TEST_F(Driverless, StubFileRefusesAndTellsWhy) {
    const std::string data = noise(9000);
    struct Row {
        const char* name;
        std::function<void()> arrange;
        std::string meta;
        time_t refTimeOffset;
        int code;
        std::string text;
        const char* markAfter;
        std::string dataAfter;
    };
    std::unique_ptr<LockHolder> holder;
    const auto nothing = [] {};
    const Row rows[] = {
        {"modified", nothing, "m", -1, 3, "Not stubbing modified file " + m_path, "-", data},
        {"header too long", nothing, metaFor(4097), 0, -1,
         "Failed to write into " + m_path + ": Message too long", "-", data},
        {"marked", [&] { setAttribute(m_path, kMark, "1"); }, "m", 0, EEXIST,
         "Failed to set attribute user.NkStubFile of " + m_path + ": File exists", "1", data},
        {"write lock", [&] { holder = std::make_unique<LockHolder>(m_path, F_WRLCK); }, "m", 0, 3,
         "Not stubbing open file " + m_path, "1", data},
        {"read lock", [&] { holder = std::make_unique<LockHolder>(m_path, F_RDLCK); }, "m", 0, 3,
         "Not stubbing open file " + m_path, "1", data},
        {"empty", [&] { ASSERT_EQ(::truncate(m_path.c_str(), 0), 0); }, "m", 0, -1,
         "Failed to write into " + m_path + ": Invalid argument", "1", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ::unlink(m_path.c_str());
        writeFile(m_path, data);
        row.arrange();
        setTimes(m_path, 1000, 2000);
        EXPECT_EQ(m_backEnd.stubFile(m_path.c_str(), row.meta.c_str(), 2000 + row.refTimeOffset, 0), -1);
        expectError(row.code, row.text);
        EXPECT_EQ(attribute(m_path, kMark), row.markAfter);
        EXPECT_TRUE(readFile(m_path) == row.dataAfter);
        holder.reset();
    }
}

TEST_F(Driverless, StubFileRefusesWhatIsNoFile) {
    const std::string missing = m_fs.path("missing");
    EXPECT_EQ(m_backEnd.stubFile(missing.c_str(), "m", 0, 0), -1);
    expectError(4, "Failed to stat " + missing + ": No such file or directory");
    const std::string below = m_fs.path("file/below");
    writeFile(m_path, "x");
    EXPECT_EQ(m_backEnd.stubFile(below.c_str(), "m", 0, 0), -1);
    expectError(-1, "Failed to stat " + below + ": Not a directory");
    EXPECT_EQ(stub(m_fs.dir()), -1);
    expectError(-1, "Not stubbing special file " + m_fs.dir());
    EXPECT_EQ(attribute(m_fs.dir(), kMark), "-");
}

TEST_F(Driverless, HeaderOf4096BytesIsWhole) {
    writeFile(m_path, noise(20000));
    ASSERT_EQ(stub(m_path, metaFor(4096)), 0) << m_backEnd.m_errorText;
    std::vector<char> saved;
    ASSERT_EQ(m_backEnd.backupStub(m_path.c_str(), saved), 0);
    EXPECT_EQ(std::string(saved.begin(), saved.end()), stubText(metaFor(4096), 20000));
    EXPECT_EQ(readFile(m_path)[4096], '\0');
}

TEST_F(Driverless, FullFileSystemIsReportedAtTheHeader) {
    const TestFs full(FsKind::Tmpfs, "size=32k");
    const std::string path = full.path("sparse");
    writeFile(path, "");
    ASSERT_EQ(::truncate(path.c_str(), 100'000), 0);
    // One page stays free: it takes the last byte, and none is left for the header.
    writeFile(full.path("filler"), noise(28672));
    EXPECT_EQ(stub(path), -1);
    expectError(-1, "Failed to write into " + path + ": No space left on device");
    EXPECT_EQ(readFile(path), std::string(100'000, '\0'));
}

TEST_F(Driverless, ReadOnlyMountIsReported) {
    const TestFs ramfs(FsKind::Ramfs);
    const std::string unmarked = ramfs.path("file");
    for (const TestFs* fs : {static_cast<const TestFs*>(&m_fs), &ramfs}) {
        writeFile(fs->path("file"), noise(9000));
        fs->makeReadOnly();
        EXPECT_EQ(stub(fs->path("file")), -1);
        EXPECT_TRUE(readFile(fs->path("file")) == noise(9000));
    }
    expectError(-1, "Failed to open " + unmarked + ": Read-only file system");
    EXPECT_EQ(stub(m_path), -1);
    expectError(EROFS, "Failed to set attribute user.NkStubFile of " + m_path + ": Read-only file system");
    EXPECT_EQ(m_backEnd.setAMCTime(m_path.c_str(), 1, 1, 1), -1);
    expectError(-1, "Failed to change time of " + m_path + ": Read-only file system");
}

TEST_F(Driverless, TheMarkAloneMakesAStub) {
    const TestFs ramfs(FsKind::Ramfs);
    const std::string valid = stubText("m", 5000);
    struct Row {
        const char* mark; ///< null: on a file system without attributes
        std::string content;
        int isStub;
    };
    const Row rows[] = {
        {"1", "anything", 1}, {"11", valid, 0}, {"0", valid, 0},       {"-", valid, 0},
        {nullptr, valid, 1},  {nullptr, "", 0}, {nullptr, "plain", 0}, {nullptr, valid.substr(1), 0}};
    for (const Row& row : rows) {
        const std::string path = row.mark ? m_path : ramfs.path("file");
        writeFile(path, row.content);
        if (row.mark && *row.mark != '-')
            setAttribute(path, kMark, row.mark);
        setTimes(path, 1000, 2000);
        EXPECT_EQ(m_backEnd.isStub(path.c_str()), row.isStub)
            << (row.mark ? row.mark : "none") << row.content;
        expectError(0, "");
        EXPECT_EQ(statOf(path).st_atime, 1000) << "looking must not show";
        ::unlink(path.c_str());
    }
    EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), 0);
    expectError(4, "Failed to stat " + m_path + ": No such file or directory");
    EXPECT_EQ(m_backEnd.isStub(ramfs.dir().c_str()), 0);
    expectError(-1, "Failed to read from " + ramfs.dir());
}

TEST_F(Driverless, RestoreStubKeepsWhatItCannotReplace) {
    const std::string valid = stubText("m", 5000);
    struct Row {
        const char* name;
        std::vector<char> stubData;
        std::string text;
        std::string contentAfter;
    };
    const Row rows[] = {
        {"no data", {}, "Stub " + m_path + " has corrupt metadata.", "old"},
        {"cut", bytes(valid.substr(0, valid.size() - 1)), "Stub " + m_path + " has corrupt metadata.", "old"},
        {"size 0", bytes(stubText("m", 0)), "Failed to write into " + m_path + ": Invalid argument", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ::unlink(m_path.c_str());
        writeFile(m_path, "old");
        EXPECT_EQ(m_backEnd.restoreStub(m_path.c_str(), row.stubData), -1);
        expectError(-1, row.text);
        EXPECT_EQ(readFile(m_path), row.contentAfter);
    }
    EXPECT_EQ(m_backEnd.restoreStub(m_path.c_str(), bytes(valid)), -1);
    expectError(EEXIST, "Failed to set attribute user.NkStubFile of " + m_path + ": File exists");

    const std::string nowhere = m_fs.path("no/where");
    EXPECT_EQ(m_backEnd.restoreStub(nowhere.c_str(), bytes(valid)), -1);
    expectError(-1, "Failed to open " + nowhere + " for writing: No such file or directory");
}

TEST_F(Driverless, RestoreStubTakesLongMetadataAndMissingPaths) {
    const TestFs ramfs(FsKind::Ramfs);
    const std::string text = stubText(std::string(9000, 'm'), 5000);
    for (const TestFs* fs : {static_cast<const TestFs*>(&m_fs), &ramfs}) {
        const std::string path = fs->path("new");
        ASSERT_EQ(m_backEnd.restoreStub(path.c_str(), bytes(text)), 0) << m_backEnd.m_errorText;
        EXPECT_EQ(readFile(path), text);
        EXPECT_EQ(statOf(path).st_mode & 0777, 0600U);
        EXPECT_EQ(m_backEnd.isStub(path.c_str()), fs == &ramfs) << "the mark found no file to land on";
    }
}

TEST_F(Driverless, RestoreDoneRemovesTheMark) {
    writeFile(m_path, "x");
    setAttribute(m_path, kMark, "1");
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), false, {}), 0);
    EXPECT_EQ(attribute(m_path, kMark), "1");
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), true, {}), 0);
    EXPECT_EQ(attribute(m_path, kMark), "-");
    EXPECT_LT(m_backEnd.restoreDone(m_path.c_str(), true, {}), 0);
    expectError(ENODATA, "Failed to remove attribute user.NkStubFile of " + m_path + ": No data available");
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), false, {}), 0);
    EXPECT_EQ(m_backEnd.m_errorCode, ENODATA) << "the error is not cleared";
}

TEST_F(Driverless, BackupReadsTheAttributeBeforeTheFile) {
    const std::string path = m_fs.path("stub");
    const std::string inFile = stubText(std::string(2000, 'f'), 5000);
    const std::string inAttribute = stubText(std::string(3000, 'a'), 6000);
    writeFile(path, inFile);
    std::vector<char> saved(5, 'x');
    ASSERT_EQ(m_backEnd.backupStub(path.c_str(), saved), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(saved, bytes(inFile)) << "longer than the first guess of 1024 bytes";
    setAttribute(path, "user.TSTUB", inAttribute);
    ASSERT_EQ(m_backEnd.backupStubFromSnap(path.c_str(), saved), 0);
    EXPECT_EQ(saved, bytes(inAttribute));

    writeFile(m_path, "plain");
    EXPECT_EQ(m_backEnd.backupStub(m_path.c_str(), saved), -1);
    expectError(8, m_path + " is not a stub.");
    const std::string missing = m_fs.path("missing");
    EXPECT_EQ(m_backEnd.backupStub(missing.c_str(), saved), -1);
    expectError(-1, "Failed to open " + missing + ": No such file or directory");
    EXPECT_EQ(m_backEnd.backupStub(m_fs.dir().c_str(), saved), -1);
    expectError(-1, "Failed to read from " + m_fs.dir() + ": Is a directory");
}

TEST_F(Driverless, KnowsWhereStubsCanBeKept) {
    const TestFs ramfs(FsKind::Ramfs);
    EXPECT_EQ(m_backEnd.isDMRFS(m_fs.dir().c_str()), 1);
    EXPECT_EQ(m_backEnd.isDMRFS(ramfs.dir().c_str()), 0);
    expectError(
        0, "Extended Attribute is not supported in [ ramfs ] or extended attributed is disabled in mount "
           "option. ");
    {
        const TestConfig config("[FileSystemAgent]\nsArchiveNonExtData = yes\n");
        EXPECT_EQ(QZHSMLowLevelDriverless().isDMRFS(ramfs.dir().c_str()), 1);
    }
    {
        const TestConfig config("[FileSystemAgent]\nsArchiveNonExtData = Yes\n");
        EXPECT_EQ(QZHSMLowLevelDriverless().isDMRFS(ramfs.dir().c_str()), 0);
    }
    QZHSMLowLevelDriverless archiveDelete;
    archiveDelete.setArchiveAndDelete();
    EXPECT_EQ(archiveDelete.isDMRFS("/no/such/path"), 1);
    setAttribute(m_fs.dir(), kMark, "1");
    EXPECT_EQ(archiveDelete.isStub(m_fs.dir().c_str()), 0) << "nothing is a stub to it";
}

TEST_F(Driverless, NotesDevicesWithoutAttributes) {
    const TestFs first(FsKind::Ramfs);
    const TestFs second(FsKind::Ramfs);
    std::string found;
    m_backEnd.getNonXATTRmountPoints(found);
    EXPECT_EQ(found, "");
    EXPECT_FALSE(m_backEnd.isDMRFSforInPlaceRestore(second.dir().c_str()));
    EXPECT_FALSE(m_backEnd.isDMRFSforInPlaceRestore(first.dir().c_str()));
    EXPECT_FALSE(m_backEnd.isDMRFSforInPlaceRestore(first.path("missing").c_str())) << "not noted";
    EXPECT_TRUE(m_backEnd.isDMRFSforInPlaceRestore(m_fs.dir().c_str()));
    m_backEnd.getNonXATTRmountPoints(found);
    const bool inOrder = statOf(first.dir()).st_dev < statOf(second.dir()).st_dev;
    EXPECT_EQ(found,
              inOrder ? first.dir() + " " + second.dir() + " " : second.dir() + " " + first.dir() + " ");

    // One memory for all objects: the answer of one is the other's.
    QZHSMLowLevelDriverless archiveDelete;
    archiveDelete.setArchiveAndDelete();
    EXPECT_TRUE(archiveDelete.isDMRFSforInPlaceRestore(first.dir().c_str()));
    EXPECT_TRUE(m_backEnd.isDMRFSforInPlaceRestore(first.dir().c_str()));
}

TEST_F(Driverless, MigratedTreesCountAsWatched) {
    const std::string list = m_fs.path("trees");
    writeFile(list, "/data/a/\n\n/data/b\n");
    const TestConfig config("[Focus]\nclientName = c1\n[MigratedDirTrees]\nc1 = " + list + "\n");
    for (const auto& [dir, watched] :
         {std::pair{"/data/a", 1}, {"/data/a/x/y", 1}, {"/data/ab", 0}, {"/data", 0}})
        EXPECT_EQ(m_backEnd.isDirBeingWatched(dir), watched) << dir;
}

TEST_F(Driverless, StatFileShowsTheLinkItself) {
    const std::string link = m_fs.path("dangling");
    ASSERT_EQ(::symlink("nowhere", link.c_str()), 0);
    struct stat st {};
    ASSERT_EQ(m_backEnd.statFile(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(m_backEnd.statFile(m_path.c_str(), &st), -1);
    expectError(4, "Failed to stat " + m_path + ": No such file or directory");
    EXPECT_EQ(m_backEnd.setAMCTime(m_path.c_str(), 1, 1, 1), -1);
    expectError(4, "Failed to change time of " + m_path + ": No such file or directory");
}
