#pragma once

#include "service/stores/Store.h"

#include <chrono>

/// What a site's mover is called with. In each, "{object}" becomes the name of an object, which is made of
/// hexadecimal digits and "-" only; it must be there, but in `list`.
struct MoverCommands {
    std::string put; ///< stores standard input; status 0 means that it is safe
    /// Writes an object to standard output. With "{offset}" and "{count}" only that part, in bytes; a part
    /// that reaches beyond the object's end is cut there. Without "{offset}" what lies before is read and
    /// skipped.
    std::string get;
    std::string remove; ///< may fail for an object that is not there
    std::string list;   ///< writes the names, one a line; empty if the mover cannot
    /// How long no byte may move, or the end may take once all have moved, before the mover is killed.
    std::chrono::seconds timeout{600};
};

/// A store behind any mover: tape, object storage. Each operation runs a command or two. An object's record
/// is an object too, named like it with "-0" behind; it is put after the data.
class CommandStore : public Store {
public:
    /// Throws `Failure` for commands that cannot work.
    CommandStore(std::string name, MoverCommands commands);

    ObjectRecord put(int fd, ObjectRecord facts, const OnBytes& onBytes) override;
    /// Nothing is left to be done: a mover's status 0 is its word.
    void flush() override {}
    /// Reads the record alone. A mover cannot tell what is not there from what it could not reach: both
    /// throw.
    std::optional<ObjectRecord> look(const ObjectId& object) override;
    std::unique_ptr<ObjectReader> open(const ObjectRecord& record, const Extent& part) override;
    /// A mover locks nothing.
    UniqueFd lockRecords() override { return UniqueFd(); }
    /// For movers that replace what they put under the same name, as most do.
    void replaceRecord(const ObjectRecord& record) override;
    /// A mover that fails for what is not there makes this fail too, if there is no object.
    void remove(const ObjectId& object) override;
    /// Throws if the mover cannot list. Names of other forms are skipped.
    void list(const std::function<void(const ListedObject&)>& onObject) override;
    size_t leftovers(bool) override { return 0; }

private:
    bool hasRecord(const ObjectId& object);
    void removeQuietly(const ObjectId& object);

    MoverCommands m_commands;
};
