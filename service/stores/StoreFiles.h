#pragma once

#include "platform/files/UniqueFd.h"
#include "service/stores/ObjectId.h"

#include <functional>
#include <string>

// The files of a directory store. Nothing here follows a symbolic link.

/// In a store's directory, for what is not flushed.
constexpr const char* kTemporaryDirectory = "tmp";

/// Calls back with each name in the directory but "." and "..". Throws `Failure` with `name`.
void forEachName(int directory, const std::string& name, const std::function<void(const char*)>& onName);

/// A file's whole text; nothing if there is no such file. Throws `Failure` with `name`, also if it is
/// longer than `max` bytes.
std::optional<std::string> readText(int directory, const char* path, const std::string& name, size_t max);

/// A new file of mode 0600 that is written once.
class NewFile {
public:
    /// `name` is for failures.
    NewFile(int directory, const std::string& path, std::string name);

    void write(std::uint64_t offset, const char* bytes, size_t size);
    void setSize(std::uint64_t size);
    void flush();
    /// Has the disk begin, so that a later flush waits for less.
    void startWriting();
    /// Some file systems tell only here that they have no room.
    void close();

private:
    [[noreturn]] void fail() const;

    std::string m_name;
    UniqueFd m_file;
};

/// The directory "tmp/UUID" of a store, in which one process keeps what it has not flushed. As long as the
/// process lives it holds a lock (flock) on the file "lock" in it: so what the dead have left is told from
/// what is at work.
class StoreSession {
public:
    /// Makes one. `root` is the store's directory and `name` its name for failures.
    StoreSession(int root, const std::string& name);
    StoreSession(const StoreSession&) = delete;
    StoreSession& operator=(const StoreSession&) = delete;
    /// Takes it away with all that is in it.
    ~StoreSession();

    int directory() const { return m_directory.get(); }

    /// Counts the files of sessions whose process is dead, and takes them away if told to.
    static size_t leftovers(int root, const std::string& name, bool remove);

private:
    int m_root;
    std::string m_path;
    UniqueFd m_directory;
    UniqueFd m_lock;
};
