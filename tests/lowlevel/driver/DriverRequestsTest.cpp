#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "tests/support/DriverFixture.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>

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

using Codes = std::vector<std::pair<int, int>>;

/// An operation that sends a request: the record it sends for a path, what it says of a refusal, and the
/// codes that it has for the driver's errnos beside EIO, which is -1 to all.
struct Operation {
    std::function<long long(QZHSMLowLevelQZFS&, const char* path)> call;
    unsigned long command;
    std::function<Bytes(const std::string& path)> record;
    std::string text; ///< "@" stands for the path
    Codes codes;
};
std::vector<char> someData;
bool someFlag;
const std::vector<char> kStubData = stubDataOf("meta", 77);
const Bytes kByFid = Bytes(2088).number(0, uint64_t{kDevice}).fid(8);

std::function<Bytes(const std::string&)> pathAt(size_t size, size_t offset) {
    return [=](const std::string& path) { return Bytes(size).text(offset, path); };
}
std::function<Bytes(const std::string&)> always(const Bytes& bytes) {
    return [=](const std::string&) { return bytes; };
}

const Operation kOperations[] = {
    {[](auto& q, auto* p) { return q.isStub(p); },
     0xD0084301,
     pathAt(4104, 0),
     "QZHSM_STAT(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto* p) { return q.getFileInfo(p, nullptr, nullptr); },
     0xD0084301,
     pathAt(4104, 0),
     "QZHSM_STAT(@) failed",
     {{ENOENT, 4}, {EINVAL, -1}}},
    {[](auto& q, auto* p) { return q.getStubData(p, someFlag, someData, 1); },
     0xD0084301,
     pathAt(4104, 0),
     "QZHSM_STAT(@) failed",
     {{ENOENT, 4}, {EINVAL, -1}}},
    {[](auto& q, auto*) { return q.isStub(kDevice, kFid); },
     0xC8284302,
     always(kByFid),
     "QZHSM_STAT_BY_FID() failed",
     {{ENOENT, 4}, {EINVAL, -1}}},
    {[](auto& q, auto*) { return q.getStubData(0, kDevice, kFid, someFlag, someData, 1); },
     0xC8284302,
     always(kByFid),
     "QZHSM_STAT_BY_FID failed",
     {{ENOENT, 4}, {EINVAL, -1}}},
    {[](auto& q, auto* p) { return q.stubFile(p, "meta", 1'700'000'000, 5LL << 32); },
     0x50104303,
     [](const std::string& path) {
         return Bytes(4112)
             .number(0, int64_t{1'700'000'000})
             .number(8, int64_t{5} << 32)
             .text(16, path)
             .text(2064, "meta");
     },
     "QZHSM_CREATE_STUB(@) failed",
     {{EALREADY, 2}, {EBUSY, 3}, {ENOENT, 4}, {EINVAL, 6}, {E2BIG, 9}, {EAGAIN, -1}}},
    {[](auto& q, auto* p) { return q.restoreDone(p, true, {}); },
     0x48014304,
     pathAt(2049, 0),
     "QZHSM_DELETE_STUB(@) failed",
     {{ENOENT, 4}, {EINVAL, -1}}},
    {[](auto& q, auto* p) {
         return q.restoreDone(p, false, {1, 2});
     },
     0x48014304,
     [](const std::string& path) { return Bytes(2049).text(0, path).number(2048, uint8_t{1}); },
     "QZHSM_DELETE_STUB(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto* p) { return q.openFileTrans(p, O_RDWR, 0600); },
     0x48044306,
     [](const std::string& path) {
         int32_t carrier = -1; // whatever number comes next
         std::memcpy(&carrier, &emulator::driver().seen.back().record[2048], sizeof carrier);
         return Bytes(2052).text(0, path).number(2048, std::max(carrier, 3));
     },
     "Failed to open file @ in transparent mode",
     {{ENOENT, 4}, {200, 8}, {EBUSY, -1}}},
    {[](auto& q, auto*) { return q.openFileTrans(9, kDevice, kFid); },
     0x40204307,
     always(Bytes(32).fid(0).number(24, int32_t{9})),
     "Failed to open file in transparent mode",
     {{ENOENT, 4}, {200, 8}, {EBUSY, -1}}},
    {[](auto& q, auto* p) { return q.startWatchingDirTree(p); },
     0x4804430A,
     pathAt(2052, 0),
     "QZHSM_ADD_WATCH_FS(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto* p) { return q.stopWatchingDirTree(p); },
     0x4808430B,
     pathAt(2056, 0),
     "QZHSM_DEL_WATCH_FS(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto*) { return q.stopWatchingDevice(kDevice); },
     0x4808430B,
     always(Bytes(2056).number(2048, uint64_t{kDevice})),
     "QZHSM_DEL_WATCH_FS(803) failed",
     {{ENOENT, -1}}},
    {[](auto& q, auto* p) { return q.isDMRFS(p); },
     0xC810430C,
     pathAt(2064, 4),
     "QZHSM_IS_WATCH_FS(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto* p) { return q.isDirBeingWatched(p); },
     0xC810430C,
     pathAt(2064, 4),
     "QZHSM_IS_WATCH_FS(@) failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto*) { return q.isDMRFS(kDevice); },
     0xC810430C,
     always(Bytes(2064).number(2056, uint64_t{kDevice})),
     "QZHSM_IS_WATCH_FS() failed",
     {{ENOENT, 4}}},
    {[](auto& q, auto* p) { return q.restoreStub(p, kStubData); },
     0x50084310,
     [](const std::string& path) {
         return Bytes(4104).text(0, path).text(2048, "meta").number(4096, int64_t{77});
     },
     "ioctl(QZHSM_RESTORE_STUB) failed",
     {{ENOENT, 4}, {EINVAL, 6}, {EBUSY, -1}}},
    {[](auto& q, auto*) { return q.resubmitPendingRecalls(); },
     0x40044313,
     always(Bytes(4)),
     "QZHSM_RESUBMIT_PENDING_RECALLS() failed",
     {{ENOENT, -1}}},
};

using Driver = DriverFixture;

} // namespace

TEST_F(Driver, GetsEachRequestByteForByteAndIsQuotedWhereItRefuses) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(100));
    for (const Operation& operation : kOperations) {
        std::string text = operation.text;
        if (const size_t at = text.find('@'); at != std::string::npos)
            text.replace(at, 1, path);
        SCOPED_TRACE(text);
        Codes codes = operation.codes;
        codes.emplace_back(EIO, -1);
        for (const auto& [err, code] : codes) {
            emulator::fail(_IOC_NR(operation.command), err);
            emulator::driver().seen.clear();
            EXPECT_EQ(operation.call(m_driver, path.c_str()), -1);
            EXPECT_EQ(m_driver.m_errorCode, code) << err;
            EXPECT_EQ(m_driver.m_errorText, text + ": " + ::strerror(err));
            ASSERT_EQ(emulator::driver().seen.size(), 1U);
            EXPECT_EQ(emulator::driver().seen[0].command, operation.command);
            EXPECT_TRUE(emulator::driver().seen[0].record == operation.record(path).get());
        }
    }
    emulator::fail(1, EINVAL);
    EXPECT_EQ(m_driver.isStub(path.c_str()), 0) << "a file that is not the driver's";
    EXPECT_EQ(m_driver.m_errorCode, 0);
    EXPECT_EQ(m_driver.m_errorText, "");
    EXPECT_EQ(readFile(path), noise(100)) << "nothing of this touches the file";

    ASSERT_EQ(stub(path), 0) << m_driver.m_errorText;
    ASSERT_EQ(m_driver.openFileTrans(path.c_str(), O_RDWR, 0600), 0) << m_driver.m_errorText;
    const char* data = "0123456789";
    EXPECT_EQ(m_driver.writeFileTrans(data, 10, 4096), 10);
    EXPECT_EQ(emulator::driver().seen.back().command, 0xC0184308U);
    std::vector<unsigned char> write = emulator::driver().seen.back().record;
    ASSERT_EQ(write.size(), 24U);
    int32_t carrier = -1;
    std::memcpy(&carrier, write.data(), sizeof carrier);
    std::memset(&write[4], 0, 4); // a gap, and what is in it
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

TEST_F(Driver, IsAskedForItsDeviceFirst) {
    const std::string path = m_fs.path("file");
    writeFile(path, noise(100));
    QZHSMLowLevelQZFS fresh;
    const auto allFailWith = [&](const std::string& text) {
        for (const Operation& each : kOperations) {
            EXPECT_EQ(each.call(fresh, path.c_str()), -1) << each.text;
            EXPECT_EQ(fresh.m_errorCode, -1) << each.text;
            EXPECT_EQ(fresh.m_errorText, text) << each.text;
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
