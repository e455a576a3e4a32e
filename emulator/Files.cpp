// The files. Nothing here calls what the emulator takes the place of, so openat stands for open, and fstatat
// for stat.

#include "emulator/Files.h"

#include "emulator/State.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/xattr.h>

namespace emulator {

namespace {

constexpr const char* kRecord = "user.nkfsdm.stub";

std::pair<dev_t, ino_t> inodeOf(const struct stat& st) {
    return {st.st_dev, st.st_ino};
}

} // namespace

File look(const std::string& path) {
    File file;
    file.path = path;
    if (::fstatat(AT_FDCWD, path.c_str(), &file.st, 0) < 0) {
        file.err = errno;
        return file;
    }
    file.watched = driver().watched.contains(file.st.st_dev);
    char record[4096];
    const ssize_t length = ::getxattr(path.c_str(), kRecord, record, sizeof record);
    if (length > 0)
        file.record.assign(record, static_cast<size_t>(length));
    return file;
}

// An identifier is the inode, its complement, and the device.

fsf_fid fidOf(const std::string& path) {
    struct stat st {};
    if (::fstatat(AT_FDCWD, path.c_str(), &st, 0) < 0)
        die("no file to identify: " + path);
    const std::lock_guard lock(driverLock);
    driver().identified[inodeOf(st)] = path;
    return {{st.st_ino, ~st.st_ino, st.st_dev}};
}

File lookByFid(const fsf_fid& fid) {
    const auto found = driver().identified.find({fid.words[2], fid.words[0]});
    const bool known = found != driver().identified.end() && fid.words[1] == ~fid.words[0];
    return look(known ? found->second : "");
}

std::pair<dev_t, ino_t> inodeOf(int fd) {
    struct stat st {};
    ::fstat(fd, &st);
    return inodeOf(st);
}

int check(const File& file) {
    return file.err != 0 ? file.err : file.watched && S_ISREG(file.st.st_mode) ? 0 : EINVAL;
}

int makeStub(const File& file, int64_t size, const char* meta) {
    const char* path = file.path.c_str();
    const std::string record = std::to_string(size) + "\n" + meta;
    const timespec times[] = {file.st.st_atim, file.st.st_mtim};
    const bool made = ::setxattr(path, kRecord, record.data(), record.size(), 0) == 0 &&
                      ::truncate(path, 0) == 0 && ::truncate(path, size) == 0 &&
                      ::utimensat(AT_FDCWD, path, times, 0) == 0;
    return made ? 0 : errno;
}

int dropStub(const File& file) {
    return ::removexattr(file.path.c_str(), kRecord) < 0 ? errno : 0;
}

int redirect(int fd, const File& file) {
    const UniqueFd own(::openat(AT_FDCWD, file.path.c_str(), ::fcntl(fd, F_GETFL) & O_ACCMODE));
    const int flags = ::fcntl(fd, F_GETFD) != 0 ? O_CLOEXEC : 0;
    return own.isOpen() && ::dup3(own.get(), fd, flags) >= 0 ? 0 : errno;
}

bool isLockedByAnother(const File& file) {
    const UniqueFd opened(::openat(AT_FDCWD, file.path.c_str(), O_RDONLY | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    return ::fcntl(opened.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

SharedWatchList::SharedWatchList() : m_path(std::getenv("QZHSM_EMULATOR_STATE")) {
    if (!m_path)
        return;
    m_lock = UniqueFd(::openat(AT_FDCWD, m_path, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    if (!m_lock.isOpen())
        die(std::string("QZHSM_EMULATOR_STATE, ") + m_path + ": " + ::strerror(errno));
    while (::flock(m_lock.get(), LOCK_EX) < 0 && errno == EINTR) {
    }
    driver().watched.clear();
    std::ifstream in(m_path);
    for (uint64_t dev = 0; in >> dev;)
        driver().watched.insert(dev);
    m_before = driver().watched;
}

SharedWatchList::~SharedWatchList() {
    if (!m_path || driver().watched == m_before)
        return;
    std::ofstream out(m_path);
    for (const uint64_t dev : driver().watched)
        out << dev << '\n';
}

} // namespace emulator
