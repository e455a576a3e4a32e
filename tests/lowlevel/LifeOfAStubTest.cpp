#include "tests/lowlevel/LifeOfAStub.h"

#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "platform/files/UniqueFd.h"
#include "platform/stub/StubText.h"
#include "emulator/DriverEmulator.h"
#include "tests/support/LustreSite.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <unistd.h>

namespace {

long openDescriptors() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

constexpr const char* kMeta = "versionGuid=0123456789abcdef0123456789abcdef;job=7";

} // namespace

void LifeOfAStub::SetUp() {
    REQUIRE_FS(m_fs);
    emulator::driver() = {};
    ASSERT_EQ(m_backEnd->startWatchingDirTree(m_fs.dir().c_str()), 0) << m_backEnd->m_errorText;
}

int LifeOfAStub::stub(const std::string& path) {
    const struct stat st = statOf(path);
    const int result = m_backEnd->stubFile(path.c_str(), kMeta, st.st_mtime, st.st_size);
    m_world.settle(path);
    return result;
}

void LifeOfAStub::put(std::string_view data, long long offset) {
    ASSERT_GE(m_backEnd->seekFileTrans(offset, SEEK_SET), 0) << m_backEnd->m_errorText;
    while (!data.empty()) {
        const int written = m_backEnd->writeFileTrans(data.data(), static_cast<int>(data.size()), offset);
        ASSERT_GT(written, 0) << m_backEnd->m_errorText;
        data.remove_prefix(static_cast<size_t>(written));
        offset += written;
    }
}

bool LifeOfAStub::isMarked(const std::string& path) const {
    return m_world.mark && attribute(path, m_world.mark) != "-";
}

