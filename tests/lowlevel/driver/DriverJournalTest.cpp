#include "platform/errors/NkException.h"
#include "tests/support/DriverFixture.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

/// What a journal's clients are told, and how they answer.
std::string told;
std::string throwing; ///< what fails
bool tracks;
unsigned long device; ///< the only one that is spoken of

bool tell(unsigned long long dev, const std::string& what) {
    EXPECT_EQ(dev, device) << what;
    told += what + ", ";
    if (what.starts_with(throwing))
        throw NkException("Flr::" + throwing, "journal is down", "Flr", 1,
                          4); // a code that nobody hands on
    return tracks;
}
std::string words(const fsf_fid& fid) {
    const auto& [first, second, third] = fid.words;
    return " " + std::to_string(first) + "." + std::to_string(second) + "." + std::to_string(third) + " ";
}

class TestJournal : public FlrDriver {
    using Number = unsigned long long;
    bool statFS(Number dev) override { return tell(dev, "statFS"); }
    fsf_fid getFID(const char*, bool flag) override {
        tell(device, flag ? "getFID(true)" : "getFID");
        return {{7, 8, 9}};
    }
    void injectSTUB(Number dev, const fsf_fid& fid, const char* meta) override {
        tell(dev, "STUB" + words(fid) + meta);
    }
    void injectUNSTUB(Number dev, const fsf_fid& fid) override { tell(dev, "UNSTUB" + words(fid)); }
    void injectTWRITE(Number dev, const fsf_fid& fid, Number at, const void* buf, int n) override {
        tell(dev, "TWRITE" + words(fid) + std::to_string(at) + " " +
                      std::string(static_cast<const char*>(buf), static_cast<size_t>(n)));
    }
};

struct InstalledJournal {
    InstalledJournal() {
        g_flrDriverFactory = [] { return std::make_unique<TestJournal>(); };
    }
    ~InstalledJournal() { g_flrDriverFactory = factory; }
    const TestConfig config{"[Tessly/Instance001/JRN]\nnINSTALL=0\n"
                            "[Tessly/Instance001/Sortwell]\nnINSTALL=1\n"};
    const decltype(g_flrDriverFactory) factory = g_flrDriverFactory;
};
struct DriverWithJournal : InstalledJournal, QZHSMLowLevelQZFS {};

class DriverJournal : public DriverWorld<DriverWithJournal> {
protected:
    void SetUp() override {
        DriverWorld::SetUp();
        useLatin1();
        told = "";
        throwing = "nothing";
        tracks = true;
        device = m_dev;
    }

    /// The life of a stub, with a session by identifier between two by path.
    void roundTrip() {
        char read[5];
        EXPECT_EQ(m_driver.stubFile(p, "m", statOf(m_localPath).st_mtime, 5000), 0);
        EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), 0);
        EXPECT_EQ(m_driver.seekFileTrans(95, SEEK_SET), 95);
        EXPECT_EQ(m_driver.readFileTrans(read, 5), 5);
        EXPECT_EQ(m_driver.readFileTrans(nullptr, 5), -1);
        EXPECT_EQ(m_driver.seekFileTrans(-1, SEEK_SET), -1);
        EXPECT_EQ(m_driver.writeFileTrans("first", 5, 0), 5);
        EXPECT_EQ(m_driver.writeFileTrans("second", 6, 0), 6);
        EXPECT_EQ(m_driver.seekFileTrans(0, SEEK_SET), 0);
        EXPECT_EQ(m_driver.writeFileTrans("third", 5, 0), 5);
        m_driver.closeFileTrans();
        EXPECT_EQ(::lseek(m_file.get(), 0, SEEK_SET), 0);
        EXPECT_EQ(m_driver.openFileTrans(m_file.get(), m_dev, m_fid), 0);
        EXPECT_EQ(m_driver.writeFileTrans("by id", 5, 0), 5);
        m_driver.closeFileTrans();
        EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), 0);
        EXPECT_EQ(m_driver.writeFileTrans("again", 5, 0), 5);
        m_driver.closeFileTrans();
        EXPECT_EQ(m_driver.restoreDone(p, false, {}), 0);
        EXPECT_EQ(m_driver.restoreStub(p, stubDataOf("n", 5000)), 0);
        EXPECT_EQ(m_driver.restoreDone(p, true, {}), 0);
    }
};

} // namespace

