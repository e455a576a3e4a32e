#pragma once

#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/files/UniqueFd.h"
#include "tests/support/StubData.h"
#include "tests/support/TestFs.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/resource.h>
#include <unistd.h>

inline std::vector<char> stubDataOf(const std::string& meta, long long size) {
    return bytes(stubText(meta, size));
}

/// While it lives, the process can open nothing.
struct NoMoreDescriptors {
    NoMoreDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before); }
    rlimit before{};
};

/// A file in a small file system that the emulated driver watches. The file's name has an umlaut.
template <class BackEnd>
class DriverWorld : public ::testing::Test {
protected:
    static constexpr const char* kMeta = "versionGuid=0123;job=7";

    void SetUp() override {
        REQUIRE_FS(m_fs);
        emulator::driver() = {};
        ASSERT_EQ(said(m_driver.startWatchingDirTree(m_fs.dir().c_str())), "0 0 ");
        writeFile(m_path, noise(5000));
        m_file = UniqueFd(::open(m_path.c_str(), O_RDWR));
        m_dev = statOf(m_path).st_dev;
        m_fid = emulator::fidOf(m_path);
        m_descriptors = entries("/proc/self/fd");
    }
    /// No test leaves a descriptor or a carrier behind.
    void TearDown() override {
        m_driver.closeFileTrans();
        if (!IsSkipped()) {
            EXPECT_EQ(entries("/proc/self/fd"), m_descriptors);
            EXPECT_EQ(entries(m_fs.dir()), 1);
        }
    }

    static long entries(const std::string& dir) {
        return std::distance(std::filesystem::directory_iterator(dir), {});
    }
    /// What came of a call: its result, and the error's code and text.
    static std::string said(long long result, const QZHSMLowLevel& driver) {
        return std::to_string(result) + " " + std::to_string(driver.m_errorCode) + " " + driver.m_errorText;
    }
    std::string said(long long result) const { return said(result, m_driver); }

    int stub(const char* meta = kMeta) {
        const struct stat st = statOf(m_path);
        return m_driver.stubFile(m_path.c_str(), meta, st.st_mtime, st.st_size);
    }
    /// From here on the locale's encoding is ISO 8859-1, and the file's name on disk is in it.
    void useLatin1() {
        m_locale.emplace();
        std::filesystem::rename(m_path, m_localPath);
        emulator::fidOf(m_localPath);
    }

    /// An operation's failures one by one, then its success, to which the driver answers more than 0.
    template <class Call>
    void expectAsks(const std::string& name, Call call, long long answer, emulator::Request request,
                    const std::string& text, std::map<int, int> codes) {
        SCOPED_TRACE(name);
        emulator::driver().seen.clear();
        emulator::driver().success = 1;
        QZHSMLowLevelQZFS fresh;
        const auto fails = [&](int code, const std::string& why, bool logged) {
            ::testing::internal::CaptureStderr();
            EXPECT_EQ(said(call(fresh), fresh), "-1 " + std::to_string(code) + " " + why);
            const std::string log = ::testing::internal::GetCapturedStderr();
            const std::string line =
                "error [QZHSMLowLevelQZFS::" + name.substr(0, name.find('(')) + "] " + why + "\n";
            EXPECT_EQ(log.substr(log.find(' ', 11) + 1), logged ? line : "");
        };
        emulator::driver().loaded = false;
        fails(-1, "FSF driver is not loaded", false);
        EXPECT_TRUE(emulator::driver().seen.empty()) << "the device is not there";
        emulator::driver().loaded = true;
        emulator::fail(emulator::kOpenDevice, EACCES);
        fails(-1, "Failed to open /dev/nkfsdm: Permission denied", false);
        codes.insert({{ENOENT, 4}, {EIO, -1}}); // if nothing else is said of them
        for (const auto& [err, code] : codes) {
            emulator::fail(request, err);
            std::string why = text.ends_with(": ") ? text + ::strerror(err) : text;
            if (const size_t at = why.find('@'); at != std::string::npos)
                why.replace(at, 1, m_path);
            fails(code, why, request == emulator::kAddWatch || request == emulator::kDelWatch);
        }
        fresh.m_errorCode = 99;
        fresh.m_errorText = "old";
        EXPECT_EQ(said(call(fresh), fresh), std::to_string(answer) + " 0 ");
        size_t opened = 0;
        for (const emulator::Seen& seen : emulator::driver().seen)
            opened += seen.request == emulator::kOpenDevice ? 1 : 0;
        EXPECT_EQ(opened, 2U) << "tried again, then kept open";
    }

    TestFs m_fs{FsKind::Tmpfs, "size=1m"};
    const std::string m_path = m_fs.path("\xc3\xa4");
    const std::string m_localPath = m_fs.path("\xe4");
    const char* const p = m_path.c_str();
    UniqueFd m_file; ///< open on it
    unsigned long m_dev = 0;
    fsf_fid m_fid{};
    BackEnd m_driver;

private:
    std::optional<Latin1Locale> m_locale;
    long m_descriptors = 0;
};
using DriverFixture = DriverWorld<QZHSMLowLevelQZFS>;

/// What `call` answers, which request it makes, its text for a refusal ("@" stands for the path, and what
/// ends in ": " is followed by the reason), and the codes of errnos beside ENOENT's 4 and EIO's -1.
#define EXPECT_ASKS(call, answer, request, text, ...)                                                        \
    expectAsks(#call, [&](QZHSMLowLevelQZFS& d) { return d.call; }, answer, emulator::request, text,         \
               {__VA_ARGS__})
