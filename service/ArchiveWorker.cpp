#include "service/ArchiveWorker.h"

#include "service/FileIo.h"

#include <cerrno>
#include <new>

namespace {

/// What a stub's text takes: a block of the file system, 4096 bytes on most.
constexpr long long kBlock = 4096;

} // namespace

ArchiveWorker::ArchiveWorker(StubKind& kind, Store& store, const ArchiveRules& rules, SeenFiles& seen,
                             Observer& observer)
    : m_kind(kind), m_store(store), m_rules(rules), m_seen(seen), m_observer(observer),
      m_batch(Tell{observer}) {}

std::string ArchiveWorker::reasonToSkip(const OpenFile& file, const FileLook& look) {
    switch (look.state) {
    case FileState::Stub:
    case FileState::ChangedStub:
        return "it is a stub already";
    case FileState::Plain:
    case FileState::Leftover:
        break;
    default:
        throw Failure(QZHSM_FAILURE, file.name() + " is " + nameOf(look.state),
                      "\"qzhsm repair\" leads out of this state.");
    }
    if (m_rules.modifiedBefore && look.st.st_mtime >= *m_rules.modifiedBefore)
        return "it was modified too lately";
    if (look.st.st_size <= m_rules.largerThan)
        return "it is too small";
    if (!m_rules.keepData && allocatedBytes(look.st) <= kBlock)
        return "it would free no room";
    if (look.st.st_nlink > 1 && !m_seen.isNew(look.st))
        return "it was archived under another name";
    return {};
}

void ArchiveWorker::take(OpenFile file) {
    const std::string name = file.name();
    try {
        auto job = std::make_unique<ArchiveJob>(m_kind, std::move(file));
        job->file().as([&] { begin(job); });
    } catch (const Failure& failure) {
        m_observer.failed(name, failure);
    } catch (const std::bad_alloc&) {
        m_observer.failed(name, systemFailure("Failed to archive ", name, ENOMEM));
    }
    if (m_batch.isFull())
        finish();
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
    std::uint64_t told = 0;
    job->put(m_store, [&](std::uint64_t done) {
        m_observer.bytes(static_cast<long long>(done - told));
        told = done;
    });
    const long long bytes = job->look().st.st_size;
    m_batch.add(std::move(job), bytes);
}

void ArchiveWorker::finish() {
    if (m_batch.isEmpty())
        return;
    try {
        m_store.flush();
    } catch (const Failure& failure) {
        return m_batch.giveUpAll(failure);
    }
    if (m_rules.keepData) {
        m_batch.step([](ArchiveJob& job) { job.note(); });
        m_batch.flush();
    } else {
        for (void (ArchiveJob::*step)() : {&ArchiveJob::keep, &ArchiveJob::stub}) {
            m_batch.step([step](ArchiveJob& job) { (job.*step)(); });
            m_batch.flush();
        }
        m_batch.step([](ArchiveJob& job) { job.end(); });
    }
    m_batch.finish([this](const ArchiveJob& job) { m_observer.done(job.file().name(), "archived"); });
}
