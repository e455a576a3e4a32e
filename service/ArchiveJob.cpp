#include "service/ArchiveJob.h"

#include "service/NotedObject.h"
#include "service/stores/StubMetadata.h"
#include "service/stores/VerifiedReader.h"

#include <filesystem>

/// The path that the kernel tells, or else the absolute form of what was typed.
std::string ArchiveJob::fullPath() const {
    try {
        return kind().StubKind::pathOf(file());
    } catch (const Failure&) { // gone already, or too long
        std::error_code error;
        const auto path = std::filesystem::absolute(file().name(), error);
        return error ? file().name() : path.native();
    }
}

void ArchiveJob::put(Store& store, const OnBytes& onBytes) {
    hold();
    ObjectRecord facts = ObjectRecord::describe(data(), file().name());
    if (!facts.owner.matches(facts.owner))
        throw Failure(
            QZHSM_FAILURE,
            file().name() +
                " could not be told from a copy later: its file system has no lasting file handles");
    facts.path = fullPath();
    const auto known = object() ? findArchived(store, *object(), data(), facts) : std::nullopt;
    const ObjectRecord record = known ? *known : store.put(data(), facts, onBytes);
    try {
        prepare(StubMetadata(store, record).toText());
        setObject(record.object);
        m_putInto = known ? nullptr : &store;
        m_checksums = record.checksums;
    } catch (...) {
        if (!known)
            store.remove(record.object);
        throw;
    }
}

void ArchiveJob::readBack(Store& store, const OnBytes& onBytes) const {
    if (!m_putInto) // what was there already was compared then
        return;
    const auto record = store.look(*object());
    if (!record || record->checksums != m_checksums)
        throw Failure(QZHSM_FAILURE, "Store " + store.name() + " does not give the record of " +
                                         file().name() + " back that it was given");
    verifyObject(store, *record, onBytes);
}

void ArchiveJob::giveUp() {
    StubJob::giveUp();
    if (!m_putInto || isMade())
        return;
    try {
        if (notedObject(file()) != object())
            m_putInto->remove(*object());
    } catch (const Failure&) { // the one before is told
    }
}
