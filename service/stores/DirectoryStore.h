#pragma once

#include "platform/files/UniqueFd.h"
#include "service/stores/Store.h"

#include <mutex>
#include <vector>

class StoreSession;

/// A store in a directory, which may be read, copied and mounted elsewhere without this program:
///
///     qzhsm-store.json              says that this is a store, of which format, and its UUID
///     3f/3f2504e0-4f89-...          an object: the plain content, holes being holes
///     3f/3f2504e0-4f89-....json     its record, see `ObjectRecord`
///     tmp/UUID/                     what a process has put and not flushed, see `StoreSession`
///
/// Objects and records get their names only after they are on the disk, so what has its name is whole: `put`
/// writes them below tmp/, `flush` has the kernel write out the whole file system once (syncfs), renames the
/// batch, and has the names written out the same way. What was not flushed vanishes with the store object.
class DirectoryStore : public Store {
public:
    /// Makes a store of a directory that does not exist, or is empty: a new file system's "lost+found" may be
    /// there, and what a run that was cut short has made. The directory is then closed to all but its owner
    /// (mode 0700). One of another user is refused, who could take away what is in it. Throws `Failure`.
    static void create(const std::string& directory);

    /// Opens a store; `name` is what stubs call it, its absolute path if empty. Throws `Failure` if the
    /// directory is no store: an archive disk that is not mounted must not look like an empty archive.
    explicit DirectoryStore(const std::string& directory, std::string name = {});
    /// The same with a directory that is open.
    DirectoryStore(UniqueFd directory, std::string name);
    ~DirectoryStore() override;

    ObjectRecord put(int fd, ObjectRecord facts, const OnBytes& onBytes) override;
    void flush() override;
    std::optional<ObjectRecord> look(const ObjectId& object) override;
    UniqueFd lockRecords() override;
    void replaceRecord(const ObjectRecord& record) override;
    std::unique_ptr<ObjectReader> open(const ObjectRecord& record, const Extent& part) override;
    void remove(const ObjectId& object) override;
    void list(const std::function<void(const ListedObject&)>& onObject) override;
    size_t leftovers(bool remove) override;

private:
    int session();
    void requireWhole() const;
    void writeRecord(int directory, const ObjectRecord& record) const;
    bool takeBack(const ObjectId& object);
    void writeOut();
    void giveNames(const std::vector<ObjectId>& batch);

    UniqueFd m_root;
    std::mutex m_flushing; ///< held while a batch gets its names; taken before the other
    std::mutex m_mutex;    ///< for all below
    std::unique_ptr<StoreSession> m_session;
    std::vector<ObjectId> m_batch; ///< put and not flushed
    bool m_removed = false;        ///< something was, since the last flush
    bool m_broken = false;         ///< a flush failed
};
