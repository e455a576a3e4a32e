#include "service/OpenFile.h"

#include <cerrno>
#include <fcntl.h>
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

} // namespace

OpenFile::OpenFile(UniqueFd fd, std::string name)
    : m_fd(std::move(fd)), m_name(std::move(name)), m_path("/proc/self/fd/" + std::to_string(m_fd.get())) {}

OpenFile OpenFile::named(const std::string& path) {
    OpenFile file = in(AT_FDCWD, path.c_str(), path);
    file.m_named = true;
    return file;
}

OpenFile OpenFile::following(const std::string& path) {
    return {openAt(AT_FDCWD, path.c_str(), 0, path), path};
}

OpenFile OpenFile::in(int directory, const char* entry, std::string shown, size_t tree) {
    UniqueFd fd = openAt(directory, entry, O_NOFOLLOW, shown);
    OpenFile file(std::move(fd), std::move(shown));
    file.m_tree = tree;
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

Failure OpenFile::renamed(const Failure& failure) const {
    std::string text = failure.what();
    std::string advice = failure.advice();
    replaceAll(text, m_path, m_name);
    replaceAll(advice, m_path, m_name);
    return {failure.code(), text, std::move(advice)};
}
