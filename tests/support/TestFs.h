#pragma once

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

enum class FsKind { Ext4, Tmpfs, Ramfs };

/// A file system of its own for one test, mounted in this process's private mount namespace. Needs root;
/// `ok()` is false elsewhere.
class TestFs {
public:
    /// `options` go to mount, "size=64k" for instance.
    explicit TestFs(FsKind kind, const std::string& options = "");
    TestFs(const TestFs&) = delete;
    TestFs& operator=(const TestFs&) = delete;
    ~TestFs();

    bool ok() const { return m_ok; }
    const std::string& dir() const { return m_dir; }
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    void makeReadOnly() const;

private:
    std::string m_dir;
    std::string m_image;
    bool m_ok = false;
};

#define REQUIRE_FS(fs)                                                                                       \
    if (!(fs).ok())                                                                                          \
    GTEST_SKIP() << "mounting a file system for the test needs root"

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
/// Bytes that do not compress or repeat within a page, the same for the same seed.
std::string noise(size_t size, unsigned seed = 1);
struct stat statOf(const std::string& path);
void setTimes(const std::string& path, time_t access, time_t modification);
/// An attribute's value, or "-" where there is none.
std::string attribute(const std::string& path, const char* name);
void setAttribute(const std::string& path, const char* name, const std::string& value);

/// A locale whose encoding is ISO 8859-1 while it lives.
class Latin1Locale {
public:
    Latin1Locale();
    Latin1Locale(const Latin1Locale&) = delete;
    Latin1Locale& operator=(const Latin1Locale&) = delete;
    ~Latin1Locale();

private:
    std::string m_dir;
};

/// Makes `content` the library's configuration while it lives.
class TestConfig {
public:
    explicit TestConfig(const std::string& content);
    TestConfig(const TestConfig&) = delete;
    TestConfig& operator=(const TestConfig&) = delete;
    ~TestConfig();

private:
    std::string m_file;
};
