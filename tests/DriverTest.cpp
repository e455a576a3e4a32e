#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "tests/emulator/DriverEmulator.h"
#include "tests/support/DriverFixture.h"

#include <cstring>
#include <fcntl.h>
#include <functional>

namespace {

/// Debug lines are looked at too. The level is read once, with the first line.
[[maybe_unused]] const int levelSet = ::setenv("QZHSM_LOG_LEVEL", "1", 1);

constexpr unsigned long kDevice = 0x803;
constexpr fsf_fid kFid{{0x1111, 0x2222, 0x3333}};

/// A record as the driver's binary interface has it: zeros, and what is put at byte offsets.
class Bytes {
public:
    explicit Bytes(size_t size) : m_bytes(size) {}
    Bytes& text(size_t offset, const std::string& value) { return put(offset, value.data(), value.size()); }
    Bytes& fid(size_t offset) { return put(offset, &kFid, sizeof kFid); }
    template <class Number>
    Bytes& number(size_t offset, Number value) {
        return put(offset, &value, sizeof value);
    }
    const std::vector<unsigned char>& get() const { return m_bytes; }

private:
    Bytes& put(size_t offset, const void* value, size_t size) {
        std::memcpy(m_bytes.data() + offset, value, size);
        return *this;
    }
    std::vector<unsigned char> m_bytes;
};

/// Every operation that sends a request.
struct Operation {
    const char* name;
    std::function<long long(QZHSMLowLevelQZFS&, const char* path)> call;
    unsigned nr;
};
std::vector<char> someData;
const std::vector<char> kStubData = stubDataOf("meta", 77);
const Operation kOperations[] = {
    {"isStub", [](auto& q, auto* p) { return q.isStub(p); }, 1},
    {"getFileInfo", [](auto& q, auto* p) { return q.getFileInfo(p, nullptr, nullptr); }, 1},
    {"getStubData",
     [](auto& q, auto* p) {
         bool is = false;
         return q.getStubData(p, is, someData, 1);
     },
     1},
    {"isStub by identifier", [](auto& q, auto*) { return q.isStub(kDevice, kFid); }, 2},
    {"getStubData by identifier",
     [](auto& q, auto*) {
         bool is = false;
         return q.getStubData(0, kDevice, kFid, is, someData, 1);
     },
     2},
    {"stubFile", [](auto& q, auto* p) { return q.stubFile(p, "meta", 1'700'000'000, 5LL << 32); }, 3},
    {"restoreDone", [](auto& q, auto* p) { return q.restoreDone(p, true, {}); }, 4},
    {"restoreDone, failed",
     [](auto& q, auto* p) {
         return q.restoreDone(p, false, {1, 2});
     },
     4},
    {"openFileTrans", [](auto& q, auto* p) { return q.openFileTrans(p, O_RDWR, 0600); }, 6},
    {"openFileTrans by identifier", [](auto& q, auto*) { return q.openFileTrans(9, kDevice, kFid); }, 7},
    {"startWatchingDirTree", [](auto& q, auto* p) { return q.startWatchingDirTree(p); }, 10},
    {"stopWatchingDirTree", [](auto& q, auto* p) { return q.stopWatchingDirTree(p); }, 11},
    {"stopWatchingDevice", [](auto& q, auto*) { return q.stopWatchingDevice(kDevice); }, 11},
    {"isDMRFS", [](auto& q, auto* p) { return q.isDMRFS(p); }, 12},
    {"isDirBeingWatched", [](auto& q, auto* p) { return q.isDirBeingWatched(p); }, 12},
    {"isDMRFS by device", [](auto& q, auto*) { return q.isDMRFS(kDevice); }, 12},
    {"restoreStub", [](auto& q, auto* p) { return q.restoreStub(p, kStubData); }, 16},
    {"resubmitPendingRecalls", [](auto& q, auto*) { return q.resubmitPendingRecalls(); }, 19},
};

const Operation& operation(const std::string& name) {
    for (const Operation& each : kOperations)
        if (each.name == name)
            return each;
    throw std::invalid_argument(name);
}

using Driver = DriverFixture;

} // namespace

TEST_F(Driver, GetsEachRequestByteForByte) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(100));
    const auto at = [&](size_t size, size_t offset) { return Bytes(size).text(offset, path); };
    const struct {
        const char* operation;
        unsigned long command;
        Bytes record;
    } rows[] = {
        {"isStub", 0xD0084301, at(4104, 0)},
        {"getFileInfo", 0xD0084301, at(4104, 0)},
        {"getStubData", 0xD0084301, at(4104, 0)},
        {"isStub by identifier", 0xC8284302, Bytes(2088).number(0, uint64_t{kDevice}).fid(8)},
        {"getStubData by identifier", 0xC8284302, Bytes(2088).number(0, uint64_t{kDevice}).fid(8)},
        {"stubFile", 0x50104303,
         at(4112, 16).number(0, int64_t{1'700'000'000}).number(8, int64_t{5} << 32).text(2064, "meta")},
        {"restoreDone", 0x48014304, at(2049, 0)},
        {"restoreDone, failed", 0x48014304, at(2049, 0).number(2048, uint8_t{1})},
        {"openFileTrans by identifier", 0x40204307, Bytes(32).fid(0).number(24, int32_t{9})},
        {"startWatchingDirTree", 0x4804430A, at(2052, 0)},
        {"stopWatchingDirTree", 0x4808430B, at(2056, 0)},
        {"stopWatchingDevice", 0x4808430B, Bytes(2056).number(2048, uint64_t{kDevice})},
        {"isDMRFS", 0xC810430C, at(2064, 4)},
        {"isDirBeingWatched", 0xC810430C, at(2064, 4)},
        {"isDMRFS by device", 0xC810430C, Bytes(2064).number(2056, uint64_t{kDevice})},
        {"restoreStub", 0x50084310, at(4104, 0).text(2048, "meta").number(4096, int64_t{77})},
        {"resubmitPendingRecalls", 0x40044313, Bytes(4)},
    };
    for (const auto& row : rows) {
        emulator::fail(operation(row.operation).nr, EIO);
        emulator::driver().seen.clear();
        EXPECT_EQ(operation(row.operation).call(m_driver, path.c_str()), -1) << row.operation;
        ASSERT_EQ(emulator::driver().seen.size(), 1U) << row.operation;
        EXPECT_EQ(emulator::driver().seen[0].command, row.command) << row.operation;
        EXPECT_TRUE(emulator::driver().seen[0].record == row.record.get()) << row.operation;
    }
    // The carrier's number is whatever comes next; a write's padding is not looked at.
    emulator::fail(6, EIO);
    m_driver.openFileTrans(path.c_str(), O_RDWR, 0600);
    const emulator::Seen passThrough = emulator::driver().seen.back();
    EXPECT_EQ(passThrough.command, 0x48044306U);
    int32_t carrier = -1;
    std::memcpy(&carrier, &passThrough.record[2048], sizeof carrier);
    EXPECT_GT(carrier, 2);
    EXPECT_TRUE(passThrough.record == at(2052, 0).number(2048, carrier).get());

    ASSERT_EQ(stub(path), 0) << m_driver.m_errorText;
    ASSERT_EQ(m_driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0) << m_driver.m_errorText;
    const char* data = "0123456789";
    EXPECT_EQ(m_driver.writeFileTrans(data, 10, 4096), 10);
    std::vector<unsigned char> write = emulator::driver().seen.back().record;
    EXPECT_EQ(emulator::driver().seen.back().command, 0xC0184308U);
    ASSERT_EQ(write.size(), 24U);
    std::memset(&write[4], 0, 4);
    std::memcpy(&carrier, write.data(), sizeof carrier);
    EXPECT_TRUE(write == Bytes(24).number(0, carrier).number(8, data).number(16, int32_t{10}).get());
}

TEST_F(Driver, CutsLongTextsAt2047Bytes) {
    const std::string longPath = m_fs.dir() + "/" + std::string(3000, 'p');
    EXPECT_EQ(m_driver.isStub(longPath.c_str()), -1) << "sent all the same";
    EXPECT_TRUE(emulator::driver().seen.back().record == Bytes(4104).text(0, longPath.substr(0, 2047)).get());
    EXPECT_EQ(m_driver.m_errorText, "QZHSM_STAT(" + longPath + ") failed: File name too long");

    const std::string path = m_fs.path("file");
    const std::string meta(5000, 'm');
    writeFile(path, noise(100));
    ASSERT_EQ(m_driver.stubFile(path.c_str(), meta.c_str(), statOf(path).st_mtime, 100), 0);
    std::vector<char> saved;
    ASSERT_EQ(m_driver.backupStub(path.c_str(), saved), 0);
    EXPECT_TRUE(saved == stubDataOf(meta.substr(0, 2047), 100));
    ASSERT_EQ(m_driver.restoreStub(path.c_str(), stubDataOf(meta, 100)), 0) << m_driver.m_errorText;
    ASSERT_EQ(m_driver.backupStub(path.c_str(), saved), 0);
    EXPECT_TRUE(saved == stubDataOf(meta.substr(0, 2047), 100)) << "decoded whole, then cut";
}

TEST_F(Driver, GetsPathsInTheLocalesEncodingAndMetadataAsItIs) {
    const Latin1Locale locale;
    EXPECT_EQ(m_driver.stubFile("/\xc3\xbc", "\xc3\xbc", 0, 0), -1);
    EXPECT_EQ(m_driver.m_errorText.find("QZHSM_CREATE_STUB(/\xc3\xbc) failed: "), 0U);
    EXPECT_TRUE(emulator::driver().seen.back().record ==
                Bytes(4112).text(16, "/\xfc").text(2064, "\xc3\xbc").get());
}

TEST_F(Driver, TellsWhatTheDriverRefused) {
    const std::string p = m_fs.path("file");
    writeFile(p, noise(100));
    const std::string transFailed = "Failed to open file " + p + " in transparent mode: ";
    const struct {
        const char* operation;
        int err;
        int code;
        std::string text; ///< before the reason
    } rows[] = {
        {"isStub", ENOENT, 4, "QZHSM_STAT(" + p + ") failed: "},
        {"isStub", EIO, -1, "QZHSM_STAT(" + p + ") failed: "},
        {"getFileInfo", ENOENT, 4, "QZHSM_STAT(" + p + ") failed: "},
        {"getFileInfo", EINVAL, -1, "QZHSM_STAT(" + p + ") failed: "},
        {"getStubData", EINVAL, -1, "QZHSM_STAT(" + p + ") failed: "},
        {"isStub by identifier", ENOENT, 4, "QZHSM_STAT_BY_FID() failed: "},
        {"isStub by identifier", EINVAL, -1, "QZHSM_STAT_BY_FID() failed: "},
        {"getStubData by identifier", ENOENT, 4, "QZHSM_STAT_BY_FID failed: "},
        {"getStubData by identifier", EINVAL, -1, "QZHSM_STAT_BY_FID failed: "},
        {"stubFile", EALREADY, 2, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"stubFile", EBUSY, 3, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"stubFile", ENOENT, 4, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"stubFile", EINVAL, 6, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"stubFile", E2BIG, 9, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"stubFile", EAGAIN, -1, "QZHSM_CREATE_STUB(" + p + ") failed: "},
        {"restoreDone", ENOENT, 4, "QZHSM_DELETE_STUB(" + p + ") failed: "},
        {"restoreDone", EINVAL, -1, "QZHSM_DELETE_STUB(" + p + ") failed: "},
        {"openFileTrans", ENOENT, 4, transFailed},
        {"openFileTrans", 200, 8, transFailed},
        {"openFileTrans", EBUSY, -1, transFailed},
        {"openFileTrans by identifier", ENOENT, 4, "Failed to open file in transparent mode: "},
        {"openFileTrans by identifier", 200, 8, "Failed to open file in transparent mode: "},
        {"openFileTrans by identifier", EBUSY, -1, "Failed to open file in transparent mode: "},
        {"startWatchingDirTree", ENOENT, 4, "QZHSM_ADD_WATCH_FS(" + p + ") failed: "},
        {"startWatchingDirTree", EIO, -1, "QZHSM_ADD_WATCH_FS(" + p + ") failed: "},
        {"stopWatchingDirTree", ENOENT, 4, "QZHSM_DEL_WATCH_FS(" + p + ") failed: "},
        {"stopWatchingDevice", ENOENT, -1, "QZHSM_DEL_WATCH_FS(803) failed: "},
        {"isDMRFS", ENOENT, 4, "QZHSM_IS_WATCH_FS(" + p + ") failed: "},
        {"isDirBeingWatched", EIO, -1, "QZHSM_IS_WATCH_FS(" + p + ") failed: "},
        {"isDMRFS by device", ENOENT, 4, "QZHSM_IS_WATCH_FS() failed: "},
        {"restoreStub", ENOENT, 4, "ioctl(QZHSM_RESTORE_STUB) failed: "},
        {"restoreStub", EINVAL, 6, "ioctl(QZHSM_RESTORE_STUB) failed: "},
        {"restoreStub", EBUSY, -1, "ioctl(QZHSM_RESTORE_STUB) failed: "},
        {"resubmitPendingRecalls", ENOENT, -1, "QZHSM_RESUBMIT_PENDING_RECALLS() failed: "},
    };
    for (const auto& row : rows) {
        emulator::fail(operation(row.operation).nr, row.err);
        EXPECT_EQ(operation(row.operation).call(m_driver, p.c_str()), -1) << row.operation << row.err;
        EXPECT_EQ(m_driver.m_errorCode, row.code) << row.operation << row.err;
        EXPECT_EQ(m_driver.m_errorText, row.text + ::strerror(row.err));
    }
    emulator::fail(1, EINVAL);
    EXPECT_EQ(m_driver.isStub(p.c_str()), 0) << "a file that is not the driver's";
    EXPECT_EQ(m_driver.m_errorCode, 0);
    EXPECT_EQ(m_driver.m_errorText, "");
    EXPECT_EQ(readFile(p), noise(100)) << "nothing of this touches the file";
}

TEST_F(Driver, IsAskedForItsDeviceFirst) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(100));
    QZHSMLowLevelQZFS fresh;
    const auto allFailWith = [&](const std::string& text) {
        for (const Operation& each : kOperations) {
            EXPECT_EQ(each.call(fresh, path.c_str()), -1) << each.name;
            EXPECT_EQ(fresh.m_errorCode, -1) << each.name;
            EXPECT_EQ(fresh.m_errorText, text) << each.name;
        }
        EXPECT_EQ(fresh.backupStub("/missing", someData), -1);
        EXPECT_EQ(fresh.m_errorText, text) << "not that the file is missing";
    };
    emulator::driver().loaded = false;
    const int opens = emulator::driver().deviceOpens;
    ::testing::internal::CaptureStderr();
    allFailWith("FSF driver is not loaded");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(emulator::driver().deviceOpens, opens);
    emulator::driver().loaded = true;
    emulator::fail(0, EACCES, -1);
    allFailWith("Failed to open /dev/nkfsdm: Permission denied");
    emulator::fail(0, 0, 0);
    EXPECT_EQ(fresh.isStub(path.c_str()), 0) << "tried again";
    const int opened = emulator::driver().deviceOpens;
    EXPECT_EQ(fresh.isStub(path.c_str()), 0);
    EXPECT_EQ(emulator::driver().deviceOpens, opened) << "kept open";
    EXPECT_EQ(emulator::driver().seen.back().command, 0xD0084301U);
}

TEST_F(Driver, WatchesAndSaysSo) {
    const std::string dir = m_fs.dir();
    emulator::driver().watchAnswer = 2;
    EXPECT_EQ(m_driver.isDMRFS(dir.c_str()), 2);
    EXPECT_EQ(m_driver.isDMRFS(statOf(dir).st_dev), 2);
    EXPECT_EQ(m_driver.resubmitPendingRecalls(), 0);
    EXPECT_EQ(emulator::driver().resubmissions, 1);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(m_driver.stopWatchingDevice(statOf(dir).st_dev), 0);
    EXPECT_EQ(m_driver.isDirBeingWatched(dir.c_str()), 0);
    EXPECT_EQ(m_driver.startWatchingDirTree(dir.c_str()), 0);
    EXPECT_EQ(m_driver.stopWatchingDirTree(dir.c_str()), 0);
    m_fs.makeReadOnly();
    emulator::fail(10, EIO);
    EXPECT_EQ(m_driver.startWatchingDirTree(dir.c_str()), -1);
    EXPECT_EQ(emulator::driver().seen.back().record[2048], 1U) << "the mount entry's flag";
    EXPECT_EQ(m_driver.stopWatchingDirTree("/missing"), -1);
    EXPECT_EQ(m_driver.stopWatchingDevice(kDevice), -1);
    const std::string log = ::testing::internal::GetCapturedStderr();
    size_t position = 0;
    for (const std::string& line :
         {std::string("stopWatchingDevice] Stoping to watch FS on block device "),
          "startWatchingDirTree] Starting to watch FS containing " + dir + "\n",
          "stopWatchingDirTree] Stoping to watch FS containing " + dir + "\n",
          "startWatchingDirTree] QZHSM_ADD_WATCH_FS(" + dir + ") failed: Input/output error\n",
          std::string(
              "stopWatchingDirTree] QZHSM_DEL_WATCH_FS(/missing) failed: No such file or directory\n"),
          std::string("stopWatchingDevice] Stoping to watch FS on block device 803\n"),
          std::string("stopWatchingDevice] QZHSM_DEL_WATCH_FS(803) failed: ")}) {
        position = log.find("[QZHSMLowLevelQZFS::" + line, position);
        EXPECT_NE(position, std::string::npos) << line << "not in, or not in this order:\n" << log;
    }
}

TEST_F(Driver, HandsOutWhatTheDriverKnows) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(5000));
    const unsigned long dev = statOf(path).st_dev;
    const fsf_fid fid = emulator::fidOf(path);
    std::vector<char> data{'k', 'e', 'p', 't'};
    bool found = true;
    EXPECT_EQ(m_driver.getStubData(path.c_str(), found, data, 5000), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(m_driver.backupStub(path.c_str(), data), -1);
    EXPECT_EQ(m_driver.m_errorText, path + " is not a stub");
    EXPECT_EQ(m_driver.backupStub(0, dev, fid, data), -1);
    EXPECT_EQ(m_driver.m_errorText, "Not a stub");
    EXPECT_EQ(m_driver.isStub(dev, fid), 0);
    EXPECT_EQ(std::string(data.begin(), data.end()), "kept");

    ASSERT_EQ(stub(path), 0);
    int state = 0;
    emulator::driver().fileInfo = -77;
    EXPECT_EQ(m_driver.getFileInfo(path.c_str(), nullptr, &state), 0);
    EXPECT_EQ(state, -77);
    EXPECT_EQ(m_driver.isStub(dev, fid), 1);
    const UniqueFd file(::open(path.c_str(), O_RDONLY));
    EXPECT_EQ(m_driver.backupStub(file.get(), dev, fid, data), 0);
    EXPECT_TRUE(data == stubDataOf(kMeta, 5000));
    EXPECT_EQ(m_driver.backupStub(-1, dev, fid, data), -1);
    EXPECT_EQ(m_driver.m_errorCode, EBADF);
    EXPECT_EQ(m_driver.m_errorText, "failed to stat");

    emulator::fail(1, ENOENT);
    EXPECT_EQ(m_driver.backupStub(path.c_str(), data), -1);
    EXPECT_EQ(m_driver.m_errorCode, -1) << "a backup only cares that there is no stub data";
    EXPECT_EQ(m_driver.m_errorText, path + " is not a stub");
    EXPECT_EQ(m_driver.backupStub("/missing", data), -1);
    EXPECT_EQ(m_driver.m_errorCode, 4);
    EXPECT_EQ(m_driver.m_errorText, "Failed to stat /missing: No such file or directory");
}

TEST_F(Driver, RestoresFromGoodStubDataOnly) {
    const std::string path = m_fs.path("file");
    writeFile(path, "");
    const std::string meta(1500, 'm'); // beyond the first guess
    ASSERT_EQ(m_driver.restoreStub(path.c_str(), stubDataOf(meta, 12345)), 0) << m_driver.m_errorText;
    EXPECT_EQ(statOf(path).st_size, 12345);
    std::vector<char> saved;
    ASSERT_EQ(m_driver.backupStub(path.c_str(), saved), 0);
    EXPECT_TRUE(saved == stubDataOf(meta, 12345));

    emulator::driver().seen.clear();
    std::vector<char> corrupt = stubDataOf(meta, 12345);
    corrupt.back() = 'x';
    for (const std::vector<char>& data : {corrupt, std::vector<char>{}, std::vector<char>{'m'}}) {
        EXPECT_EQ(m_driver.restoreStub(path.c_str(), data), -1);
        EXPECT_EQ(m_driver.m_errorCode, -1);
        EXPECT_EQ(m_driver.m_errorText, "Stub " + path + " has corrupt metadata.");
    }
    EXPECT_TRUE(emulator::driver().seen.empty()) << "nothing is asked of the driver";
}
