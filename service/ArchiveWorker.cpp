#include "service/ArchiveWorker.h"

#include "service/FileIo.h"

std::string ArchiveRules::reasonToSkip(const struct stat& st) const {
    if (modifiedBefore && st.st_mtime >= *modifiedBefore)
        return "it was modified too lately";
    if (st.st_size <= largerThan)
        return "it is too small";
    if (!keepData && !wouldFreeRoom(st))
        return "it would free no room";
    return {};
}

std::string ArchiveWorker::reasonToSkip(const OpenFile& file, const FileLook& look) {
    switch (look.state) {
    case FileState::Stub:
    case FileState::ChangedStub:
        return "it is a stub already";
    case FileState::Plain:
    case FileState::Leftover:
        break;
    default:
        m_kind.hold(file); // one that is just being recalled is no case for a repair
        throw Failure(QZHSM_FAILURE, file.name() + " is " + nameOf(look.state),
                      "\"qzhsm repair\" leads out of this state.");
    }
    std::string reason = m_rules.reasonToSkip(look.st);
    if (reason.empty() && !m_seen.isNew(look.st))
        reason = SeenFiles::kReason;
    return reason;
}

/// Puts the file into the store, unless there is a reason to leave it alone.
void ArchiveWorker::begin(std::unique_ptr<ArchiveJob>& job) {
    const std::string& name = job->file().name();
    const std::string reason = reasonToSkip(job->file(), job->look());
    if (!reason.empty())
        return m_observer.skipped(name, reason);
    if (m_rules.dryRun)
        return m_observer.done(name, "would be archived");
    m_observer.started(name, job->look().st.st_size);
    job->put(m_store, [this, &name, tell = tellBytes(m_observer)](std::uint64_t done) mutable {
        requireGoOn(name);
        tell(done);
    });
    const long long bytes = job->look().st.st_size;
    m_batch.add(std::move(job), bytes);
}

void ArchiveWorker::requireGoOn(const std::string& name) const {
    if (m_rules.isToStop && m_rules.isToStop())
        throw Failure(QZHSM_FAILURE, "Archiving of " + name + " interrupted");
}

void ArchiveWorker::finish() {
    if (m_batch.isEmpty())
        return;
    try {
        m_store.flush();
    } catch (const Failure& failure) {
        return m_batch.giveUpAll(failure);
    }
    if (m_rules.readBack)
        m_batch.step([this](const ArchiveJob& job) {
            job.readBack(m_store, [&](std::uint64_t) { requireGoOn(job.file().name()); });
        });
    if (m_rules.keepData) {
        m_batch.step([](ArchiveJob& job) { job.note(); });
        m_batch.flush();
    } else {
        makeStubs();
    }
    m_batch.finish([this](const ArchiveJob& job) { m_observer.done(job.file().name(), "archived"); });
}
