#pragma once

#include "service/DataSource.h"
#include "service/FileState.h"
#include "service/stores/StoreConfig.h"
#include "service/stores/VerifiedReader.h"

#include <memory>

/// A stub's data in a store. Every piece is compared with its checksum before it is handed out.
class StoreSource final : public DataSource {
public:
    StoreSource(Store& store, ObjectRecord record, StopRequest stop);

    std::optional<long long> size() const override { return static_cast<long long>(m_record.size); }
    std::optional<timespec> modified() const override;
    std::vector<char> next() override;

private:
    ObjectRecord m_record;
    VerifiedReader m_reader;
    StopRequest m_stop;
};

/// The record of the object that a stub names. Whoever may write a file can write a stub's text, so the word
/// of the stub is not taken for it: throws unless the record says that the object was taken from this very
/// file, of the same owner, size and checksum.
ObjectRecord findRecord(Store& store, const StubMetadata& metadata, const OpenFile& file,
                        const FileLook& look);

/// What a stub's metadata says; throws if it names no object in a store.
StubMetadata readMetadata(const OpenFile& file, const FileLook& look);
