#include "lowlevel/lustre/LustrePath.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/stub/StubText.h"
#include "tests/support/LustreSite.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TestFs.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/xattr.h>

namespace {

constexpr time_t kModified = 1'700'000'000;
constexpr const char* kStubAttribute = "user.TSTUB";

std::string stubText(const std::string& meta, long long size) {
    std::string text(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, nullptr, 0)), '\0');
    qzhsm_meta2stub(meta.c_str(), size, text.data(), static_cast<int>(text.size()));
    return text;
}

std::vector<char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

class Lustre : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_FS(m_fs); }

    /// A new file of 9000 bytes without attributes.
    void arrange() {
        std::filesystem::remove(m_path);
        writeFile(m_path, noise(9000));
        setTimes(m_path, 1000, kModified);
        m_log.take();
    }
    int stub(const std::string& meta = "abc") {
        return m_lustre.stubFile(m_path.c_str(), meta.c_str(), kModified, 0);
    }
    void expectError(int code, const std::string& text) const {
        EXPECT_EQ(m_lustre.m_errorCode, code);
        EXPECT_EQ(m_lustre.m_errorText, text);
    }
    std::string calls() const { return readFile(m_trace); }

    TestFs m_fs{FsKind::Tmpfs};
    const std::string m_path = m_fs.path("file");
    const std::string m_missing = m_fs.path("missing");
    const std::string m_trace = m_fs.path("trace");
    const TestEnvironment m_tracing{"LFS_TRACE", m_trace};
    RecordingLog m_log{2};
    QZHSMLowLevelLustre m_lustre;
};

} // namespace

TEST_F(Lustre, IsAskedOnlyWhereThereIsStubText) {
    arrange();
    EXPECT_EQ(m_lustre.isStub(m_path.c_str()), 0);
    expectError(8, m_path + " is not a stub");
    EXPECT_EQ(m_log.take(), "");
    EXPECT_EQ(m_lustre.isStub(m_missing.c_str()), 0);
    expectError(8, m_missing + " is not a stub");
    EXPECT_EQ(m_log.take(), "-1 virtual int QZHSMLowLevelLustre::isStub(const char*) 252 lgetxattr(" +
                                m_missing + ") failed, error=No such file or directory\n");
    EXPECT_EQ(calls(), "") << "no process was started";

    for (const std::string& text : {std::string(), std::string("any"), std::string(3000, 'x')}) {
        setAttribute(m_path, kStubAttribute, text);
        EXPECT_EQ(m_lustre.isStub(m_path.c_str()), 0);
        expectError(0, "");
    }
    EXPECT_EQ(calls(), "hsm_state " + m_path + "\nhsm_state " + m_path + "\nhsm_state " + m_path + "\n");
    setAttribute(m_path, "user.lustre.hsm", "0 1");
    bool isStub = false;
    int state = 0;
    EXPECT_EQ(m_lustre.getFileInfo(m_path.c_str(), &isStub, &state), 0);
    EXPECT_TRUE(isStub);
    EXPECT_EQ(state, 2);
    expectError(0, "");

    const TestEnvironment noCommands("PATH", "/nonexistent");
    std::string text = "kept";
    EXPECT_EQ(m_lustre.isStub(m_path.c_str()), 0);
    EXPECT_EQ(m_lustre.getHSMState(m_path.c_str(), text), -1);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(m_lustre.m_errorCode, -1);
    EXPECT_EQ(m_lustre.m_errorText.find("lfs hsm_state " + m_path + " failed, error="), 0U);
    EXPECT_NE(m_lustre.m_errorText.find("not found"), std::string::npos) << m_lustre.m_errorText;
}

TEST_F(Lustre, GetsPathsUnquoted) {
    std::string state;
    EXPECT_EQ(m_lustre.getHSMState("/a b", state), 0) << "whatever the command's exit status";
    EXPECT_EQ(calls(), "hsm_state /a b\n");
    EXPECT_EQ(state, "") << "it had three arguments";
    EXPECT_EQ(m_lustre.getHSMState("x; echo released", state), 0);
    EXPECT_EQ(state, "released\n");
}

