#pragma once

#include "service/stores/Checksums.h"
#include "service/stores/FileIdentity.h"
#include "service/stores/ObjectId.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A part of a content, in bytes.
struct Extent {
    std::uint64_t offset;
    std::uint64_t length;

    std::uint64_t end() const { return offset + length; }
    bool operator==(const Extent&) const = default;
};

/// A file that may have an object's data: that very file, of that owner.
struct FileOwner {
    FileIdentity file;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;

    /// Of an open file. Throws `Failure` with `name` if it cannot be asked.
    static FileOwner of(int fd, const std::string& name);
    bool matches(const FileOwner& other) const {
        return uid == other.uid && gid == other.gid && file.matches(other.file);
    }
};

/// What a store keeps beside an object: where its data came from, and how to tell that it is whole.
///
/// As text it is one JSON object of ASCII characters. Names and values: "format" 1; "object"; "path" as
/// `percentText` has it, since names may hold any bytes; "size"; "atime", "mtime", "ctime" and "stored" in
/// nanoseconds since 1970; "mode", "uid" and "gid" as numbers; "handleType", "handle", "fsid" and "fsUuid"
/// as in `FileIdentity`, bytes in hexadecimal; "adopted", objects of the last six, if there are such files;
/// "capability", the bytes of "security.capability" in hexadecimal, if the file has them; "holes", pairs of
/// offset and length, if it has some; "pieceSize", "xxh3" with one text for each piece, and "xxh128"; at the
/// end "check", XXH3-64 of the text before it in hexadecimal. Who mends a record by hand takes "check" away.
struct ObjectRecord {
    /// More holes than these are stored as the zeros that they read as.
    static constexpr size_t kHolesMax = 65536;
    /// No record's text is longer, in bytes.
    static constexpr size_t kTextMax = 256UL * 1024 * 1024;
    /// No file is larger, some 50 TiB: the text has 19 bytes for each piece, and room for holes and owners.
    static constexpr std::uint64_t kSizeMax = (kTextMax - 16UL * 1024 * 1024) / 19 * kPieceSize;

    ObjectId object;
    std::string
        path; ///< where the file was when it was put, from the root on; a hint for people, and never opened
    std::uint64_t size = 0;
    std::int64_t atime = 0; ///< these four in nanoseconds
    std::int64_t mtime = 0;
    std::int64_t ctime = 0;
    std::int64_t stored = 0;        ///< when it was put
    std::uint32_t mode = 0;         ///< st_mode
    FileOwner owner;                ///< the file that it was taken from
    std::vector<FileOwner> adopted; ///< further files that were confirmed to be stubs of it
    std::string capability;         ///< the attribute "security.capability", or nothing
    std::vector<Extent> holes;      ///< in ascending order
    Checksums checksums;

    /// What there is to know of an open file before it is put. Throws `Failure`.
    static ObjectRecord describe(int fd, std::string path);

    std::string toText() const;
    /// Throws `Failure` with what is wrong in a text that is no record.
    static ObjectRecord fromText(std::string_view from);

    /// Whether its data may be handed to this file.
    bool isOf(const FileOwner& candidate) const;

    /// The parts of this part of the content that are data; none if it is all hole.
    std::vector<Extent> dataWithin(const Extent& part) const;
};
