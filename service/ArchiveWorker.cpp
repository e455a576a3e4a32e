#include "service/ArchiveWorker.h"

#include "service/FileIo.h"
#include "service/Flush.h"

#include <cerrno>
#include <new>

namespace {

// What is on its way together: enough files to share a flush, few enough to keep their descriptors open.
constexpr size_t kMostJobs = 256;
constexpr long long kMostBytes = 256LL << 20;

/// What a stub's text takes: a block of the file system, 4096 bytes on most.
constexpr long long kBlock = 4096;

} // namespace

ArchiveWorker::ArchiveWorker(StubKind& kind, Store& store, const ArchiveRules& rules, SeenFiles& seen,
                             Observer& observer)
    : m_kind(kind), m_store(store), m_rules(rules), m_seen(seen), m_observer(observer) {}

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
        job->file().as([&] { begin(*job); });
        if (!job->record().path.empty())
            m_jobs.push_back(std::move(job));
    } catch (const Failure& failure) {
        m_observer.failed(name, failure);
    } catch (const std::bad_alloc&) {
        m_observer.failed(name, systemFailure("Failed to archive ", name, ENOMEM));
    }
    if (m_jobs.size() >= kMostJobs || m_bytes >= kMostBytes)
        finish();
}

/// Puts the file into the store, unless there is a reason to leave it alone.
void ArchiveWorker::begin(ArchiveJob& job) {
    const std::string& name = job.file().name();
    const std::string reason = reasonToSkip(job.file(), job.look());
    if (!reason.empty())
        return m_observer.skipped(name, reason);
    if (m_rules.dryRun)
        return m_observer.done(name, "would be archived");
    m_observer.started(name, job.look().st.st_size);
    std::uint64_t told = 0;
    job.put(m_store, [&](std::uint64_t done) {
        m_observer.bytes(static_cast<long long>(done - told));
        told = done;
    });
    m_bytes += job.look().st.st_size;
}

void ArchiveWorker::finish() {
    if (m_jobs.empty())
        return;
    try {
        m_store.flush();
    } catch (const Failure& failure) {
        return failAll(failure);
    }
    if (!m_rules.keepData) {
        step([](ArchiveJob& job) { job.keep(); });
        step([](ArchiveJob& job) { job.stub(); });
        step([](ArchiveJob& job) { job.end(); });
    }
    for (const auto& job : m_jobs)
        m_observer.done(job->file().name(), "archived");
    m_jobs.clear();
    m_bytes = 0;
}

void ArchiveWorker::step(const std::function<void(ArchiveJob&)>& act) {
    std::erase_if(m_jobs, [&](const std::unique_ptr<ArchiveJob>& job) {
        const std::string& name = job->file().name();
        try {
            job->file().as([&] { act(*job); });
            return false;
        } catch (const Failure& failure) {
            m_observer.failed(name, failure);
        } catch (const std::bad_alloc&) {
            m_observer.failed(name, systemFailure("Failed to archive ", name, ENOMEM));
        }
        return true;
    });
    flush();
}

void ArchiveWorker::flush() {
    std::vector<Flushable> files;
    for (const auto& job : m_jobs)
        files.push_back({job->flushable(), job->device()});
    try {
        flushAll(files);
    } catch (const Failure& failure) {
        failAll(failure);
    }
}

void ArchiveWorker::failAll(const Failure& failure) {
    for (const auto& job : m_jobs)
        m_observer.failed(job->file().name(), failure);
    m_jobs.clear();
    m_bytes = 0;
}
