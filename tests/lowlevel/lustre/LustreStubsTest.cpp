#include "lowlevel/lustre/LustrePath.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "tests/support/BackEndTest.h"

#include <climits>

namespace {

constexpr const char* kStubAttribute = "user.TSTUB";

class LustreStubs : public BackEndTest<QZHSMLowLevelLustre, 2> {
protected:
    int stub() { return m_backEnd.stubFile(m_path.c_str(), "abc", kModified, 0); }
    int isStub() { return m_backEnd.isStub(m_path.c_str()); }
    /// If "lfs" cannot be run, as the shell says.
    void expectNotRun(int result, const std::string& command) const {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(m_backEnd.m_errorCode, -1);
        EXPECT_TRUE(m_backEnd.m_errorText.starts_with(about(command + " @ failed, error=")) &&
                    m_backEnd.m_errorText.ends_with("not found\n"))
            << m_backEnd.m_errorText;
    }
    std::string calls() const { return readFile(m_trace); }

    const std::string m_trace = m_fs.path("trace");
    const TestEnvironment m_tracing{"LFS_TRACE", m_trace};
};

} // namespace

TEST_F(LustreStubs, AreAskedForOnlyWhereThereIsStubText) {
    arrange();
    EXPECT_EQ(isStub(), 0);
    expectError(8, "@ is not a stub");
    expectLog("");
    EXPECT_EQ(m_backEnd.isStub(m_missing.c_str()), 0);
    expectError(8, "@ is not a stub", m_missing);
    expectLog("-1 virtual int QZHSMLowLevelLustre::isStub(const char*) 252 lgetxattr(@) failed, "
              "error=No such file or directory\n",
              m_missing);
    ASSERT_EQ(::symlink(m_path.c_str(), m_fs.path("link").c_str()), 0);
    EXPECT_EQ(calls(), "") << "no process was started";

    for (const std::string& text : {std::string(), std::string(3000, 'x')}) {
        setAttribute(m_path, kStubAttribute, text);
        for (const char* state : {"", "0 0", "0 1"}) { // neither, archived, released
            setAttribute(m_path, "user.lustre.hsm", state);
            bool found = *state == '\0';
            int fileState = 0;
            EXPECT_EQ(m_backEnd.getFileInfo(m_path.c_str(), &found, &fileState), 0);
            EXPECT_EQ(found, state == std::string("0 1")) << state;
            EXPECT_EQ(fileState, 2);
            expectError(0, "");
        }
    }
    EXPECT_EQ(m_backEnd.isStub(m_fs.path("link").c_str()), 0) << "the link itself is looked at";
    EXPECT_EQ(calls().substr(0, calls().find('\n')), "hsm_state " + m_path);

    const TestEnvironment noCommands("PATH", "/nonexistent");
    std::string state = "kept";
    EXPECT_EQ(isStub(), 0);
    expectNotRun(m_backEnd.getHSMState(m_path.c_str(), state), "lfs hsm_state");
    EXPECT_EQ(state, "kept");
}

TEST_F(LustreStubs, PathsReachTheCommandUnquoted) {
    std::string state;
    EXPECT_EQ(m_backEnd.getHSMState("a b; echo released; exit 3", state), 0) << "whatever the exit status";
    expectError(0, "");
    EXPECT_EQ(state, "released\n");
    EXPECT_EQ(calls(), "hsm_state a b\n");
}

TEST_F(LustreStubs, PathsReachLustreInTheLocalesEncoding) {
    const Latin1Locale locale;
    const std::string path = m_fs.path("\xc3\xa4");
    const std::string local = m_fs.path("\xe4");
    writeFile(local, noise(9000));
    EXPECT_EQ(m_backEnd.stubFile(path.c_str(), "abc", LONG_MAX, 0), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(attribute(local, kStubAttribute), stubText("abc", 9000));
    EXPECT_EQ(m_backEnd.isStub(path.c_str()), 0) << "the command, which gets it as it is, does not find it";
    expectError(0, "");
    const TestEnvironment noCommands("PATH", "/nonexistent");
    EXPECT_EQ(m_backEnd.releaseFile(path.c_str(), true), -1);
    EXPECT_EQ(attribute(local, kStubAttribute), "-");
}

TEST_F(LustreStubs, StubFileArchivesAndReleases) {
    arrange();
    m_log.setLevel(3);
    ASSERT_EQ(stub(), 0) << m_backEnd.m_errorText;
    expectLog(
        "3 virtual int QZHSMLowLevelLustre::stubFile(const char*, const char*, time_t, long long int) 292 "
        "stubFile(@, abc|1700000000)\n"
        "3 int QZHSMLowLevelLustre::releaseFile(const char*, bool) 202 releaseFile(@)\n");
    EXPECT_EQ(isStub(), 1);
    const std::string tag = "3 int QZHSMLowLevelLustre::getHSMState(const char*, std::string&) ";
    expectLog(tag + "227 lfs hsm_state @\n" + tag +
              "234 @ sOut=@: (0x0000000d) released exists archived, archive_id:1\n, sErr=\n");
    std::vector<char> saved;
    for (const int level : {4, 5}) {
        m_log.setLevel(level);
        EXPECT_EQ(m_backEnd.backupStub(m_path.c_str(), saved), 0);
    }
    expectLog("5 virtual int QZHSMLowLevelLustre::backupStub(const char*, std::vector<char>&) 130 "
              "backupStub(@, 69)\n");
}

TEST_F(LustreStubs, StubFileKeepsTheDataOfWhatIsNotArchived) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"LUSTRE_FAIL", "alloc:1", "Failed to make an archive request for @ Cannot allocate memory"},
        {"LUSTRE_FAIL", "path2fid:2", "Failed to learn the FID of @ No such file or directory"},
        {"LUSTRE_FAIL", "request:16", "Failed to request archiving of @ Device or resource busy"},
        {"LUSTRE_FAIL", "state_get:5", "Failed to learn the HSM state of @ Input/output error"},
        {"LUSTRE_DELAY_MS", "60000", "Not archived within 0 seconds: @ Connection timed out"},
        {"LUSTRE_LOST", "1", "Not archived within 0 seconds: @ Connection timed out"},
    };
    for (const char* value : {"1", "0"}) { // what is no number counts as an hour, for which nobody waits here
        const TestConfig config(std::string("[Lustre]\narchiveTimeout = ") + value + "\n");
        const QZHSMLowLevelLustre reader;
        const TestEnvironment never("LUSTRE_DELAY_MS", "60000");
        arrange();
        expectFailure(stub(), -1,
                      "Not archived within " + std::string(value) + " seconds: @ Connection timed out");
    }
    const TestConfig config("[Lustre]\narchiveTimeout = 0\n");
    const QZHSMLowLevelLustre reader;
    for (const auto& [name, value, text] : rows) {
        arrange();
        const TestEnvironment environment(name, value);
        expectFailure(stub(), -1, text);
        EXPECT_EQ(readFile(m_path), noise(9000));
    }
    arrange();
    setTimes(m_path, 1000, kModified + 1);
    EXPECT_EQ(stub(), -1) << "the copy agent compares";
    EXPECT_EQ(calls(), "") << "nothing was released";
}

