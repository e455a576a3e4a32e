#include "service/Walk.h"

#include "service/stores/DirectoryMarker.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>

void Walk::from(const std::string& path) {
    if (m_isToStop())
        return;
    try {
        OpenFile file = OpenFile::named(path);
        const struct stat st = file.stat();
        const std::string store = m_entersStores ? std::string() : storeAround(file.fd());
        if (!store.empty())
            throw Failure(QZHSM_FAILURE, path + " lies in the store " + store);
        m_tree = path.size();
        if (S_ISDIR(st.st_mode)) {
            m_observer.walking(path);
            return directory(file, st.st_dev);
        }
        if (!S_ISREG(st.st_mode))
            throw Failure(QZHSM_FAILURE, path + " is neither a regular file nor a directory");
        m_visit(std::move(file));
    } catch (const Failure& failure) {
        m_observer.failed(path, failure);
    }
}

void Walk::directory(const OpenFile& directory, dev_t device) {
    UniqueFd readable(::openat(directory.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable.isOpen())
        throw systemFailure("Failed to read ", directory.name(), errno);
    if (!m_entersStores && isStore(readable.get()))
        return m_observer.skipped(directory.name(), "it is a store");
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(readable.get()), ::closedir);
    if (!entries)
        throw systemFailure("Failed to read ", directory.name(), errno);
    const int fd = readable.release(); // the stream's now
    errno = 0;
    while (const dirent* found = ::readdir(entries.get())) {
        const std::string_view name = found->d_name;
        if (name != "." && name != "..") {
            const std::string path =
                directory.name() + (directory.name().ends_with('/') ? "" : "/") + found->d_name;
            const bool worthOpening =
                found->d_type == DT_REG || found->d_type == DT_DIR || found->d_type == DT_UNKNOWN;
            if (m_isToStop())
                return;
            if (worthOpening && !m_leaveOut(path, found->d_name))
                entry(fd, found->d_name, path, device);
        }
        errno = 0;
    }
    if (errno != 0)
        throw systemFailure("Failed to read ", directory.name(), errno);
}

void Walk::entry(int parent, const char* name, const std::string& path, dev_t device) {
    try {
        OpenFile file = OpenFile::in(parent, name, path, m_tree);
        const struct stat st = file.stat();
        if (st.st_dev != device) {
            if (S_ISDIR(st.st_mode))
                m_observer.skipped(path, "it lies on another file system");
            return;
        }
        if (S_ISDIR(st.st_mode))
            directory(file, device);
        else if (S_ISREG(st.st_mode))
            m_visit(std::move(file));
    } catch (const Failure& failure) {
        m_observer.failed(path, failure);
    }
}
