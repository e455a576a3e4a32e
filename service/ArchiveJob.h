#pragma once

#include "service/StubJob.h"
#include "service/stores/Store.h"

/// The archiving of one file: its data goes to a store, and it becomes a stub that names the object.
class ArchiveJob final : public StubJob {
public:
    using StubJob::StubJob;

    /// Takes hold of the file, puts its data into the store, unless it is there already, and prepares the
    /// stub. Throws code 3 if somebody else has the file open, or changed it while it was read; nothing is
    /// left in the store then.
    void put(Store& store, const OnBytes& onBytes);
    /// After the store's flush: reads back what `put` has put there, and throws if that is not what was sent.
    void readBack(Store& store, const OnBytes& onBytes) const;
    /// The end for a file that keeps its data: it carries the object's name from now on.
    using StubJob::note;
    /// An object that nothing names then leaves the store.
    void giveUp();

private:
    std::string fullPath() const;
    Store* m_putInto = nullptr; ///< holds an object of this job, if not null
    Checksums m_checksums;      ///< of what was put
};
