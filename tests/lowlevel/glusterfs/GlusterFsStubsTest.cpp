#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "lowlevel/glusterfs/CloudsyncAttributes.h"
#include "platform/stub/StubText.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TestFs.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr time_t kModified = 1'700'000'000;
constexpr const char* kMeta = "versionGuid=0123456789abcdef0123456789ABCDEF;job=7";
constexpr const char* kDashed = "01234567-89ab-cdef-0123-456789ABCDEF";
const std::string kGuid = "\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef";

std::string stubText(const std::string& meta, long long size) {
    std::string text(65536, '\0');
    text.resize(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, text.data(), 65536)));
    return text;
}

class GlusterFs : public ::testing::TestWithParam<FsKind> {
protected:
    void SetUp() override { REQUIRE_FS(m_fs); }

    /// A new file of 9000 bytes, last modified at 1700000000.
    void arrange() {
        ::unlink(m_path.c_str());
        writeFile(m_path, noise(9000));
        setTimes(m_path, 1000, kModified);
        m_log.take();
    }
    void arrangeStub() {
        arrange();
        ASSERT_EQ(stub(), 0) << m_backEnd.m_errorText;
        setAttribute(m_path, kRemote, "");
    }
    int stub(const std::string& meta = kMeta, time_t refTime = kModified) {
        return m_backEnd.stubFile(m_path.c_str(), meta.c_str(), refTime, 0);
    }
    /// The values of the five attributes, one a line.
    std::string attributes() const {
        std::string values;
        for (const char* name : kCloudsyncAttributes)
            values += attribute(m_path, name) + "\n";
        return values;
    }
    void expectFailure(long long result, int code, const std::string& text) const {
        EXPECT_EQ(result, -1);
        expectError(code, text);
    }
    void expectError(int code, const std::string& text) const {
        EXPECT_EQ(m_backEnd.m_errorCode, code);
        EXPECT_EQ(m_backEnd.m_errorText, text);
    }

    TestFs m_fs{GetParam()};
    std::string m_path = m_fs.path("file with blank");
    std::string m_missing = m_fs.path("missing");
    std::string m_notAStub = m_path + " is not a stub";
    RecordingLog m_log;
    TestConfig m_config{"[GlusterFS]\nstoreId = pool7\n"};
    QZHSMLowLevelGlusterFs m_backEnd;
};

} // namespace

TEST_P(GlusterFs, StubFileWritesTheSet) {
    const std::string expected[] = {
        "266 stubFile(" + m_path + ", " + kMeta + "), current_mtime=[1700000000], reftime=[1700000000]",
        "267 Will set xattr trusted.cloudsync.product-id=[quillmoor]",
        "268 Will set xattr trusted.cloudsync.store-id=[pool7]",
        std::string("269 Will set xattr trusted.cloudsync.uuid=[") + kDashed + "]",
        "270 Will set xattr trusted.glusterfs.csou.complete=[1699999999]"};
    std::string lines;
    for (const std::string& line : expected)
        lines += "5 virtual int QZHSMLowLevelGlusterFs::stubFile(const char*, const char*, time_t, long long "
                 "int) " +
                 line + "\n";
    for (const int level : {4, 5}) {
        arrange();
        m_log.setLevel(level);
        ASSERT_EQ(stub(), 0) << m_backEnd.m_errorText;
        EXPECT_EQ(attributes(),
                  "quillmoor\npool7\n" + kGuid + "\n" + stubText(kMeta, 9000) + "\n1699999999\n");
        EXPECT_EQ(m_log.take(), level < 5 ? "" : lines);
    }
    EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), 0) << "the volume has not done its part";
    EXPECT_TRUE(readFile(m_path) == noise(9000));
    m_backEnd.setStoreId("");
    arrangeStub();
    EXPECT_EQ(attribute(m_path, kCloudsyncAttributes[StoreId]), "");
    arrange();
    EXPECT_EQ(stub("versionGuid=0123456789abcdef0123456789abcdef0123"), 0)
        << "what is beyond 32 digits is dropped";
    EXPECT_EQ(attribute(m_path, kCloudsyncAttributes[Uuid]), kGuid);
}

TEST_P(GlusterFs, StubFileUndoesWhatItBegan) {
    const char* shown[] = {"quillmoor", "pool7", kDashed, kMeta, "1699999999"};
    for (size_t i = 0; i < std::size(shown); ++i) {
        arrange();
        setAttribute(m_path, kCloudsyncAttributes[i], "old");
        const std::string before = attributes();
        expectFailure(stub(), -1,
                      "stubFile(" + m_path + ") failed, setxattr(" + kCloudsyncAttributes[i] + ", " +
                          shown[i] + ") failed, error=File exists");
        EXPECT_EQ(attributes(), before);
        EXPECT_TRUE(readFile(m_path) == noise(9000));
    }
}

