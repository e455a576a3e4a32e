#include "service/OpenFile.h"

#include "platform/files/FdPath.h"
#include "service/FileIo.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kOnlyTheFile = O_PATH | O_CLOEXEC;

UniqueFd openAt(int directory, const char* entry, int flags, const std::string& shown) {
    UniqueFd fd(::openat(directory, entry, kOnlyTheFile | flags));
    if (!fd.isOpen())
        throw systemFailure("Failed to open ", shown, errno);
    return fd;
}

void replaceAll(std::string& text, const std::string& what, const std::string& by) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
}

/// Whoever may write a directory on the way may have put a link there. One is followed if it belongs to root
/// or to whom this process works for; the file itself may be one.
UniqueFd openTrusted(const std::string& path) {
    open_how how{};
    how.flags = kOnlyTheFile | O_NOFOLLOW;
    how.resolve = RESOLVE_NO_SYMLINKS;
    UniqueFd direct(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    if (direct.isOpen())
        return direct;

    int links = 0;
    std::string rest = path;
    UniqueFd at;
    for (;;) {
        if (rest.starts_with('/'))
            at = openAt(AT_FDCWD, "/", 0, path);
        const size_t start = std::min(rest.find_first_not_of('/'), rest.size());
        const size_t end = std::min(rest.find('/', start), rest.size());
        const std::string component = start == end ? "." : rest.substr(start, end - start);
        const bool isDirectory = end < rest.size();
        rest.erase(0, std::min(rest.find_first_not_of('/', end), rest.size()));
        if (rest.empty() && isDirectory)
            rest.assign(1, '.'); // a link with a slash behind it is followed
        UniqueFd next = openAt(at.isOpen() ? at.get() : AT_FDCWD, component.c_str(), O_NOFOLLOW, path);
        if (rest.empty())
            return next;
        struct stat st {};
        if (::fstat(next.get(), &st) < 0)
            throw systemFailure("Failed to stat ", path, errno);
        if (!S_ISLNK(st.st_mode)) {
            at = std::move(next);
            continue;
        }
        if (st.st_uid != 0 && st.st_uid != ::geteuid())
            throw Failure(QZHSM_FAILURE, std::string(path)
                                             .append(" leads through a symbolic link of another user, ")
                                             .append(component));
        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(next.get(), "", target, sizeof target);
        if (length < 0 || ++links > 40)
            throw systemFailure("Failed to open ", path, length < 0 ? errno : ELOOP);
        rest.insert(0, std::string(target, static_cast<size_t>(length)) + '/');
    }
}

} // namespace

OpenFile::OpenFile(UniqueFd fd, std::string name)
    : m_fd(std::move(fd)), m_name(std::move(name)), m_path(fdPath(m_fd.get())) {}

OpenFile OpenFile::named(const std::string& path) {
    if (path.empty())
        throw systemFailure("Failed to open ", "\"\"", ENOENT);
    OpenFile file(openTrusted(path), path);
    file.m_named = true;
    return file;
}

OpenFile OpenFile::ofReadable(UniqueFd fd, std::string shown) {
    OpenFile file(std::move(fd), std::move(shown));
    file.m_readable = true;
    return file;
}

OpenFile OpenFile::following(const std::string& path) {
    return {openAt(AT_FDCWD, path.c_str(), 0, path), path};
}

UniqueFd OpenFile::directoryOf(const std::string& path) {
    const std::string parent = parentOf(path);
    const OpenFile directory(openTrusted(parent + '/'), parent);
    return directory.open(O_RDONLY | O_DIRECTORY);
}

OpenFile OpenFile::in(int directory, const char* entry, std::string shown, size_t tree) {
    UniqueFd fd = openAt(directory, entry, O_NOFOLLOW, shown);
    OpenFile file(std::move(fd), std::move(shown));
    file.m_tree = tree;
    return file;
}

OpenFile OpenFile::readableIn(int directory, const char* entry, std::string shown, size_t tree) {
    // Of what somebody may have put in the place of a regular file only a device would be woken, and those
    // who may make one need not.
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd fd(::openat(directory, entry, kFlags | O_NOATIME));
    if (!fd.isOpen() && errno == EPERM)
        fd = UniqueFd(::openat(directory, entry, kFlags));
    struct stat st {};
    if (!fd.isOpen() || ::fstat(fd.get(), &st) < 0 || !S_ISREG(st.st_mode))
        return in(directory, entry, std::move(shown), tree);
    OpenFile file(std::move(fd), std::move(shown));
    file.m_tree = tree;
    file.m_readable = true;
    file.m_opened = st;
    return file;
}

struct stat OpenFile::stat() const {
    struct stat st {};
    if (::fstat(m_fd.get(), &st) < 0)
        throw systemFailure("Failed to stat ", m_name, errno);
    return st;
}

UniqueFd OpenFile::open(int flags) const {
    UniqueFd fd(::open(m_path.c_str(), flags | O_CLOEXEC | O_NOATIME));
    if (!fd.isOpen() && errno == EPERM) // another user's file, or a file system without that
        fd = UniqueFd(::open(m_path.c_str(), flags | O_CLOEXEC));
    if (!fd.isOpen())
        throw systemFailure("Failed to open ", m_name, errno);
    return fd;
}

ssize_t OpenFile::attribute(const char* attribute, void* value, size_t size) const {
    return m_readable ? ::fgetxattr(m_fd.get(), attribute, value, size)
                      : ::getxattr(m_path.c_str(), attribute, value, size);
}

Failure OpenFile::renamed(const Failure& failure) const {
    std::string text = failure.what();
    std::string advice = failure.advice();
    replaceAll(text, m_path, m_name);
    replaceAll(advice, m_path, m_name);
    return {failure.code(), text, std::move(advice)};
}
