#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/errors/NkException.h"
#include "platform/stub/CloudsyncAttributes.h"
#include "tests/support/BackEndTest.h"

#include <cerrno>
#include <sys/xattr.h>

namespace {

constexpr const char* kMeta = "versionGuid=0123456789abcdef0123456789ABCDEF;job=7";
constexpr const char* kDashed = "01234567-89ab-cdef-0123-456789ABCDEF";
const std::string kGuid = "\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef";

class GlusterFsStubs : public BackEndTest<QZHSMLowLevelGlusterFs, 4> {
protected:
    int stub(const std::string& meta = kMeta, time_t refTime = kModified) {
        return m_backEnd.stubFile(m_path.c_str(), meta.c_str(), refTime, 0);
    }
    void arrangeStub() {
        arrange();
        ASSERT_EQ(stub(), 0) << m_backEnd.m_errorText;
        setAttribute(m_path, kRemote, "");
    }
    /// The values of the five attributes, one a line.
    std::string attributes() const {
        std::string values;
        for (const char* name : kCloudsyncAttributes)
            values += attribute(m_path, name) + "\n";
        return values;
    }
};

} // namespace

TEST_F(GlusterFsStubs, StubFileWritesTheSet) {
    arrange();
    m_backEnd.setStoreId("");
    ASSERT_EQ(stub("versionGuid=0123456789abcdef0123456789abcdefbeyond"), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(attribute(m_path, kCloudsyncAttributes[StoreId]), "");
    EXPECT_EQ(attribute(m_path, kCloudsyncAttributes[Uuid]), kGuid) << "what is beyond 32 digits is dropped";

    arrange();
    m_log.setLevel(5);
    const TestConfig config("[GlusterFS]\nstoreId = pool7\n");
    QZHSMLowLevelGlusterFs configured;
    ASSERT_EQ(configured.stubFile(m_path.c_str(), kMeta, kModified, 0), 0) << configured.m_errorText;
    EXPECT_EQ(attributes(), "quillmoor\npool7\n" + kGuid + "\n" + stubText(kMeta, 9000) + "\n1699999999\n");
    const std::string tag =
        "5 virtual int QZHSMLowLevelGlusterFs::stubFile(const char*, const char*, time_t, long long int) ";
    expectLog(tag + "266 stubFile(@, " + kMeta + "), current_mtime=[1700000000], reftime=[1700000000]\n" +
              tag + "267 Will set xattr trusted.cloudsync.product-id=[quillmoor]\n" + tag +
              "268 Will set xattr trusted.cloudsync.store-id=[pool7]\n" + tag +
              "269 Will set xattr trusted.cloudsync.uuid=[" + kDashed + "]\n" + tag +
              "270 Will set xattr trusted.glusterfs.csou.complete=[1699999999]\n");
}

TEST_F(GlusterFsStubs, StubFileUndoesWhatItBegan) {
    m_backEnd.setStoreId("pool7");
    const char* shown[] = {"quillmoor", "pool7", kDashed, kMeta, "1699999999"};
    for (size_t i = 0; i < std::size(shown); ++i) {
        arrange();
        setAttribute(m_path, kCloudsyncAttributes[i], "old");
        const std::string before = attributes();
        expectFailure(stub(), -1,
                      std::string("stubFile(@) failed, setxattr(") + kCloudsyncAttributes[i] + ", " +
                          shown[i] + ") failed, error=File exists");
        EXPECT_EQ(attributes(), before);
    }
}

TEST_F(GlusterFsStubs, StubFileRefusesAndTellsWhy) {
    const std::string function = "CWbError QZHSMLowLevelGlusterFs::GetVersionGUIDFromMetaInBinaryFormat("
                                 "const char*, unsigned char (&)[16], std::string&)";
    const std::string where = " (" + function + ", QZHSMLowLevelGlusterFs:";
    const std::string shortGuid = "0123456789abcdef0123";
    const std::tuple<std::string, time_t, std::string> rows[] = {
        {kMeta, kModified - 1, "file-changed since it backedup mtime(1700000000)>reftime(1699999999)"},
        {kMeta + std::string(65536, 'm'), kModified, "error=Message too long"},
        {"junk", kModified, "error=Invalid stub reparse data[junk]: Unknown error 1627" + where + "477)"},
        {"versionGuid=" + shortGuid, kModified,
         "error=uuid_parse(01234567-89ab-cdef-0123-) failed: Invalid argument" + where + "473)"},
    };
    for (const auto& [meta, refTime, text] : rows) {
        arrange();
        errno = 0;
        expectFailure(stub(meta, refTime), -1, "stubFile(@) failed, " + text);
        EXPECT_EQ(attributes(), "-\n-\n-\n-\n-\n");
    }
    expectLog("-1 " + function +
              " 472 uuid_parse(01234567-89ab-cdef-0123-) failed, version-guid=" + shortGuid + "\n");
    EXPECT_THROW(stub("versionGuid=" + shortGuid.substr(1)), std::out_of_range);
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n-\n");
    expectFailure(m_backEnd.stubFile(m_missing.c_str(), kMeta, kModified, 0), -1,
                  "stubFile(@) failed, error=No such file or directory", m_missing);
}

TEST_F(GlusterFsStubs, FourAttributesMakeAStub) {
    const std::string text = stubText(kMeta, 9000);
    const std::string zeros(4096, '\0');
    const std::string longest = stubText(std::string(4030, 'm'), 9000); // all that is read
    const char* product = kCloudsyncAttributes[ProductId];
    const char* stubData = kCloudsyncAttributes[StubText];
    const std::tuple<const char*, std::string, bool, std::string> rows[] = {
        // "-" is removed
        {product, "quillmoor", true, text},
        {product, std::string("quillmoor\0", 10), true, text},
        {product, "quillmoor2", false, "old"},
        {product, std::string(64, 'q'), false, "old"},
        {product, "quillmoor" + std::string(56, '\0'), false, "old"}, // 65 bytes
        {product, "-", false, "old"},
        {kCloudsyncAttributes[StoreId], "-", false, "old"},
        {kCloudsyncAttributes[Uuid], "-", false, "old"},
        {kRemote, "-", false, "old"},
        {kCloudsyncAttributes[Complete], "-", true, text},
        {stubData, "-", true, zeros},
        {stubData, "", true, zeros},
        {stubData, text + "tail", true, text},
        {stubData, longest, true, longest},
        {stubData, longest + "m", true, zeros},
    };
    for (const auto& [name, value, expected, read] : rows) {
        SCOPED_TRACE(name + value.substr(0, 20));
        arrangeStub();
        if (value == "-")
            ::removexattr(m_path.c_str(), name);
        else
            setAttribute(m_path, name, value);
        EXPECT_EQ(m_backEnd.isStub(m_path.c_str()), expected);
        expectError(8, "@ is not a stub");
        bool isStub = !expected;
        std::vector<char> data{'o', 'l', 'd'};
        EXPECT_EQ(m_backEnd.getStubData(m_path.c_str(), isStub, data, 0), 0);
        EXPECT_EQ(isStub, expected);
        EXPECT_EQ(data, bytes(read));
        EXPECT_EQ(m_backEnd.backupStub(m_path.c_str(), data), expected ? 0 : -1);
        expectError(expected ? 8 : -1, "@ is not a stub");
    }
    arrangeStub();
    ASSERT_EQ(::symlink(m_path.c_str(), m_fs.path("link").c_str()), 0);
    EXPECT_EQ(m_backEnd.isStub(m_fs.path("link").c_str()), 0) << "the link itself is looked at";
}

TEST_F(GlusterFsStubs, CorruptStubTextMakesNoStub) {
    arrangeStub();
    setAttribute(m_path, kCloudsyncAttributes[StubText], "corrupt");
    bool isStub = true;
    int state = 0;
    for (const int level : {0, -1}) {
        m_log.setLevel(level);
        EXPECT_EQ(m_backEnd.getFileInfo(m_path.c_str(), &isStub, &state), 0);
        EXPECT_FALSE(isStub);
        EXPECT_EQ(state, 2);
        expectError(8, "@ is not a stub, corrupt meta-data");
        expectLog(level < 0
                      ? ""
                      : "0 int QZHSMLowLevelGlusterFs::getStubData(const char*, bool&, std::vector<char>&, "
                        "const off_t&) 178 @ is not a stub, corrupt meta-data\n");
    }
    std::vector<char> data;
    expectFailure(m_backEnd.getStubData(m_path.c_str(), isStub, data, 0), 8,
                  "@ is not a stub, corrupt meta-data");
    expectFailure(m_backEnd.backupStub(m_path.c_str(), data), -1, "@ is not a stub");
    expectFailure(m_backEnd.backupStub(m_missing.c_str(), data), 4,
                  "Failed to stat @: No such file or directory", m_missing);
}

TEST_F(GlusterFsStubs, RestoreStubWritesTheMarkerOrEndsTheStub) {
    arrange();
    EXPECT_EQ(m_backEnd.restoreStub(m_path.c_str(), {}), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n1700000000\n");
    arrangeStub();
    expectFailure(m_backEnd.restoreStub(m_path.c_str(), {'x'}), -1,
                  "stubFile(@) failed, setxattr(trusted.glusterfs.csou.complete, 1700000000) failed, "
                  "error=File exists");
    EXPECT_EQ(attributes(), "-\n-\n-\n-\n1699999999\n");
    expectFailure(m_backEnd.restoreStub(m_missing.c_str(), {}), -1,
                  "@not found, error=No such file or directory", m_missing);
}

TEST_F(GlusterFsStubs, AreNotMadeWithoutTheConfiguration) {
    const TestEnvironment unreadable("QZHSM_CONFIG", m_fs.dir());
    EXPECT_THROW(QZHSMLowLevelGlusterFs(), NkException);
}