TEST_F(Lustre, StubsByArchivingAndReleasing) {
    const std::string request = m_path + ", abc|1700000000)\n";
    for (const int level : {2, 3}) {
        arrange();
        m_log.setLevel(level);
        ASSERT_EQ(stub(), 0) << m_lustre.m_errorText;
        EXPECT_EQ(attribute(m_path, kStubAttribute), stubText("abc", 9000));
        EXPECT_EQ(readFile(m_path), std::string(9000, '\0'));
        EXPECT_EQ(m_log.take(),
                  level < 3
                      ? ""
                      : "3 virtual int QZHSMLowLevelLustre::stubFile(const char*, const char*, time_t, long "
                        "long int) 292 stubFile(" +
                            request +
                            "3 int QZHSMLowLevelLustre::releaseFile(const char*, bool) 202 releaseFile(" +
                            m_path + ")\n");
    }
    EXPECT_EQ(m_lustre.isStub(m_path.c_str()), 1);
    const std::string tag = "3 int QZHSMLowLevelLustre::getHSMState(const char*, std::string&) ";
    const std::string state = m_path + ": (0x0000000d) released exists archived, archive_id:1\n";
    EXPECT_EQ(m_log.take(), tag + "227 lfs hsm_state " + m_path + "\n" + tag + "234 " + m_path +
                                " sOut=" + state + ", sErr=\n");
    std::vector<char> saved;
    m_log.setLevel(2);
    EXPECT_EQ(m_lustre.isStub(m_path.c_str()), 1);
    m_log.setLevel(4);
    EXPECT_EQ(m_lustre.backupStub(m_path.c_str(), saved), 0);
    EXPECT_EQ(m_log.take(), "");
    const std::string link = m_fs.path("link");
    std::filesystem::create_symlink(m_path, link);
    EXPECT_EQ(m_lustre.isStub(link.c_str()), 0);
    m_log.setLevel(5);
    EXPECT_EQ(m_lustre.backupStub(m_path.c_str(), saved), 0);
    EXPECT_EQ(
        m_log.take(),
        "5 virtual int QZHSMLowLevelLustre::backupStub(const char*, std::vector<char>&) 130 backupStub(" +
            m_path + ", " + std::to_string(saved.size()) + ")\n");
}

TEST_F(Lustre, KeepsTheDataOfWhatIsNotArchived) {
    const struct {
        const char* name;
        const char* value;
        std::string text; ///< before the path
        std::string reason;
    } rows[] = {
        {"LUSTRE_FAIL", "alloc:1", "Failed to make an archive request for ", " Cannot allocate memory"},
        {"LUSTRE_FAIL", "path2fid:2", "Failed to learn the FID of ", " No such file or directory"},
        {"LUSTRE_FAIL", "request:16", "Failed to request archiving of ", " Device or resource busy"},
        {"LUSTRE_FAIL", "state_get:5", "Failed to learn the HSM state of ", " Input/output error"},
        {"LUSTRE_DELAY_MS", "60000", "Not archived within 0 seconds: ", " Connection timed out"},
    };
    const TestConfig config("[Lustre]\narchiveTimeout = 0\n");
    const QZHSMLowLevelLustre reader;
    for (const auto& row : rows) {
        arrange();
        const TestEnvironment environment(row.name, row.value);
        EXPECT_EQ(stub(), -1) << row.value;
        expectError(-1, row.text + m_path + row.reason);
        EXPECT_EQ(readFile(m_path), noise(9000));
    }
    arrange();
    setTimes(m_path, 1000, kModified + 1);
    EXPECT_EQ(stub(), -1) << "the copy agent compares";
    EXPECT_EQ(calls(), "") << "nothing was released";
}

