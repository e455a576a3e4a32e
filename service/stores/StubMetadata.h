#pragma once

#include "service/stores/Store.h"

#include <optional>
#include <string>
#include <string_view>

/// What a stub's metadata says of where its data is. Whoever may write a file can write such text: it is a
/// question to a store, and proves nothing.
///
/// As text: `versionGuid=<object's 32 digits>;store=<name or path>;storeUuid=<uuid>;object=<uuid>;
/// xxh128=<32 digits>` in one line, without "storeUuid" for a store that has none. Store names are written as
/// `percentText` has them. Every back-end can carry it.
struct StubMetadata {
    std::string store;     ///< a configured store's name, or a directory store's absolute path
    std::string storeUuid; ///< that of a directory store, or empty
    ObjectId object;
    std::string xxh128; ///< of the whole content, as in `Checksums`

    StubMetadata() = default;
    StubMetadata(const Store& in, const ObjectRecord& record);

    std::string toText() const;
    /// Nothing for a text that names no store, object and checksum; fields of other names are skipped.
    static std::optional<StubMetadata> fromText(std::string_view text);
};
