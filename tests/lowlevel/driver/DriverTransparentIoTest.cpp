#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "platform/errors/NkException.h"
#include "tests/support/DriverFixture.h"
#include "tests/support/RecordingLog.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class Session : public DriverFixture {
protected:
    void SetUp() override {
        DriverFixture::SetUp();
        if (IsSkipped())
            return;
        writeFile(m_path, noise(5000));
        ASSERT_EQ(stub(m_path), 0) << m_driver.m_errorText;
    }
    int open(int flags = O_RDWR, int mode = 0600) {
        return m_driver.openFileTrans(m_path.c_str(), flags, mode);
    }
    int openByIdentifier(int fd) {
        return m_driver.openFileTrans(fd, statOf(m_path).st_dev, emulator::fidOf(m_path));
    }

    const std::string m_path = m_fs.path("film");
};

class ExtentSession : public DriverWorld<QZHSMLowLevelQZFSExtent> {};

} // namespace

TEST_F(Session, TakesTheFirstFreeCarrierName) {
    const auto name = [&](int number) { return m_path + ".nktmp." + std::to_string(number); };
    for (int i = 0; i < 1024; ++i)
        writeFile(name(i), "");
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(m_driver.m_errorCode, -1);
    EXPECT_EQ(m_driver.m_errorText, "Failed to open file " + name(1023) + ": File exists");
    for (const int free : {0, 2, 1023}) {
        fs::remove(name(free));
        EXPECT_EQ(open(), 0) << m_driver.m_errorText;
        EXPECT_EQ(entriesOf(m_fs.dir()), 1024) << "the stub, 1023 names, and no carrier";
        EXPECT_EQ(m_driver.closeFileTrans(), 0);
        EXPECT_EQ(entriesOf(m_fs.dir()), 1024);
        writeFile(name(free), "");
    }
    EXPECT_EQ(m_driver.openFileTrans("/no/such/file", O_RDWR, 0), -1);
    EXPECT_EQ(m_driver.m_errorText,
              "Failed to open file /no/such/file.nktmp.1023: No such file or directory");
}

TEST_F(Session, LeavesNoCarrierBehind) {
    const auto onlyTheStub = [&] { EXPECT_EQ(entriesOf(m_fs.dir()), 1); };
    emulator::fail(6, EAGAIN, 3);
    ASSERT_EQ(open(), 0) << "asked again";
    onlyTheStub();
    m_driver.closeFileTrans();
    emulator::fail(6, EIO);
    EXPECT_EQ(open(), -1);
    onlyTheStub();

    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(open() == 0 ? ::raise(SIGKILL) : 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    onlyTheStub();
}

TEST_F(Session, GivesUpOnABusyDriver) {
    emulator::fail(6, EAGAIN, -1);
    emulator::fail(7, EAGAIN, -1);
    emulator::driver().ticksWhenBusy = true;
    const UniqueFd file(::open(m_path.c_str(), O_RDWR));
    const long before = openDescriptors();
    emulator::driver().seen.clear();
    EXPECT_EQ(openByIdentifier(file.get()), -1);
    EXPECT_EQ(m_driver.m_errorCode, 7);
    EXPECT_EQ(m_driver.m_errorText, "Timed out while trying to request pass-through access");
    EXPECT_EQ(emulator::driver().seen.size(), 5U) << "asked at second 0, 1, 2, 3 and 4";
    EXPECT_EQ(openDescriptors(), before);
    emulator::driver().seen.clear();
    EXPECT_EQ(open(O_RDWR | O_APPEND, 0640), -1);
    EXPECT_EQ(m_driver.m_errorCode, 7);
    EXPECT_EQ(m_driver.m_errorText, "Timed out while trying to request pass-through access to " + m_path);
    EXPECT_EQ(emulator::driver().seen.size(), 5U);
    EXPECT_EQ(entriesOf(m_fs.dir()), 1);

    EXPECT_EQ(openDescriptors(), before + 1) << "the carrier, which a busy driver may still act on";
    int carriers = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (fs::read_symlink(entry, ignored).string() != m_path + ".nktmp.0 (deleted)")
            continue;
        const int fd = std::stoi(entry.path().filename());
        struct stat st {};
        EXPECT_EQ(::fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640U);
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
        ::close(fd);
        ++carriers;
    }
    EXPECT_EQ(carriers, 1);
}

