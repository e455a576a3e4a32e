#pragma once

#include "platform/files/UniqueFd.h"
#include "service/Failure.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>

/// One file, opened once. All that is done through this object is done to that very file, whatever happens to
/// its name in the meantime: users may own the tree in which a service works, and swap files in it.
class OpenFile {
public:
    /// Opens the file at a path that somebody named. A symbolic link in its last component is not followed,
    /// and one on the way only if it is root's or the caller's own: another user may have put it there
    /// meanwhile. Nothing is read, and no driver or lease is woken. Throws if there is no such file.
    static OpenFile named(const std::string& path);
    /// The same, following symbolic links: for whoever only looks.
    static OpenFile following(const std::string& path);
    /// The directory that a path's last component is in, found like `named` finds a file: for whoever makes a
    /// file there or replaces one. It can be read and flushed.
    static UniqueFd directoryOf(const std::string& path);
    /// Opens an entry of an open directory; `shown` is the path that users know it by. So many bytes of that
    /// are the path of a tree that somebody named.
    static OpenFile in(int directory, const char* entry, std::string shown, size_t tree = 0);

    /// The same, and open for reading if it is a regular file that can be read at once: for whoever looks
    /// into every file.
    static OpenFile readableIn(int directory, const char* entry, std::string shown, size_t tree = 0);

    /// A file that is open for no access already.
    static OpenFile of(UniqueFd fd, std::string shown) { return {std::move(fd), std::move(shown)}; }
    /// A regular file that is open for reading already.
    static OpenFile ofReadable(UniqueFd fd, std::string shown);

    /// Of the file alone: fit for fstat(2) and the *at calls, and for no other access unless it is readable.
    int fd() const { return m_fd.get(); }
    bool isReadable() const { return m_readable; }

    /// Whether its attributes, when it was found, had no kept text (KeptText.h) among them.
    bool lacksKeptText() const { return m_lacksKeptText; }
    void setLacksKeptText() { m_lacksKeptText = true; }
    /// What messages call the file.
    const std::string& name() const { return m_name; }
    /// A path that leads to this very file, for interfaces that take paths and follow links.
    const std::string& path() const { return m_path; }

    /// The path below the directory that somebody named, or, if this very file was named, as it was named.
    std::string_view relative() const { return std::string_view(m_name).substr(m_tree); }

    /// Whether somebody named this very file, rather than a directory above it.
    bool isNamed() const { return m_named; }

    /// What the file is now.
    struct stat stat() const;
    /// The same, or, if `readableIn` has opened it for reading, what it was then.
    struct stat statOfLook() const {
        return m_opened ? *m_opened : stat();
    }
    /// The file, opened with open(2)'s `flags`. Reading leaves the access time alone if the system allows.
    UniqueFd open(int flags) const;
    /// getxattr(2) on the file.
    ssize_t attribute(const char* attribute, void* value, size_t size) const;

    /// Runs `act`. A failure's text names the file as users know it.
    template <class Act>
    auto as(Act act) const {
        try {
            return act();
        } catch (const Failure& failure) {
            throw renamed(failure);
        }
    }

private:
    OpenFile(UniqueFd fd, std::string name);
    Failure renamed(const Failure& failure) const;

    UniqueFd m_fd;
    std::string m_name;
    std::string m_path;
    size_t m_tree = 0;
    bool m_named = false;
    bool m_readable = false;
    bool m_lacksKeptText = false;
    std::optional<struct stat> m_opened;
};
