#pragma once

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

/// Skips the test. Each reason is one line that begins with "skipped: ", so that they can be counted.
#define SKIP_BECAUSE(reason) GTEST_SKIP() << "skipped: " << (reason)
#define REQUIRE_FS(fs)                                                                                       \
    if (!(fs).why().empty())                                                                                 \
    SKIP_BECAUSE((fs).why())

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

/// Bytes that do not compress or repeat within a page, the same each time.
inline std::string noise(size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

inline struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

inline void setTimes(const std::string& path, time_t access, time_t modification) {
    const utimbuf times{access, modification};
    ASSERT_EQ(::utime(path.c_str(), &times), 0) << path;
}

/// An attribute's value, or "-" if there is none.
inline std::string attribute(const std::string& path, const char* name) {
    char value[65536];
    const ssize_t length = ::getxattr(path.c_str(), name, value, sizeof value);
    return length < 0 ? "-" : std::string(value, static_cast<size_t>(length));
}

inline void setAttribute(const std::string& path, const char* name, const std::string& value) {
    ASSERT_EQ(::setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << path;
}

inline long entriesOf(const std::string& dir) {
    return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
}

inline long openDescriptors() {
    return entriesOf("/proc/self/fd");
}

inline std::string newDirectory(const char* shape) {
    std::string name = ::testing::TempDir() + shape;
    if (!::mkdtemp(name.data()))
        throw std::runtime_error("cannot make " + name);
    return name;
}

/// A file system of its own for one test, mounted in this process's private mount namespace.
enum class FsKind { Ext4, Tmpfs, Ramfs };
class TestFs {
public:
    /// `options` go to mount, "size=64k" for instance; for ext4 they are the size of its image, dir().img.
    explicit TestFs(FsKind kind, const std::string& options = "") {
        static const std::string whyNoMounts = makeMountsPrivate();
        m_why = whyNoMounts;
        if (!m_why.empty())
            return;
        const char* type = kind == FsKind::Ext4 ? "ext4" : kind == FsKind::Tmpfs ? "tmpfs" : "ramfs";
        const std::string make = "truncate -s " + (options.empty() ? "64M" : options) + " " + m_image +
                                 " && mkfs.ext4 -q " + m_image + " && mount -o loop " + m_image + " " + m_dir;
        if (kind == FsKind::Ext4 ? std::system(make.c_str()) != 0
                                 : ::mount("none", m_dir.c_str(), type, 0, options.c_str()) != 0)
            m_why = std::string(type) + " cannot be mounted";
    }
    TestFs(const TestFs&) = delete;
    TestFs& operator=(const TestFs&) = delete;
    ~TestFs() {
        if (m_why.empty())
            ::umount2(m_dir.c_str(), MNT_DETACH);
        ::rmdir(m_dir.c_str());
        ::unlink(m_image.c_str());
    }

    /// Empty, or why there is no such file system.
    const std::string& why() const { return m_why; }
    const std::string& dir() const { return m_dir; }
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    void makeReadOnly() const {
        ASSERT_EQ(::mount(nullptr, m_dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    }

private:
    /// Mounts vanish with the process, whatever becomes of it. In a chroot the root directory is no mount
    /// point, but one of the directories on the way to the tests' own may be. The answer is what stands in
    /// the way.
    static std::string makeMountsPrivate() {
        if (::unshare(CLONE_NEWNS) < 0)
            return std::string("mounting file systems needs root: ") + std::strerror(errno);
        std::filesystem::path dir;
        for (const auto& name : std::filesystem::canonical(::testing::TempDir()))
            if (::mount(nullptr, (dir /= name).c_str(), nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
                return "";
        return "TEST_TMPDIR must lie on a mount point of its own, as the root directory is none";
    }

    const std::string m_dir = newDirectory("qzhsm-fs-XXXXXX");
    const std::string m_image = m_dir + ".img";
    std::string m_why;
};

/// Sets an environment variable while it lives.
class TestEnvironment {
public:
    TestEnvironment(const char* name, const std::string& value) : m_name(name) {
        if (const char* before = std::getenv(name))
            m_before = before;
        ::setenv(name, value.c_str(), 1);
    }
    TestEnvironment(const TestEnvironment&) = delete;
    TestEnvironment& operator=(const TestEnvironment&) = delete;
    ~TestEnvironment() { m_before ? ::setenv(m_name, m_before->c_str(), 1) : ::unsetenv(m_name); }

private:
    const char* m_name;
    std::optional<std::string> m_before;
};

#ifdef LUSTRE_COMMANDS
/// The command "lfs" of the stand-in comes before any other.
inline const TestEnvironment lustreCommandsFirst{"PATH",
                                                 LUSTRE_COMMANDS + std::string(":") + std::getenv("PATH")};
#endif

/// A locale whose encoding is ISO 8859-1 while it lives.
class Latin1Locale {
public:
    Latin1Locale() {
        if (std::system(("localedef -f ISO-8859-1 -i de_DE " + m_dir + "/latin1").c_str()) != 0 ||
            !std::setlocale(LC_ALL, "latin1"))
            throw std::runtime_error("needs package locales");
    }
    ~Latin1Locale() {
        std::setlocale(LC_ALL, "C");
        std::filesystem::remove_all(m_dir);
    }

private:
    const std::string m_dir = newDirectory("qzhsm-locale-XXXXXX");
    const TestEnvironment m_named{"LOCPATH", m_dir};
};

/// Makes `content` the library's configuration while it lives.
class TestConfig {
public:
    explicit TestConfig(const std::string& content) { writeFile(m_dir + "/conf", content); }
    ~TestConfig() { std::filesystem::remove_all(m_dir); }

private:
    const std::string m_dir = newDirectory("qzhsm-conf-XXXXXX");
    const TestEnvironment m_named{"QZHSM_CONFIG", m_dir + "/conf"};
};

/// No recall service of this machine is asked.
struct NoService : TestConfig {
    NoService() : TestConfig("[Service]\nruntimeDirectory = /proc/none\n") {}
};