TEST_F(DriverJournal, IsToldInOrder) {
    roundTrip();
    EXPECT_EQ(told, "statFS, getFID, STUB 7.8.9 m, statFS, getFID, TWRITE 7.8.9 100 first, "
                    "TWRITE 7.8.9 105 second, TWRITE 7.8.9 0 third, statFS, TWRITE" +
                        words(m_fid) +
                        "0 by id, statFS, getFID, TWRITE 7.8.9 0 again, "
                        "statFS, getFID, STUB 7.8.9 n, statFS, getFID, UNSTUB 7.8.9 , ");

    const std::string much = noise(2 << 20);
    EXPECT_EQ(m_driver.restoreStub(p, stubDataOf("n", 8 << 20)), 0);
    EXPECT_EQ(m_driver.openFileTrans(p, O_RDWR, 0600), 0);
    told.clear();
    const int written = m_driver.writeFileTrans(much.data(), 2 << 20, 0);
    EXPECT_LT(written, 2 << 20) << "the file system has less room";
    EXPECT_TRUE(told == "TWRITE 7.8.9 0 " + much.substr(0, static_cast<size_t>(written)) + ", ");

    told.clear();
    for (const auto request : {emulator::kTranWrite, emulator::kCreateStub, emulator::kRestoreStub})
        emulator::fail(request, EIO);
    EXPECT_EQ(m_driver.writeFileTrans("x", 1, 0), -1);
    EXPECT_EQ(m_driver.stubFile(p, "m", 0, 200), -1);
    EXPECT_EQ(m_driver.restoreStub(p, stubDataOf("n", 200)), -1);
    EXPECT_EQ(told, "") << "of what the driver refused";
    emulator::driver().loaded = false;
    EXPECT_EQ(QZHSMLowLevelQZFS().restoreDone(p, true, {}), -1);
    EXPECT_EQ(told, "statFS, getFID, UNSTUB 7.8.9 , ") << "first, whatever the driver then says";
}

TEST_F(DriverJournal, NeverChangesAResult) {
    for (const std::string fails : {"STUB", "UNSTUB", "TWRITE", "statFS", "getFID", "nothing"}) {
        SCOPED_TRACE(fails);
        told.clear();
        throwing = fails;
        tracks = fails != "nothing";
        CaptureStderr();
        roundTrip();
        const std::string log = GetCapturedStderr();
        const bool isQuestion = fails == "statFS" || fails == "getFID";
        EXPECT_EQ(log.find("[Flr::" + fails + "] journal is down\n") != std::string::npos,
                  tracks && !isQuestion)
            << log;
        EXPECT_EQ(said(0), isQuestion ? "0 -1 journal is down" : "0 0 ");
        EXPECT_EQ(told.find("STUB") != std::string::npos, tracks && !isQuestion) << told;
        EXPECT_EQ(told.find("TWRITE 7") != std::string::npos, tracks && !isQuestion) << told;
        EXPECT_EQ(told.find("TWRITE") != std::string::npos, tracks && fails != "statFS") << told;
    }
}

TEST_F(DriverJournal, IsAskedWhetherItTracks) {
    const std::string missing = "-1 -1 Failed to stat /missing: No such file or directory";
    unsigned long dev = 0;
    EXPECT_EQ(said(m_driver.isJRNFS("/missing", &dev, nullptr)), missing);
    EXPECT_EQ(said(m_driver.isJRNFS(p, &dev, nullptr)), "1 0 ");
    EXPECT_EQ(dev, device);
    EXPECT_EQ(said(m_driver.isJRNFS("/missing", nullptr, nullptr)), missing);
    EXPECT_EQ(said(m_driver.isJRNFS(dev)), "1 0 ");
    EXPECT_EQ(told, "statFS, statFS, ") << "nobody asked for an identifier";
    throwing = "statFS";
    EXPECT_EQ(said(m_driver.isJRNFS(dev)), "-1 -1 journal is down");
    throwing = "none";
    tracks = false;
    EXPECT_EQ(said(m_driver.isJRNFS(std::exchange(dev, 0))), "0 0 ");
    EXPECT_EQ(said(m_driver.isJRNFS(p, &dev, nullptr)), "0 0 ");
    EXPECT_EQ(dev, device);
}

TEST_F(DriverJournal, IsThereIfItIsInstalled) {
    constexpr const char* kInstalled = "[Tessly/Instance001/JRN]\nnINSTALL=1\n";
    const auto tracksWith = [&](const char* content) {
        const TestConfig config(content);
        return QZHSMLowLevelQZFS().isJRNFS(p, nullptr, nullptr);
    };
    EXPECT_EQ(tracksWith("[Tessly/Instance001/JRN]\nx=1\n[Tessly/Instance001/Sortwell]\nnINSTALL=0\n"), 0);
    EXPECT_EQ(tracksWith("[Focus]\ninstance=Two\n[Tessly/Two/JRN]\nnINSTALL=2\n"), 1);
    EXPECT_EQ(tracksWith("[Focus]\ninstance=Two\n[Tessly/Instance001/JRN]\nnINSTALL=1\n"), 0);
    int made = 0;
    g_flrDriverFactory = [&] { return std::unique_ptr<FlrDriver>(++made == 1 ? new TestJournal : nullptr); };
    EXPECT_EQ(tracksWith("[Tessly/Instance001/JRN]\nnINSTALL=1\n[Tessly/Instance001/Sortwell]\nnINSTALL=1\n"),
              1)
        << "one client for both";
    g_flrDriverFactory = m_driver.factory;
    EXPECT_EQ(tracksWith(kInstalled), 0) << "the client of no journal";
    g_flrDriverFactory = []() -> std::unique_ptr<FlrDriver> {
        throw NkException("Flr::Flr", "no journal today", "Flr", 1, -1);
    };
    CaptureStderr();
    EXPECT_EQ(tracksWith(kInstalled), 0);
    EXPECT_TRUE(GetCapturedStderr().ends_with("[Flr::Flr] no journal today\n"));
}
