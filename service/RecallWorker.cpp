#include "service/RecallWorker.h"

#include "service/Flush.h"

#include <cerrno>
#include <new>
#include <utility>

namespace {

// What is on its way together: enough files to share a flush, few enough to keep their descriptors open.
constexpr size_t kMostJobs = 256;
constexpr long long kMostBytes = 256LL << 20;

} // namespace

RecallWorker::RecallWorker(StubKind& kind, bool force, FindSource findSource, Observer& observer)
    : m_kind(kind), m_force(force), m_findSource(std::move(findSource)), m_observer(observer) {}

void RecallWorker::take(OpenFile file) {
    const std::string name = file.name();
    auto job = std::make_unique<RecallJob>(m_kind, std::move(file), m_force, m_observer);
    try {
        job->file().as([&] {
            if (job->isDone())
                return m_observer.done(name, "recalled before");
            m_observer.started(name, job->look().recordedSize);
            job->begin(m_findSource(job->file(), job->look()));
            m_bytes += job->look().recordedSize;
            m_jobs.push_back(std::move(job));
        });
    } catch (const Failure& failure) {
        m_observer.failed(name, failure);
    }
    if (m_jobs.size() >= kMostJobs || m_bytes >= kMostBytes)
        finish();
}

void RecallWorker::finish() {
    flush();
    step([](RecallJob& job) { job.writeRest(); });
    step([](RecallJob& job) { job.writePage(); });
    step([](RecallJob& job) { job.end(); });
    for (const auto& job : m_jobs)
        m_observer.done(job->file().name(), "recalled");
    m_jobs.clear();
    m_bytes = 0;
}

void RecallWorker::step(const std::function<void(RecallJob&)>& act) {
    std::erase_if(m_jobs, [&](const std::unique_ptr<RecallJob>& job) {
        try {
            job->file().as([&] { act(*job); });
            return false;
        } catch (const Failure& failure) {
            job->putBack(failure);
        } catch (const std::bad_alloc&) {
            job->putBack(systemFailure("Failed to recall ", job->file().name(), ENOMEM));
        }
        return true;
    });
    flush();
}

void RecallWorker::flush() {
    std::vector<Flushable> files;
    for (const auto& job : m_jobs)
        files.push_back({job->flushable(), job->look().st.st_dev});
    try {
        flushAll(files);
    } catch (const Failure& failure) {
        for (const auto& job : m_jobs)
            job->putBack(failure);
        m_jobs.clear();
    }
}