TEST_P(GlusterFs, StubFileRefusesAndTellsWhy) {
    const std::string function = "CWbError QZHSMLowLevelGlusterFs::GetVersionGUIDFromMetaInBinaryFormat("
                                 "const char*, unsigned char (&)[16], std::string&)";
    const std::string where = " (" + function + ", QZHSMLowLevelGlusterFs:";
    const std::string shortGuid = "0123456789abcdef0123";
    const struct {
        std::string meta;
        time_t refTime;
        std::string text;
    } rows[] = {
        {kMeta, kModified - 1, "file-changed since it backedup mtime(1700000000)>reftime(1699999999)"},
        {kMeta + std::string(65536, 'm'), kModified, "error=Message too long"},
        {"junk", kModified, "error=Invalid stub reparse data[junk]: Unknown error 1627" + where + "477)"},
        {std::string("versionGuid=") + kDashed, kModified,
         "error=uuid_parse(01234567--89a-b-cd-ef-0-123-456789AB) failed: Invalid argument" + where + "473)"},
        {"versionGuid=" + shortGuid, kModified,
         "error=uuid_parse(01234567-89ab-cdef-0123-) failed: Invalid argument" + where + "473)"},
    };
    for (const auto& row : rows) {
        arrange();
        errno = EDOM; // an old failure, which is nobody's reason
        expectFailure(stub(row.meta, row.refTime), -1, "stubFile(" + m_path + ") failed, " + row.text);
        EXPECT_EQ(attributes(), "-\n-\n-\n-\n-\n");
    }
    EXPECT_EQ(m_log.take(),
              "-1 " + function +
                  " 472 uuid_parse(01234567-89ab-cdef-0123-) failed, version-guid=" + shortGuid + "\n");
    EXPECT_THROW(stub("versionGuid=" + shortGuid.substr(1)), std::out_of_range);
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n-\n");
    expectFailure(m_backEnd.stubFile(m_missing.c_str(), kMeta, kModified, 0), -1,
                  "stubFile(" + m_missing + ") failed, error=No such file or directory");
}

TEST_P(GlusterFs, FourAttributesMakeAStub) {
    const std::string text = stubText(kMeta, 9000);
    const std::string zeros(4096, '\0');
    // All that is read, and more than that; ext4 holds no value of that length.
    const bool holdsLong = GetParam() == FsKind::Tmpfs;
    const std::string longest = holdsLong ? stubText(std::string(4030, 'm'), 9000) : text;
    const std::string tooLong = holdsLong ? longest + "m" : "-";
    const char* product = kCloudsyncAttributes[ProductId];
    const char* stubData = kCloudsyncAttributes[StubText];
    const struct {
        const char* name;
        std::string value; ///< "-": the attribute is removed
        int isStub;
        std::string stubData;
    } rows[] = {
        {product, "quillmoor", 1, text},
        {product, std::string("quillmoor\0", 10), 1, text},
        {product, "quillmoor2", 0, "old"},
        {product, std::string(64, 'q'), 0, "old"},
        {product, "quillmoor" + std::string(56, '\0'), 0, "old"}, // 65 bytes
        {product, "-", 0, "old"},
        {kCloudsyncAttributes[StoreId], "-", 0, "old"},
        {kCloudsyncAttributes[Uuid], "-", 0, "old"},
        {kRemote, "-", 0, "old"},
        {kCloudsyncAttributes[Complete], "-", 1, text},
        {stubData, "-", 1, zeros},
        {stubData, text + "tail", 1, text},
        {stubData, longest, 1, longest},
        {stubData, tooLong, 1, zeros},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name + row.value.substr(0, 20));
        arrangeStub();
        if (row.value == "-")
            ::removexattr(m_path.c_str(), row.name);
        else
            setAttribute(m_path, row.name, row.value);
        EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), row.isStub);
        expectError(8, m_notAStub);
        bool isStub = row.isStub == 0;
        std::vector<char> data{'o', 'l', 'd'};
        EXPECT_EQ(m_backEnd.getStubData(m_path.c_str(), isStub, data, 0), 0);
        EXPECT_EQ(isStub, row.isStub == 1);
        EXPECT_EQ(std::string(data.begin(), data.end()), row.stubData);
        EXPECT_EQ(m_backEnd.backupStub(m_path.c_str(), data), row.isStub == 1 ? 0 : -1);
        expectError(row.isStub == 1 ? 8 : -1, m_notAStub);
    }
}

