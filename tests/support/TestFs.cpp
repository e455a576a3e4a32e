#include "tests/support/TestFs.h"

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

namespace {

/// Mounts vanish with the process, whatever becomes of it.
bool havePrivateMounts() {
    static const bool have =
        ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return have;
}

std::string temporary(const char* shape) {
    return ::testing::TempDir() + shape;
}

} // namespace

TestFs::TestFs(FsKind kind, const std::string& options) : m_dir(temporary("qzhsm-fs-XXXXXX")) {
    if (!::mkdtemp(m_dir.data()) || !havePrivateMounts())
        return;
    if (kind != FsKind::Ext4) {
        const char* type = kind == FsKind::Tmpfs ? "tmpfs" : "ramfs";
        m_ok = ::mount("none", m_dir.c_str(), type, 0, options.c_str()) == 0;
        return;
    }
    m_image = m_dir + ".img";
    const std::string make = "truncate -s 64M " + m_image + " && mkfs.ext4 -q " + m_image +
                             " && mount -o loop " + m_image + " " + m_dir;
    m_ok = std::system(make.c_str()) == 0;
}

TestFs::~TestFs() {
    if (m_ok)
        ::umount2(m_dir.c_str(), MNT_DETACH);
    ::rmdir(m_dir.c_str());
    if (!m_image.empty())
        ::unlink(m_image.c_str());
}

void TestFs::makeReadOnly() const {
    ASSERT_EQ(::mount(nullptr, m_dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string noise(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

void setTimes(const std::string& path, time_t access, time_t modification) {
    const utimbuf times{access, modification};
    ASSERT_EQ(::utime(path.c_str(), &times), 0) << path;
}

std::string attribute(const std::string& path, const char* name) {
    char value[65536];
    const ssize_t length = ::getxattr(path.c_str(), name, value, sizeof value);
    return length < 0 ? "-" : std::string(value, static_cast<size_t>(length));
}

void setAttribute(const std::string& path, const char* name, const std::string& value) {
    ASSERT_EQ(::setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << path;
}

Latin1Locale::Latin1Locale() : m_dir(temporary("qzhsm-locale-XXXXXX")) {
    if (!::mkdtemp(m_dir.data()) ||
        std::system(("localedef -f ISO-8859-1 -i de_DE " + m_dir + "/latin1").c_str()) != 0)
        throw std::runtime_error("needs package locales");
    ::setenv("LOCPATH", m_dir.c_str(), 1);
    if (!std::setlocale(LC_ALL, "latin1"))
        throw std::runtime_error("cannot set the locale");
}

Latin1Locale::~Latin1Locale() {
    std::setlocale(LC_ALL, "C");
    ::unsetenv("LOCPATH");
    std::filesystem::remove_all(m_dir);
}

TestConfig::TestConfig(const std::string& content) : m_file(temporary("qzhsm-conf-XXXXXX")) {
    ::close(::mkstemp(m_file.data()));
    writeFile(m_file, content);
    ::setenv("QZHSM_CONFIG", m_file.c_str(), 1);
}

TestConfig::~TestConfig() {
    ::unsetenv("QZHSM_CONFIG");
    ::unlink(m_file.c_str());
}