TEST_F(Lustre, LosesStubTextWhereTheReleaseCannotBeRun) {
    const TestEnvironment noCommands("PATH", "/nonexistent");
    const std::string failed = "lfs hsm_release " + m_path + " failed, error=";
    const std::string notRemoved =
        "-1 int QZHSMLowLevelLustre::releaseFile(const char*, bool) 214 removexattr(" + m_path +
        ") failed, error=No data available\n";
    arrange();
    EXPECT_EQ(stub(), -1);
    EXPECT_EQ(m_lustre.m_errorText.find(failed), 0U) << m_lustre.m_errorText;
    EXPECT_EQ(attribute(m_path, kStubAttribute), "-");
    EXPECT_EQ(readFile(m_path), noise(9000));
    EXPECT_EQ(m_log.take(), "");
    setAttribute(m_path, kStubAttribute, "text");
    EXPECT_EQ(m_lustre.releaseFile(m_path.c_str(), false), -1);
    EXPECT_EQ(attribute(m_path, kStubAttribute), "text");
    EXPECT_EQ(m_lustre.releaseFile(m_path.c_str(), true), -1);
    EXPECT_EQ(attribute(m_path, kStubAttribute), "-");
    EXPECT_EQ(m_log.take(), "");
    EXPECT_EQ(m_lustre.releaseFile(m_path.c_str(), true), -1);
    EXPECT_EQ(m_lustre.m_errorText.find(failed), 0U);
    EXPECT_EQ(m_log.take(), notRemoved);
}

TEST_F(Lustre, SavesAndRestoresStubData) {
    arrange();
    std::vector<char> saved;
    EXPECT_EQ(m_lustre.backupStub(m_path.c_str(), saved), -1);
    expectError(0, "");
    setAttribute(m_path, kStubAttribute, "no stub text");
    EXPECT_EQ(m_lustre.backupStub(m_path.c_str(), saved), -1);
    expectError(8, m_path + " is not a stub.");
    const std::string longText = stubText(std::string(3000, 'm'), 9000);
    setAttribute(m_path, kStubAttribute, longText);
    EXPECT_EQ(m_lustre.backupStub(m_path.c_str(), saved), 0) << "in two passes";
    EXPECT_EQ(std::string(saved.begin(), saved.end()), longText);

    const std::string restored = m_fs.path("restored");
    for (const long long size : {1LL, 9000LL}) {
        std::filesystem::remove(restored);
        EXPECT_EQ(m_lustre.restoreStub(restored.c_str(), bytes(stubText("abc", size))), 0)
            << m_lustre.m_errorText;
        EXPECT_EQ(m_lustre.isStub(restored.c_str()), 1);
        EXPECT_EQ(readFile(restored), std::string(static_cast<size_t>(size), '\0'));
    }
    std::string corrupt = longText;
    corrupt.back() = 'x';
    const std::string empty = m_fs.path("empty");
    const std::string directory = m_fs.path("");
    const struct {
        std::string path;
        std::string data;
        std::string text;
    } rows[] = {
        {restored, corrupt, "Stub " + restored + " has corrupt metadata."},
        {directory, longText, "Failed to open " + directory + " for writing: Is a directory"},
        {restored, longText, "Failed to set xattr" + restored + " error=File exists"},
        {empty, stubText("abc", 0), "Failed to write into " + empty + ": Invalid argument"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(m_lustre.restoreStub(row.path.c_str(), bytes(row.data)), -1) << row.text;
        expectError(-1, row.text);
    }
}

TEST(LustrePath, AddressesByFid) {
    const struct {
        lu_fid fid;
        int size;
        const char* text;
        int length;
    } rows[] = {
        {{0x200000401, 1, 0}, 99, "/mnt/lfs/.lustre/fid/0x200000401:0x1:0x0", 40},
        {{0, 0xab, 2}, 99, "/mnt/lfs/.lustre/fid/0:0xab:0x2", 31},
        {{0x200000401, 1, 0}, 10, "/mnt/lfs/", 40},
    };
    for (const auto& row : rows) {
        char text[99];
        EXPECT_EQ(path_lustre(text, row.size, "/mnt/lfs", &row.fid), row.length);
        EXPECT_STREQ(text, row.text);
    }
}