TEST_P(GlusterFs, CorruptStubTextMakesNoStub) {
    arrangeStub();
    setAttribute(m_path, kCloudsyncAttributes[StubText], "corrupt");
    bool isStub = true;
    int state = 0;
    EXPECT_EQ(m_backEnd.getFileInfo(m_path.c_str(), &isStub, &state), 0);
    EXPECT_FALSE(isStub);
    EXPECT_EQ(state, 2);
    expectError(8, m_notAStub + ", corrupt meta-data");
    EXPECT_EQ(m_log.take(), "0 int QZHSMLowLevelGlusterFs::getStubData(const char*, bool&, "
                            "std::vector<char>&, const off_t&) 178 " +
                                m_backEnd.m_errorText + "\n");
    m_log.setLevel(-1);
    EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), 0);
    EXPECT_EQ(m_log.take(), "");
    std::vector<char> data;
    expectFailure(m_backEnd.backupStub(m_path.c_str(), data), -1, m_notAStub);
    arrangeStub();
    const std::string link = m_fs.path("link");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    EXPECT_EQ(m_backEnd.isStub(link.c_str()), 0);
    setAttribute(m_path, kCloudsyncAttributes[StubText], "corrupt");
    expectFailure(m_backEnd.backupStub(m_missing.c_str(), data), 4,
                  "Failed to stat " + m_missing + ": No such file or directory");
}

TEST_P(GlusterFs, RestoreStubWritesTheMarkerOrEndsTheStub) {
    arrange();
    EXPECT_EQ(m_backEnd.restoreStub(m_path.c_str(), {}), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n1700000000\n");
    arrangeStub();
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), true, {7}), 1);
    EXPECT_EQ(m_backEnd.restoreDone(m_path.c_str(), false, {7}), 0);
    EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), 1);
    expectFailure(m_backEnd.restoreStub(m_path.c_str(), {'x'}), -1,
                  "stubFile(" + m_path +
                      ") failed, setxattr(trusted.glusterfs.csou.complete, 1700000000) failed, "
                      "error=File exists");
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n1699999999\n");
    expectFailure(m_backEnd.restoreStub(m_missing.c_str(), {}), -1,
                  m_missing + "not found, error=No such file or directory");
}

TEST_P(GlusterFs, TransparentIoIsPlainIo) {
    arrange();
    EXPECT_EQ(m_backEnd.closeFileTrans(), 0);
    expectFailure(m_backEnd.writeFileTrans("x", 1, 0), -1, "write(-1) failed error=Bad file descriptor");
    expectFailure(m_backEnd.seekFileTrans(0, SEEK_SET), -1, "seek(-1) failed error=Bad file descriptor");
    expectFailure(m_backEnd.openFileTrans(m_missing.c_str(), O_WRONLY, 0), -1,
                  "open(" + m_missing + ") failed, error=No such file or directory");
    ASSERT_EQ(m_backEnd.openFileTrans(m_path.c_str(), O_RDWR, 0), 0);
    expectFailure(
        m_backEnd.openFileTrans("/other", O_RDONLY, 0), -1,
        "Attempt to open a new file /other in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(m_backEnd.writeFileTrans("abc", 3, 4096), 3) << "the position counts, not the offset";
    EXPECT_EQ(m_backEnd.seekFileTrans(-1, SEEK_END), 8999);
    EXPECT_EQ(m_backEnd.writeFileTransAll("yz", 2), 2);
    char buffer = 0;
    expectFailure(m_backEnd.readFileTrans(&buffer, 1), 38, "readFileTrans not implemented");
    EXPECT_EQ(m_backEnd.closeFileTrans(), 0);
    EXPECT_EQ(readFile(m_path), "abc" + noise(9000).substr(3, 8996) + "yz");
    expectFailure(m_backEnd.setAMCTime(m_missing.c_str(), 1, 1, 1), 4,
                  "Failed to change time of " + m_missing + ": No such file or directory");
    EXPECT_EQ(m_backEnd.isDirBeingWatched("/no/such"), 1);
    expectError(0, "");
}

INSTANTIATE_TEST_SUITE_P(On, GlusterFs, ::testing::Values(FsKind::Ext4, FsKind::Tmpfs),
                         [](const auto& tested) { return tested.param == FsKind::Ext4 ? "Ext4" : "Tmpfs"; });
