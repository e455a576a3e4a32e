#include "service/RecallWorker.h"

#include <cerrno>
#include <new>
#include <utility>

RecallWorker::RecallWorker(StubKind& kind, bool force, SeenFiles& seen, FindSource findSource,
                           Observer& observer)
    : m_kind(kind), m_force(force), m_seen(seen), m_findSource(std::move(findSource)), m_observer(observer) {}

void RecallWorker::take(OpenFile file) {
    const std::string name = file.name();
    const bool isNamed = file.isNamed();
    auto job = std::make_unique<RecallJob>(m_kind, std::move(file), m_force, m_observer);
    try {
        std::optional<SeenFiles::Claim> claim = m_seen.claim(job->file().stat());
        if (!claim)
            return m_observer.skipped(name, SeenFiles::kReason);
        job->file().as([&] { begin(job); });
        if (!job) // moved into the batch
            m_claims.push_back(std::move(*claim));
    } catch (const Failure& failure) {
        // Below a directory there are ordinary files too.
        if (!isNamed && failure.code() == QZHSM_NOT_A_STUB && job->look().state == FileState::Plain)
            m_observer.skipped(name, kNoStub);
        else
            m_observer.failed(name, failure);
    } catch (const std::bad_alloc&) {
        m_observer.failed(name, systemFailure("Failed to recall ", name, ENOMEM));
    }
    if (m_batch.isFull())
        finish();
    if (m_batch.isEmpty())
        m_claims.clear();
}

void RecallWorker::begin(std::unique_ptr<RecallJob>& job) {
    const std::string& name = job->file().name();
    if (!m_seen.isNew(job->file().stat()))
        return m_observer.skipped(name, SeenFiles::kReason);
    if (job->hold() == RecallJob::Held::WasRecalled) {
        flushOne(job->flushable(), name);
        return m_observer.done(name, "recalled before");
    }
    const long long bytes = job->look().recordedSize;
    m_observer.started(name, bytes);
    job->begin(m_findSource(job->file(), job->look()));
    m_batch.add(std::move(job), bytes);
}

void RecallWorker::finish() {
    m_batch.flush();
    for (void (RecallJob::*step)() : {&RecallJob::writeRest, &RecallJob::writePage, &RecallJob::end}) {
        m_batch.step([step](RecallJob& job) { (job.*step)(); });
        m_batch.flush();
    }
    m_batch.finish([this](const RecallJob& job) { m_observer.done(job.file().name(), "recalled"); });
}
