#include "service/Walk.h"

#include "service/kinds/StubKind.h"
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
        if (S_ISDIR(st.st_mode)) {
            m_observer.walking(path);
            return directory({std::move(file), st.st_dev, path.size(), 0});
        }
        if (!S_ISREG(st.st_mode))
            throw Failure(QZHSM_FAILURE, path + " is neither a regular file nor a directory");
        m_visit(std::move(file));
    } catch (const Failure& failure) {
        m_observer.failed(path, failure);
    }
}

void Walk::below(const FoundDirectory& found) {
    try {
        directory(found);
    } catch (const Failure& failure) {
        m_observer.failed(found.file.name(), failure);
    }
}

void Walk::directory(const FoundDirectory& found) {
    const std::string& path = found.file.name();
    UniqueFd readable(::openat(found.file.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable.isOpen())
        throw systemFailure("Failed to read ", path, errno);
    if (!m_entersStores && isStore(readable.get()))
        return m_observer.skipped(path, "it is a store");
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(readable.get()), ::closedir);
    if (!entries)
        throw systemFailure("Failed to read ", path, errno);
    const int fd = readable.release(); // the stream's now
    errno = 0;
    while (const dirent* next = ::readdir(entries.get())) {
        if (m_isToStop())
            return;
        const std::string_view name = next->d_name;
        if (name != "." && name != "..")
            entry({fd, next->d_name, path}, next->d_type, found);
        errno = 0;
    }
    if (errno != 0)
        throw systemFailure("Failed to read ", path, errno);
}

void Walk::entry(const Entry& entry, unsigned char type, const FoundDirectory& parent) {
    if (type != DT_REG && type != DT_DIR && type != DT_UNKNOWN)
        return;
    if (m_leaveOut && m_leaveOut(entry.path(), entry.name))
        return;
    Glance glance;
    if (m_kind && type != DT_DIR)
        glance = m_kind->glance(entry.directory, entry.name);
    if (glance.plain && glance.plain->st_dev == parent.device && m_visitPlain(entry, *glance.plain))
        return;
    const std::string path = entry.path();
    try {
        OpenFile file = m_reads && type == DT_REG
                            ? OpenFile::readableIn(entry.directory, entry.name, path, parent.tree)
                            : OpenFile::in(entry.directory, entry.name, path, parent.tree);
        const struct stat st = file.statOfLook();
        if (st.st_dev != parent.device) {
            // Files of an overlay's lower layers differ too.
            if (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode)) {
                m_leftOut.insert(st.st_dev);
                m_observer.skipped(path, "it lies on another file system");
            }
            return;
        }
        if (S_ISREG(st.st_mode)) {
            if (file.isReadable() && glance.lacksKeptText)
                file.setLacksKeptText();
            return m_visit(std::move(file));
        }
        if (!S_ISDIR(st.st_mode))
            return;
        constexpr int kDeepest = 1000; // each level takes descriptors and stack
        if (parent.depth == kDeepest)
            throw Failure(QZHSM_FAILURE,
                          path + " lies more than " + std::to_string(kDeepest) + " directories deep");
        FoundDirectory found{std::move(file), parent.device, parent.tree, parent.depth + 1};
        if (!m_handOver(found))
            directory(found);
    } catch (const Failure& failure) {
        m_observer.failed(path, failure);
    }
}