TEST_F(Session, ByIdentifierLeavesTheCallersDescriptor) {
    const UniqueFd file(::open(m_path.c_str(), O_RDWR));
    ASSERT_EQ(openByIdentifier(file.get()), 0) << m_driver.m_errorText;
    EXPECT_EQ(openByIdentifier(file.get()), -1);
    EXPECT_EQ(m_driver.m_errorText,
              "Attempt to open a new file  in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(m_driver.seekFileTrans(100, SEEK_SET), 100);
    EXPECT_EQ(m_driver.writeFileTrans("first", 5, 0), 5);
    EXPECT_EQ(m_driver.writeFileTrans("second", 6, 0), 6);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(readFile(m_path).substr(100, 12), std::string("firstsecond\0", 12));
    EXPECT_GE(::fcntl(file.get(), F_GETFD), 0);

    ASSERT_EQ(open(), 0);
    emulator::fail(8, ENOENT);
    EXPECT_EQ(m_driver.writeFileTrans("x", 1, 0), -1);
    EXPECT_EQ(m_driver.m_errorCode, 4);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(m_driver.m_errorText, "QZHSM_TRAN_WRITE failed: No such file or directory");
}

TEST_F(Session, ThousandOfThemLeakNothing) {
    const UniqueFd file(::open(m_path.c_str(), O_RDWR));
    ASSERT_EQ(m_driver.openAdminNode(), 0);
    const long before = openDescriptors();
    int failed = 0;
    for (int i = 0; i < 1000; ++i) {
        QZHSMLowLevelQZFS fresh;
        QZHSMLowLevelQZFS& driver = i % 3 == 0 ? fresh : m_driver;
        const struct {
            unsigned nr;
            int err;
        } injected[] = {{0, EMFILE}, {6, EIO}, {6, 200}, {7, ENOENT}, {8, EIO}, {1, EIO}, {4, EIO}, {99, 0}};
        emulator::driver().loaded = i % 13 != 0;
        emulator::fail(injected[i % 8].nr, injected[i % 8].err);
        int opened = i % 2 == 0
                         ? driver.openFileTrans(i % 5 == 0 ? "/no/such/file" : m_path.c_str(), O_RDWR, 0600)
                         : driver.openFileTrans(file.get(), statOf(m_path).st_dev, emulator::fidOf(m_path));
        failed += opened < 0 || driver.writeFileTrans("x", 1, 0) < 0;
        EXPECT_LT(driver.openFileTrans(opened == 0 ? m_path.c_str() : "/no/such/file", O_RDWR, 0600), 0);
        if (i % 7 != 0 || &driver == &m_driver) // else its end is the session's
            driver.closeFileTrans();
        emulator::fail(injected[i % 8].nr, 0, 0);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_GT(failed, 300);
    EXPECT_LT(failed, 900);
    EXPECT_EQ(entriesOf(m_fs.dir()), 1);
}

namespace {

/// What a journal's clients were told, and what each of them throws.
std::vector<std::string> journal;
std::string throwing;

class TestJournal : public FlrDriver {
public:
    bool statFS(unsigned long long dev) override {
        EXPECT_TRUE(dev == m_device || m_device == 0);
        tell("statFS");
        return m_tracks;
    }
    fsf_fid getFID(const char*, bool flag) override {
        tell(flag ? "getFID(true)" : "getFID");
        return {{7, 8, 9}};
    }
    void injectSTUB(unsigned long long dev, const fsf_fid& fid, const char* meta) override {
        EXPECT_EQ(dev, m_device);
        tell("STUB " + words(fid) + " " + meta);
    }
    void injectUNSTUB(unsigned long long dev, const fsf_fid& fid) override {
        EXPECT_EQ(dev, m_device);
        tell("UNSTUB " + words(fid));
    }
    void injectTWRITE(unsigned long long dev, const fsf_fid& fid, unsigned long long offset, const void* buf,
                      int n) override {
        EXPECT_EQ(dev, m_device);
        tell("TWRITE " + words(fid) + " " + std::to_string(offset) + " " +
             std::string(static_cast<const char*>(buf), static_cast<size_t>(n)));
    }
    static bool m_tracks;
    static unsigned long long m_device; ///< the only one to be spoken of; 0: any

private:
    static std::string words(const fsf_fid& fid) {
        return std::to_string(fid.words[0]) + "." + std::to_string(fid.words[1]) + "." +
               std::to_string(fid.words[2]);
    }
    static void tell(const std::string& what) {
        journal.push_back(what);
        if (!throwing.empty() && what.find(throwing) == 0)
            throw NkException("Flr::" + throwing, "journal is down", "Flr", 1, -1);
    }
};
bool TestJournal::m_tracks = true;
unsigned long long TestJournal::m_device = 0;

using Told = std::vector<std::string>;

class Journal : public DriverFixture {
protected:
    void SetUp() override {
        DriverFixture::SetUp();
        journal.clear();
        throwing.clear();
        TestJournal::m_tracks = true;
        TestJournal::m_device = statOf(m_fs.dir()).st_dev;
        g_flrDriverFactory = [] { return std::make_unique<TestJournal>(); };
    }
    void TearDown() override { g_flrDriverFactory = m_factory; }

    /// Stubs, writes ten bytes twice and ends the recall, twice: by path and by identifier. Answers whether
    /// all of it succeeded.
    bool roundTrip(QZHSMLowLevelQZFS& driver) {
        fs::remove(m_path);
        writeFile(m_path, noise(200));
        const struct stat st = statOf(m_path);
        bool done = driver.stubFile(m_path.c_str(), "m", st.st_mtime, 200) == 0;
        done &= driver.openFileTrans(m_path.c_str(), O_RDWR, 0600) == 0;
        char read[5];
        done &= driver.seekFileTrans(95, SEEK_SET) == 95 && driver.readFileTrans(read, 5) == 5;
        done &= driver.seekFileTrans(-1, SEEK_SET) == -1;
        done &= driver.writeFileTrans("0123456789", 10, 0) == 10;
        done &= driver.writeFileTrans("abcdefghij", 10, 0) == 10;
        driver.closeFileTrans();
        const UniqueFd file(::open(m_path.c_str(), O_RDWR));
        done &= driver.openFileTrans(file.get(), st.st_dev, emulator::fidOf(m_path)) == 0;
        done &= driver.writeFileTrans("z", 1, 0) == 1;
        driver.closeFileTrans();
        done &= driver.restoreDone(m_path.c_str(), false, {}) == 0;
        done &= driver.restoreDone(m_path.c_str(), true, {}) == 0;
        return done && driver.restoreStub(m_path.c_str(), stubDataOf("n", 200)) == 0;
    }

    const std::string m_path = m_fs.path("file");
    const decltype(g_flrDriverFactory) m_factory = g_flrDriverFactory;
};

constexpr const char* kInstalled = "[Tessly/Instance001/JRN]\nnINSTALL=0\n"
                                   "[Tessly/Instance001/Sortwell]\nnINSTALL=1\n";

} // namespace

TEST_F(Journal, IsToldInOrder) {
    const TestConfig config(kInstalled);
    QZHSMLowLevelQZFS driver;
    ASSERT_TRUE(roundTrip(driver)) << driver.m_errorText;
    const fsf_fid fid = emulator::fidOf(m_path);
    const std::string words = std::to_string(fid.words[0]) + "." + std::to_string(fid.words[1]) + "." +
                              std::to_string(fid.words[2]);
    EXPECT_EQ(journal,
              (Told{"statFS", "getFID", "STUB 7.8.9 m", "statFS", "getFID", "TWRITE 7.8.9 100 0123456789",
                    "TWRITE 7.8.9 110 abcdefghij", "statFS", "TWRITE " + words + " 0 z", "statFS", "getFID",
                    "UNSTUB 7.8.9", "statFS", "getFID", "STUB 7.8.9 n"}));
    journal.clear();
    unsigned long dev = 0;
    EXPECT_EQ(driver.isJRNFS(m_path.c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(driver.isJRNFS(m_path.c_str(), &dev, nullptr), 1);
    EXPECT_EQ(dev, statOf(m_path).st_dev);
    EXPECT_EQ(journal, (Told{"statFS", "statFS"})) << "nobody asked for an identifier";
    EXPECT_EQ(driver.isJRNFS("/missing", nullptr, nullptr), -1);
    EXPECT_EQ(driver.m_errorCode, -1);
    EXPECT_EQ(driver.m_errorText, "Failed to stat /missing: No such file or directory");

    EXPECT_EQ(driver.isJRNFS(m_path.c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(driver.m_errorText, "") << "cleared";
    EXPECT_EQ(driver.isJRNFS("/missing", nullptr, nullptr), -1);
    EXPECT_EQ(driver.isJRNFS(dev), 1);
    EXPECT_EQ(driver.m_errorText, "");
    EXPECT_EQ(driver.isJRNFS("/missing", nullptr, nullptr), -1);
    EXPECT_EQ(driver.restoreDone(m_path.c_str(), false, {}), 0);
    EXPECT_EQ(driver.m_errorText, "");

    emulator::fail(3, EIO);
    emulator::fail(16, EIO);
    journal.clear();
    driver.stubFile(m_path.c_str(), "m", 0, 200);
    driver.restoreStub(m_path.c_str(), stubDataOf("n", 200));
    EXPECT_EQ(journal, Told{}) << "nothing is told of what the driver refused";
    emulator::driver().loaded = false;
    QZHSMLowLevelQZFS without;
    EXPECT_EQ(without.restoreDone(m_path.c_str(), true, {}), -1);
    EXPECT_EQ(journal.back(), "UNSTUB 7.8.9") << "told first, whatever the driver then says";
}

TEST_F(Journal, NeverChangesAResult) {
    const TestConfig config(kInstalled);
    for (const char* operation : {"statFS", "getFID", "STUB", "UNSTUB", "TWRITE"}) {
        throwing = operation;
        journal.clear();
        QZHSMLowLevelQZFS driver;
        ::testing::internal::CaptureStderr();
        EXPECT_TRUE(roundTrip(driver)) << operation;
        const std::string log = ::testing::internal::GetCapturedStderr();
        const bool isQuery = operation == std::string("statFS") || operation == std::string("getFID");
        EXPECT_EQ(log.find("[Flr::" + throwing + "] journal is down\n") == std::string::npos, isQuery) << log;
        const bool told = std::ranges::any_of(journal, [](const std::string& what) {
            return what.find("STUB 7") != std::string::npos || what.find("TWRITE 7") == 0;
        });
        EXPECT_NE(told, isQuery) << "a question that failed means not tracked";
        EXPECT_EQ(driver.m_errorText, isQuery ? "journal is down" : "");
        EXPECT_EQ(driver.m_errorCode, isQuery ? -1 : 0);
    }
    throwing = "statFS";
    QZHSMLowLevelQZFS driver;
    EXPECT_EQ(driver.isJRNFS(TestJournal::m_device), -1);
    EXPECT_EQ(driver.m_errorText, "journal is down");
    TestJournal::m_tracks = false;
    throwing.clear();
    journal.clear();
    EXPECT_TRUE(roundTrip(driver));
    EXPECT_EQ(journal, Told(5, "statFS")) << "asked, and not tracked";
}

TEST_F(Journal, IsThereWhereItIsInstalled) {
    const struct {
        const char* config;
        int answer;
    } rows[] = {
        {"", 0},
        {"[Tessly/Instance001/JRN]\nnINSTALL=0\n", 0},
        {"[Tessly/Instance001/JRN]\nother=1\n", 0},
        {"[Tessly/Instance001/JRN]\nnINSTALL=1\n", 1},
        {"[Tessly/Instance001/Sortwell]\nnINSTALL=2\n", 1},
        {"[Focus]\ninstance=Two\n[Tessly/Instance001/JRN]\nnINSTALL=1\n", 0},
        {"[Focus]\ninstance=Two\n[Tessly/Two/JRN]\nnINSTALL=1\n", 1},
        {kInstalled, 1},
    };
    for (const auto& row : rows) {
        const TestConfig config(row.config);
        TestJournal::m_device = 0;
        EXPECT_EQ(QZHSMLowLevelQZFS().isJRNFS("/", nullptr, nullptr), row.answer) << row.config;
        g_flrDriverFactory = m_factory;
        EXPECT_EQ(QZHSMLowLevelQZFS().isJRNFS("/", nullptr, nullptr), 0) << "the client of no journal";
        g_flrDriverFactory = [] { return std::make_unique<TestJournal>(); };
    }
    const TestConfig config(kInstalled);
    g_flrDriverFactory = []() -> std::unique_ptr<FlrDriver> {
        throw NkException("Flr::Flr", "no journal today", "Flr", 1, -1);
    };
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(QZHSMLowLevelQZFS().isJRNFS("/missing", nullptr, nullptr), 0);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("[Flr::Flr] no journal today\n"),
              std::string::npos);
}

TEST_F(ExtentSession, CountsOpensAndCloses) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(9000));
    ASSERT_EQ(stub(path), 0) << m_driver.m_errorText;
    RecordingLog log(5);
    const auto failsClosed = [&] {
        EXPECT_EQ(m_driver.writeFileTrans("x", 1, 0), -1);
        EXPECT_EQ(m_driver.m_errorCode, -1);
        EXPECT_EQ(m_driver.m_errorText, "No file has been open in transparent mode yet.");
    };
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    emulator::fail(6, EIO);
    EXPECT_EQ(m_driver.openFileTrans(path.c_str(), O_RDWR, 0600), -1);
    failsClosed();
    EXPECT_EQ(m_driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0);
    int32_t carrier = -1;
    std::memcpy(&carrier, &emulator::driver().seen.back().record[2048], sizeof carrier);
    const std::string fd = std::to_string(carrier);
    EXPECT_EQ(m_driver.openFileTrans("/any", O_RDWR, 0600), 0) << "joins";
    EXPECT_EQ(m_driver.seekFileTrans(5, SEEK_SET), 1);
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    emulator::driver().seen.clear();
    EXPECT_EQ(m_driver.writeFileTrans("late", 4, 4096), 4);
    EXPECT_EQ(m_driver.writeFileTrans("early", 5, 0), 5);
    EXPECT_TRUE(emulator::driver().seen.empty()) << "written without the driver";
    EXPECT_EQ(m_driver.writeFileTrans("x", 1, -1), -1);
    EXPECT_EQ(m_driver.m_errorText, "pwrite failed: Invalid argument");
    EXPECT_EQ(m_driver.writeFileTrans("", 0, 0), 0);
    EXPECT_EQ(m_driver.m_errorText, "");
    char read[5];
    EXPECT_EQ(m_driver.readFileTrans(read, 5), 5);
    EXPECT_EQ(std::string(read, 5), "early");
    EXPECT_EQ(m_driver.closeFileTrans(), 0);
    EXPECT_EQ(m_driver.seekFileTrans(5, SEEK_SET), 1);
    failsClosed();
    const std::string content = readFile(path);
    EXPECT_EQ(content.substr(0, 6), std::string("early\0", 6));
    EXPECT_EQ(content.substr(4096, 4), "late");

    const std::string qualified = "virtual int QZHSMLowLevelQZFSExtent::";
    const std::string closing = "5 " + qualified + "closeFileTrans() 47 calling closeFileTrans\n";
    const std::string notSet =
        "-1 " + qualified + "writeFileTrans(const void*, int, long long int) 69 trans_fd not set\n";
    EXPECT_EQ(log.take(), closing + notSet + "5 " + qualified +
                              "openFileTrans(const char*, int, int) 31 openFileTrans success. FD [" + fd +
                              "]\n" + closing + notSet);
    log.setLevel(4);
    EXPECT_EQ(m_driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0);
    m_driver.closeFileTrans();
    EXPECT_EQ(log.take(), "");
    g_ptrLogWriter = nullptr;
    failsClosed();
}