TEST_P(LifeOfAStub, GoesRoundAndComesBackIdentical) {
    const std::string path = m_fs.path("file");
    const std::string data = noise((1 << 20) * 3 + 13);
    writeFile(path, data);
    setTimes(path, 1'000'000'001, 1'000'000'002);
    const struct stat before = statOf(path);
    EXPECT_EQ(m_backEnd->isStub(path.c_str()), 0);
    const auto descriptors = openDescriptors();

    ASSERT_EQ(stub(path), 0) << m_backEnd->m_errorText;
    struct stat stubbed {};
    ASSERT_EQ(m_backEnd->statFile(path.c_str(), &stubbed), 0);
    EXPECT_EQ(stubbed.st_size, before.st_size);
    EXPECT_EQ(stubbed.st_atime, before.st_atime);
    EXPECT_EQ(stubbed.st_mtime, before.st_mtime);
    EXPECT_EQ(stubbed.st_mode, before.st_mode);
    if (m_world.givesDataUp) {
        EXPECT_LE(stubbed.st_blocks, 16) << "of " << before.st_blocks;
    }
    EXPECT_EQ(isMarked(path), m_world.mark != nullptr);
    EXPECT_EQ(m_backEnd->isStub(path.c_str()), 1) << m_backEnd->m_errorText;
    bool isStub = false;
    int state = 0;
    EXPECT_EQ(m_backEnd->getFileInfo(path.c_str(), &isStub, &state), 0);
    EXPECT_TRUE(isStub);

    std::vector<char> saved;
    ASSERT_EQ(m_backEnd->backupStub(path.c_str(), saved), 0) << m_backEnd->m_errorText;
    const std::string header(saved.begin(), saved.end());
    std::string left = m_world.givesDataUp ? std::string(data.size(), '\0') : data;
    if (m_world.textInFile)
        left.replace(0, header.size(), header);
    EXPECT_TRUE(readFile(path) == left) << "stub text where it belongs, and nothing but a hole";
    char meta[256];
    long long size = 0;
    ASSERT_TRUE(qzhsm_stub2meta(header.c_str(), nullptr, &size, meta, sizeof meta, false));
    EXPECT_STREQ(meta, kMeta);
    EXPECT_EQ(size, before.st_size);

    if (m_world.restoresMarks) {
        const std::string restored = m_fs.path("restored");
        writeFile(restored, "");
        ASSERT_EQ(m_backEnd->restoreStub(restored.c_str(), saved), 0) << m_backEnd->m_errorText;
        EXPECT_EQ(m_backEnd->isStub(restored.c_str()), 1);
        EXPECT_TRUE(readFile(restored) == left);
    }

    if (m_world.transparent) {
        ASSERT_EQ(m_backEnd->openFileTrans(path.c_str(), O_WRONLY, 0), 0) << m_backEnd->m_errorText;
        for (size_t done = 0; done < data.size(); done += 1 << 20)
            put(std::string_view(data).substr(done, 1 << 20), static_cast<long long>(done));
        ASSERT_EQ(m_backEnd->closeFileTrans(), 0);
        EXPECT_EQ(m_backEnd->setAMCTime(path.c_str(), before.st_atime, before.st_mtime, 0), 0);
        EXPECT_EQ(statOf(path).st_mtime, before.st_mtime);
        EXPECT_TRUE(readFile(path) == data);
    }
    EXPECT_EQ(m_backEnd->restoreDone(path.c_str(), false, {7, 8}), 0);
    EXPECT_EQ(isMarked(path), m_world.mark != nullptr);
    if (m_world.mark) {
        EXPECT_EQ(m_backEnd->restoreDone(path.c_str(), true, {7, 8}), m_world.done);
    }
    if (m_world.endsItself) {
        EXPECT_EQ(m_backEnd->isStub(path.c_str()), 0);
        EXPECT_FALSE(isMarked(path));
        EXPECT_EQ(m_backEnd->m_errorCode, 0);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(m_backEnd->stopWatchingDirTree(m_fs.dir().c_str()), 0);
}

TEST_P(LifeOfAStub, KeepsSizesBeyond32Bits) {
    const std::string path = m_fs.path("huge");
    writeFile(path, "");
    const off_t size = (5LL << 30) + 1;
    ASSERT_EQ(::truncate(path.c_str(), size), 0);
    ASSERT_EQ(stub(path), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(statOf(path).st_size, size);

    std::vector<char> saved;
    ASSERT_EQ(m_backEnd->backupStub(path.c_str(), saved), 0);
    if (m_world.restoresMarks) {
        const std::string restored = m_fs.path("restored");
        writeFile(restored, "");
        ASSERT_EQ(m_backEnd->restoreStub(restored.c_str(), saved), 0);
        EXPECT_EQ(statOf(restored).st_size, size);
    }
    if (m_world.transparent) {
        ASSERT_EQ(m_backEnd->openFileTrans(path.c_str(), O_RDWR, 0), 0);
        put("z", size - 1);
        EXPECT_EQ(m_backEnd->closeFileTrans(), 0);
        const UniqueFd file(::open(path.c_str(), O_RDONLY));
        char last = '\0';
        EXPECT_EQ(::pread(file.get(), &last, 1, size - 1), 1);
        EXPECT_EQ(last, 'z');
    }
    EXPECT_EQ(statOf(path).st_size, size);
}

TEST_P(LifeOfAStub, TakesAnyNameThatTheFileSystemTakes) {
    for (const char* name :
         {"plain", "not-utf8-\xff\xfe", "\xc3\xbcml\xc3\xa4ut", "with blank", "new\nline", "$(exit);'\"&"}) {
        if (!m_world.anyName && std::string_view(name).find_first_of(" \n'") != std::string_view::npos)
            continue;
        const std::string path = m_fs.path(name);
        writeFile(path, noise(5000));
        EXPECT_EQ(stub(path), 0) << m_backEnd->m_errorText;
        EXPECT_EQ(m_backEnd->isStub(path.c_str()), 1) << name;
    }
    if (m_world.anyName) {
        const Latin1Locale locale;
        const std::string local = m_fs.path("\xe4");
        writeFile(local, noise(5000));
        const std::string path = m_fs.path("\xc3\xa4");
        EXPECT_EQ(m_backEnd->stubFile(path.c_str(), kMeta, statOf(local).st_mtime, 5000), 0)
            << m_backEnd->m_errorText;
        m_world.settle(local);
        EXPECT_EQ(m_backEnd->isStub(path.c_str()), 1) << "in the locale's encoding";
    }
    const std::string link = m_fs.path("link");
    const std::string target = m_fs.path("target");
    writeFile(target, noise(5000));
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    EXPECT_EQ(stub(link), 0) << m_backEnd->m_errorText;
    EXPECT_EQ(m_backEnd->isStub(target.c_str()), 1);
}

TEST_P(LifeOfAStub, LeavesNoOldError) {
    const std::string path = m_fs.path("file");
    const char* p = path.c_str();
    writeFile(path, noise(5000));
    ASSERT_EQ(stub(path), 0) << m_backEnd->m_errorText;
    QZHSMLowLevel& backEnd = *m_backEnd;
    bool isStub = false;
    int state = 0;
    struct stat st {};
    std::vector<std::function<long long()>> calls = {[&] { return backEnd.startWatchingDirTree(p); },
                                                     [&] { return backEnd.isDMRFS(p); },
                                                     [&] { return backEnd.isDirBeingWatched(p); },
                                                     [&] { return backEnd.isStub(p); },
                                                     [&] { return backEnd.getFileInfo(p, &isStub, &state); },
                                                     [&] { return backEnd.statFile(p, &st); }};
    if (!m_world.textInFile) // the driverless `restoreDone` keeps the error, which its header says
        calls.emplace_back([&] { return backEnd.restoreDone(p, false, {}); });
    if (m_world.transparent) {
        calls.emplace_back([&] { return backEnd.setAMCTime(p, 1, 2, 3); });
        calls.emplace_back([&] { return backEnd.openFileTrans(p, O_RDWR, 0600); });
        calls.emplace_back([&] { return backEnd.writeFileTrans("x", 1, 0); });
    }
    for (size_t i = 0; i < calls.size(); ++i) {
        backEnd.m_errorCode = 99;
        backEnd.m_errorText = "old";
        EXPECT_GE(calls[i](), 0) << i << ": " << backEnd.m_errorText;
        EXPECT_NE(backEnd.m_errorCode, 99) << i;
        EXPECT_NE(backEnd.m_errorText, "old") << i;
    }
    EXPECT_GE(backEnd.closeFileTrans(), m_world.transparent ? 0 : -1);
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

    const std::string path = m_fs.path("first");
    writeFile(path, noise(5000));
    ASSERT_EQ(stub(path), 0) << backEnd.m_errorText;
    ASSERT_EQ(backEnd.openFileTrans(path.c_str(), O_RDWR, 0), 0);
    put("0123456789", 0);
    EXPECT_EQ(backEnd.seekFileTrans(0, SEEK_SET), 0);
    failedWith(backEnd.openFileTrans("/other", O_RDONLY, 0),
               "Attempt to open a new file /other in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(backEnd.writeFileTrans("abc", 3, 7), 3) << "the position counts, not the offset";
    EXPECT_EQ(backEnd.readFileTrans(buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "34");
    EXPECT_EQ(backEnd.seekFileTrans(-1, SEEK_END), 4999);
    EXPECT_EQ(backEnd.readFileTransAll(buffer, 10), 1) << "the file ends before ten bytes";
    failedWith(backEnd.seekFileTrans(-1, SEEK_SET), "Transparent seek() failed: Invalid argument");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
    EXPECT_EQ(readFile(path).substr(0, 10), "abc3456789");

    ASSERT_EQ(backEnd.openFileTrans(path.c_str(), O_RDONLY, 0), 0);
    failedWith(backEnd.writeFileTrans("x", 1, 0), m_world.writeRefused);
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
    ASSERT_EQ(backEnd.openFileTrans(path.c_str(), O_WRONLY, 0), 0);
    failedWith(backEnd.readFileTrans(buffer, 1), "Transparent read() failed: Bad file descriptor");
    EXPECT_EQ(backEnd.closeFileTrans(), 0);
}

namespace {

constexpr StubWorld driverless(const char* name, FsKind fs, const char* mark) {
    return {.name = name,
            .fs = fs,
            .create = createQZHSMLowLevelDriverless,
            .mark = mark,
            .textInFile = true,
            .writeRefused = "Transparent read() failed: Bad file descriptor"};
}
constexpr StubWorld kDriverlessExt4 = driverless("DriverlessExt4", FsKind::Ext4, "user.NkStubFile");
constexpr StubWorld kDriverlessTmpfs = driverless("DriverlessTmpfs", FsKind::Tmpfs, "user.NkStubFile");
constexpr StubWorld kDriverlessRamfs = driverless("DriverlessRamfs", FsKind::Ramfs, nullptr);
constexpr StubWorld kDriver{.name = "Driver",
                            .fs = FsKind::Ext4,
                            .create = createQZHSMLowLevelQZFS,
                            .mark = "user.nkfsdm.stub",
                            .writeRefused = "QZHSM_TRAN_WRITE failed: Bad file descriptor"};
constexpr StubWorld kDriverExtent{.name = "DriverExtent",
                                  .fs = FsKind::Ext4,
                                  .create = createQZHSMLowLevelQZFSExtent,
                                  .mark = "user.nkfsdm.stub"};

constexpr StubWorld glusterFs(const char* name, FsKind fs) {
    return {.name = name,
            .fs = fs,
            .create = createQZHSMLowLevelGlusterFs,
            .mark = "trusted.cloudsync.uuid",
            .givesDataUp = false,
            .restoresMarks = false,
            .endsItself = false,
            .done = 1,
            .settle = [](const std::string& path) { setAttribute(path, "trusted.glusterfs.cs.remote", ""); }};
}

constexpr StubWorld kLustre{.name = "Lustre",
                            .fs = FsKind::Ext4,
                            .create = createQZHSMLowLevelLustre,
                            .mark = "user.TSTUB",
                            .transparent = false,
                            .anyName = false,
                            .endsItself = false,
                            .done = 1};

const auto kName = [](const auto& tested) { return tested.param.name; };

} // namespace

INSTANTIATE_TEST_SUITE_P(Worlds, LifeOfAStub,
                         ::testing::Values(kDriverlessExt4, kDriverlessTmpfs, kDriverlessRamfs, kDriver,
                                           kDriverExtent, kLustre, glusterFs("GlusterFsExt4", FsKind::Ext4),
                                           glusterFs("GlusterFsTmpfs", FsKind::Tmpfs)),
                         kName);
INSTANTIATE_TEST_SUITE_P(Worlds, OneSession,
                         ::testing::Values(kDriverlessExt4, kDriverlessTmpfs, kDriverlessRamfs, kDriver),
                         kName);
