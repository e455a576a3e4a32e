#pragma once

#include "platform/files/UniqueFd.h"
#include "service/stores/ObjectRecord.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// Called with the number of bytes that are done so far, at least once for each piece. What it throws ends
/// the operation and passes.
using OnBytes = std::function<void(std::uint64_t done)>;

/// Reads a part of an object from its beginning to its end. Belongs to one thread. To give up, destroy it.
class ObjectReader {
public:
    ObjectReader() = default;
    ObjectReader(const ObjectReader&) = delete;
    ObjectReader& operator=(const ObjectReader&) = delete;
    virtual ~ObjectReader();

    /// The next `size` bytes, all of them. Throws `Failure` if the store has fewer.
    virtual void read(char* buffer, size_t size) = 0;
    /// Leaves so many bytes out.
    virtual void skip(std::uint64_t size) = 0;
    /// To be called when the part was read to its end: throws `Failure` if the store says only then that
    /// something went wrong. Until then what was read is known to be right by its checksums alone.
    virtual void finish() = 0;
};

/// One that a store lists.
struct ListedObject {
    ObjectId object;
    /// Set for an object without a record, which a crash or a removal that was cut short left: since when, by
    /// the store's clock; now, if the store cannot tell. A whole object has its time in its record.
    std::optional<std::time_t> leftSince;
};

/// Where archived data lies: objects, each the plain content of one file, with a record beside it. An object
/// exists if its record does. Objects are never changed.
///
/// All operations may be called from several threads at once, but not on both sides of a fork. What goes
/// wrong throws `Failure`, whose text names the store; its code is 4 for an object that is not there, 3 for a
/// file that became shorter while it was read, 7 for a mover that made no progress, else -1. A failed
/// operation leaves no object behind unless the store itself could not be reached; such a leftover is
/// listed.
class Store {
public:
    /// `name` is what stubs call the store: the NAME of its section "Store/NAME", or its absolute path.
    /// `uuid` is the store's own, or empty if it has none.
    Store(std::string name, std::string uuid);
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store();

    const std::string& name() const { return m_name; }
    const std::string& uuid() const { return m_uuid; }

    /// Reads the file from its beginning to `facts.size` and stores it. `facts` is what `describe` gave; the
    /// result is the same with object, time, holes and checksums filled in. Reads with pread, and moves the
    /// descriptor's position. The caller has to look afterwards whether the file was changed meanwhile.
    ///
    /// Nothing counts as stored before a `flush` that began later has returned: until then the object can
    /// neither be looked at nor read, and a crash may take it away, but leaves none that is torn.
    virtual ObjectRecord put(int fd, ObjectRecord facts, const OnBytes& onBytes = {}) = 0;

    /// Brings all that was put and removed down to the disk, for all threads. Costs a whole batch little more
    /// than one object. After a failure the store takes nothing more: what became of the batch is not known.
    virtual void flush() = 0;

    /// The object's record, or nothing if there is none. Throws if there is a record but the object is
    /// missing or of another length, as far as the store can tell without reading it.
    virtual std::optional<ObjectRecord> look(const ObjectId& object) = 0;

    /// Keeps others from replacing records, from a `look` to the `replaceRecord` that goes by it, for as long
    /// as the result is open. It is not if the store cannot do that: there a change that others make just
    /// then is lost.
    virtual UniqueFd lockRecords() = 0;

    /// Puts a record in the place of the one that its object has, on the disk. After a failure one of both is
    /// there, or, of a mover that broke off, perhaps a part: the former is to be put again. The object must
    /// exist.
    virtual void replaceRecord(const ObjectRecord& record) = 0;

    /// Begins to read a part, which must lie within the object.
    virtual std::unique_ptr<ObjectReader> open(const ObjectRecord& record, const Extent& part) = 0;

    /// Takes an object away, its record first, flushed or not. One that is not there is no failure, if
    /// the store can tell.
    virtual void remove(const ObjectId& object) = 0;

    /// Calls back for each object, in no order.
    virtual void list(const std::function<void(const ListedObject&)>& onObject) = 0;

    /// How many files under temporary names processes that died have left behind; takes them away if told to.
    /// Those of a process that lives are not counted.
    virtual std::size_t leftovers(bool remove) = 0;

protected:
    /// "PHRASE OBJECT in store NAME", for failures.
    std::string about(std::string_view phrase, const ObjectId& object) const;
    /// The record in a text that was stored as this object's. Throws `Failure` for any other.
    ObjectRecord readRecord(const ObjectId& object, std::string_view text) const;

private:
    std::string m_name;
    std::string m_uuid;
};