TEST_F(LustreStubs, LoseStubTextWhereTheReleaseCannotBeRun) {
    const TestEnvironment noCommands("PATH", "/nonexistent");
    arrange();
    expectNotRun(stub(), "lfs hsm_release");
    EXPECT_EQ(attribute(m_path, kStubAttribute), "-");
    EXPECT_EQ(readFile(m_path), noise(9000));
    setAttribute(m_path, kStubAttribute, "text");
    expectNotRun(m_backEnd.releaseFile(m_path.c_str(), false), "lfs hsm_release");
    EXPECT_EQ(attribute(m_path, kStubAttribute), "text");
    expectNotRun(m_backEnd.releaseFile(m_path.c_str(), true), "lfs hsm_release");
    EXPECT_EQ(attribute(m_path, kStubAttribute), "-");
    ::unlink(m_path.c_str());
    expectNotRun(m_backEnd.restoreStub(m_path.c_str(), bytes(stubText("abc", 9000))), "lfs hsm_release");
    EXPECT_EQ(attribute(m_path, kStubAttribute), "-");
    EXPECT_EQ(statOf(m_path).st_mode & 0777, 0600U);
    expectLog("");
    expectNotRun(m_backEnd.releaseFile(m_path.c_str(), true), "lfs hsm_release");
    expectLog("-1 int QZHSMLowLevelLustre::releaseFile(const char*, bool) 214 removexattr(@) failed, "
              "error=No data available\n");
}

TEST_F(LustreStubs, BackupStubReadsTheWholeText) {
    arrange();
    std::vector<char> saved;
    expectFailure(m_backEnd.backupStub(m_path.c_str(), saved), 0, "");
    setAttribute(m_path, kStubAttribute, "no stub text");
    expectFailure(m_backEnd.backupStub(m_path.c_str(), saved), 8, "@ is not a stub.");
    const std::string text = stubText(std::string(3000, 'm'), 9000);
    setAttribute(m_path, kStubAttribute, text);
    EXPECT_EQ(m_backEnd.backupStub(m_path.c_str(), saved), 0) << "in two passes";
    EXPECT_EQ(saved, bytes(text));
}

TEST_F(LustreStubs, RestoreStubMakesAReleasedFile) {
    const std::string text = stubText(std::string(3000, 'm'), 9000);
    const auto restore = [&](const std::string& path, const std::string& data) {
        return m_backEnd.restoreStub(path.c_str(), bytes(data));
    };
    writeFile(m_path, "what was there goes");
    EXPECT_EQ(restore(m_path, stubText("abc", 1)), 0) << m_backEnd.m_errorText;
    EXPECT_EQ(isStub(), 1);
    EXPECT_EQ(readFile(m_path), std::string(1, '\0'));
    expectFailure(restore(m_path, text.substr(1)), -1, "Stub @ has corrupt metadata.");
    expectFailure(restore(m_fs.dir(), text), -1, "Failed to open @ for writing: Is a directory", m_fs.dir());
    expectFailure(restore(m_path, text), -1, "Failed to set xattr@ error=File exists");
    expectFailure(restore(m_missing, stubText("abc", 0)), -1, "Failed to write into @: Invalid argument",
                  m_missing);
}

TEST(LustrePath, AddressesByFid) {
    const auto path = [](const lu_fid& fid, int room) {
        char text[99];
        return std::to_string(path_lustre(text, room, "/mnt/lfs", &fid)) + " " + text;
    };
    EXPECT_EQ(path({0x200000401, 1, 0}, 99), "40 /mnt/lfs/.lustre/fid/0x200000401:0x1:0x0");
    EXPECT_EQ(path({0, 0xab, 2}, 99), "31 /mnt/lfs/.lustre/fid/0:0xab:0x2");
    EXPECT_EQ(path({0x200000401, 1, 0}, 10), "40 /mnt/lfs/");
}
