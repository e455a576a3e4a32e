#pragma once

#include "platform/files/UniqueFd.h"
#include "service/stores/ObjectId.h"

#include <ctime>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

/// Asked between two pieces of work, and when a signal interrupts a read: whether to give up.
using StopRequest = std::function<bool()>;

/// Where the data of a recall comes from, read once from its beginning to its end.
class DataSource {
public:
    explicit DataSource(std::string name) : m_name(std::move(name)) {}
    DataSource(const DataSource&) = delete;
    DataSource& operator=(const DataSource&) = delete;
    virtual ~DataSource() = default;

    const std::string& name() const { return m_name; }
    /// The number of bytes, if it is known before they are read.
    virtual std::optional<long long> size() const = 0;
    /// The modification time that the file had when this was its data, if it is known.
    virtual std::optional<timespec> modified() const { return {}; }
    /// The file capabilities (attribute "security.capability") that the file had then; empty if it had none,
    /// or it is not known.
    virtual std::string capabilities() const { return {}; }
    /// The object in a store that this is, if it is one.
    virtual std::optional<ObjectId> object() const { return {}; }
    /// The next bytes, valid until the next call; none at the end. What is known to be wrong throws.
    virtual std::span<const char> next() = 0;
    /// Whether the bytes that were given last are a hole, and so nothing but zeros.
    virtual bool isHole() const { return false; }

private:
    std::string m_name;
};

/// Data that lies in a file somebody named, or comes through a pipe.
class FileSource final : public DataSource {
public:
    /// Throws for a directory, for the stub itself (`stub` is what stat(2) says of it), and for a file that
    /// begins with stub text and so holds no data, unless `force` is given.
    FileSource(std::string name, UniqueFd file, const struct stat& stub, bool force, StopRequest stop);

    std::optional<long long> size() const override { return m_size; }
    std::span<const char> next() override;

private:
    void refuseStubText(const std::vector<char>& head) const;

    UniqueFd m_file;
    bool m_force;
    StopRequest m_stop;
    std::optional<long long> m_size;
    std::vector<char> m_piece;
    bool m_begun = false;
};
