#include "tests/support/TestFs.h"

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
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

namespace fs = std::filesystem;

namespace {

std::string newDirectory(const char* shape) {
    std::string name = ::testing::TempDir() + shape;
    if (!::mkdtemp(name.data()))
        throw std::runtime_error("cannot make " + name);
    return name;
}

std::string newFile(const char* shape) {
    std::string name = ::testing::TempDir() + shape;
    ::close(::mkstemp(name.data()));
    return name;
}

/// Mounts vanish with the process, whatever becomes of it. In a chroot the root directory is no mount point,
/// but one of the directories on the way to the tests' own may be. The answer is what stands in the way.
std::string makeMountsPrivate() {
    if (::unshare(CLONE_NEWNS) < 0)
        return std::string("mounting file systems needs root: ") + std::strerror(errno);
    fs::path dir;
    for (const fs::path& name : fs::canonical(::testing::TempDir()))
        if (::mount(nullptr, (dir /= name).c_str(), nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
            return "";
    return "TEST_TMPDIR must lie on a mount point of its own, as the root directory is none";
}

} // namespace

TestFs::TestFs(FsKind kind, const std::string& options) : m_dir(newDirectory("qzhsm-fs-XXXXXX")) {
    static const std::string whyNoMounts = makeMountsPrivate();
    m_why = whyNoMounts;
    if (!m_why.empty())
        return;
    bool mounted = false;
    const char* type = kind == FsKind::Ext4 ? "ext4" : kind == FsKind::Tmpfs ? "tmpfs" : "ramfs";
    if (kind == FsKind::Ext4) {
        m_image = m_dir + ".img";
        const std::string make = "truncate -s 64M " + m_image + " && mkfs.ext4 -q " + m_image +
                                 " && mount -o loop " + m_image + " " + m_dir;
        mounted = std::system(make.c_str()) == 0;
    } else {
        mounted = ::mount("none", m_dir.c_str(), type, 0, options.c_str()) == 0;
    }
    if (!mounted)
        m_why = std::string(type) + " cannot be mounted";
}

TestFs::~TestFs() {
    if (m_why.empty())
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

long entriesOf(const std::string& dir) {
    return std::distance(fs::directory_iterator(dir), fs::directory_iterator());
}

long openDescriptors() {
    return entriesOf("/proc/self/fd");
}

Latin1Locale::Latin1Locale() : m_dir(newDirectory("qzhsm-locale-XXXXXX")), m_named("LOCPATH", m_dir) {
    if (std::system(("localedef -f ISO-8859-1 -i de_DE " + m_dir + "/latin1").c_str()) != 0 ||
        !std::setlocale(LC_ALL, "latin1"))
        throw std::runtime_error("needs package locales");
}

Latin1Locale::~Latin1Locale() {
    std::setlocale(LC_ALL, "C");
    fs::remove_all(m_dir);
}

TestConfig::TestConfig(const std::string& content)
    : m_file(newFile("qzhsm-conf-XXXXXX")), m_named("QZHSM_CONFIG", m_file) {
    writeFile(m_file, content);
}

TestConfig::~TestConfig() {
    ::unlink(m_file.c_str());
}
