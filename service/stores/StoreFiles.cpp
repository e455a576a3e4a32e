#include "service/stores/StoreFiles.h"

#include "service/Failure.h"
#include "service/FileIo.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr const char* kLock = "lock";

UniqueFd openDirectory(int root, const std::string& path) {
    return UniqueFd(::openat(root, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

void takeAway(int root, const std::string& path, int directory) {
    forEachName(directory, path, [&](const char* file) { ::unlinkat(directory, file, 0); });
    ::unlinkat(root, path.c_str(), AT_REMOVEDIR);
}

} // namespace

void forEachName(int directory, const std::string& name, const std::function<void(const char*)>& onName) {
    UniqueFd own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)); // has a position of its own
    struct Close {
        void operator()(DIR* stream) const { ::closedir(stream); }
    };
    const std::unique_ptr<DIR, Close> stream(own.isOpen() ? ::fdopendir(own.get()) : nullptr);
    if (!stream)
        throw systemFailure("Failed to open directory ", name, errno);
    own.release();
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (!entry) {
            if (errno != 0)
                throw systemFailure("Failed to read directory ", name, errno);
            return;
        }
        const std::string_view found = entry->d_name;
        if (found != "." && found != "..")
            onName(entry->d_name);
    }
}

std::optional<std::string> readText(int directory, const char* path, const std::string& name, size_t max) {
    const UniqueFd file(::openat(directory, path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isOpen() && errno == ENOENT)
        return std::nullopt;
    struct stat st {};
    if (!file.isOpen() || ::fstat(file.get(), &st) < 0)
        throw systemFailure("Failed to open ", name, errno);
    if (static_cast<size_t>(st.st_size) > max)
        throw systemFailure("Failed to read ", name, EFBIG);
    std::string text(static_cast<size_t>(st.st_size), '\0');
    text.resize(readAt(file.get(), text.data(), text.size(), 0, name));
    return text;
}

NewFile::NewFile(int directory, const std::string& path, std::string name)
    : m_name(std::move(name)),
      m_file(::openat(directory, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
    if (!m_file.isOpen())
        throw systemFailure("Failed to create ", m_name, errno);
}

void NewFile::write(std::uint64_t offset, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t put = ::pwrite(m_file.get(), bytes, size, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            fail();
        bytes += put;
        offset += static_cast<std::uint64_t>(put);
        size -= static_cast<size_t>(put);
    }
}

void NewFile::setSize(std::uint64_t size) {
    if (::ftruncate(m_file.get(), static_cast<off_t>(size)) < 0)
        fail();
}

void NewFile::flush() {
    if (::fsync(m_file.get()) < 0)
        fail();
}

void NewFile::startWriting() {
    ::sync_file_range(m_file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void NewFile::close() {
    if (::close(m_file.release()) < 0)
        fail();
}

void NewFile::fail() const {
    throw systemFailure("Failed to write into ", m_name, errno);
}

StoreSession::StoreSession(int root, const std::string& name) : m_root(root) {
    const auto fail = [&] {
        throw systemFailure("Failed to make a temporary directory in store ", name, errno);
    };
    for (;;) {
        m_path = std::string(kTemporaryDirectory) + '/' + std::string(ObjectId::generate().text());
        if (::mkdirat(root, m_path.c_str(), 0700) < 0)
            fail();
        m_directory = openDirectory(root, m_path);
        if (m_directory.isOpen())
            m_lock = UniqueFd(
                ::openat(m_directory.get(), kLock, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        // Whoever looks for leftovers may take it away before it is locked.
        if (!m_lock.isOpen() && errno == ENOENT)
            continue;
        struct stat st {};
        if (!m_lock.isOpen() || ::flock(m_lock.get(), LOCK_EX) < 0 || ::fstat(m_lock.get(), &st) < 0)
            fail();
        if (st.st_nlink > 0)
            return;
        m_lock = UniqueFd();
    }
}

StoreSession::~StoreSession() {
    try {
        takeAway(m_root, m_path, m_directory.get());
    } catch (const Failure&) { // then it is a leftover
    }
}

size_t StoreSession::leftovers(int root, const std::string& name, bool remove) {
    const UniqueFd sessions = openDirectory(root, kTemporaryDirectory);
    if (!sessions.isOpen())
        throw systemFailure("Failed to open the temporary directory of store ", name, errno);
    size_t count = 0;
    forEachName(sessions.get(), name, [&](const char* session) {
        const UniqueFd directory = openDirectory(sessions.get(), session);
        if (!directory.isOpen())
            return;
        const UniqueFd lock(::openat(directory.get(), kLock, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (lock.isOpen() ? ::flock(lock.get(), LOCK_EX | LOCK_NB) < 0 : errno != ENOENT)
            return;
        forEachName(directory.get(), name, [&](std::string_view file) { count += file != kLock; });
        if (remove)
            takeAway(sessions.get(), session, directory.get());
    });
    return count;
}
