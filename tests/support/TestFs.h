#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>

enum class FsKind { Ext4, Tmpfs, Ramfs };

/// A file system of its own for one test, mounted in this process's private mount namespace.
class TestFs {
public:
    /// `options` go to mount, "size=64k" for instance.
    explicit TestFs(FsKind kind, const std::string& options = "");
    TestFs(const TestFs&) = delete;
    TestFs& operator=(const TestFs&) = delete;
    ~TestFs();

    /// Empty, or why there is no such file system.
    const std::string& why() const { return m_why; }
    const std::string& dir() const { return m_dir; }
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    void makeReadOnly() const;

private:
    std::string m_dir;
    std::string m_image;
    std::string m_why;
};

/// Skips the test. Each reason is one line that begins with "skipped: ", so that they can be counted.
#define SKIP_BECAUSE(reason) GTEST_SKIP() << "skipped: " << (reason)
#define REQUIRE_FS(fs)                                                                                       \
    if (!(fs).why().empty())                                                                                 \
    SKIP_BECAUSE((fs).why())

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
/// Bytes that do not compress or repeat within a page, the same for the same seed.
std::string noise(size_t size, unsigned seed = 1);
struct stat statOf(const std::string& path);
void setTimes(const std::string& path, time_t access, time_t modification);
/// An attribute's value, or "-" where there is none.
std::string attribute(const std::string& path, const char* name);
void setAttribute(const std::string& path, const char* name, const std::string& value);
long entriesOf(const std::string& dir);
long openDescriptors();

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
    Latin1Locale();
    ~Latin1Locale();

private:
    const std::string m_dir;
    const TestEnvironment m_named;
};

/// Makes `content` the library's configuration while it lives.
class TestConfig {
public:
    explicit TestConfig(const std::string& content);
    ~TestConfig();

private:
    const std::string m_file;
    const TestEnvironment m_named;
};
