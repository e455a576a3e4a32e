#pragma once

#include "service/JobBatch.h"
#include "service/Observer.h"
#include "service/SeenFiles.h"
#include "service/StubJob.h"
#include "service/Workers.h"

#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Turns files into stubs, several together: each step is taken for all of them, and flushed once. `Job` is a
/// `StubJob`.
template <class Job>
class StubbingWorker : public FileWorker {
public:
    StubbingWorker(StubKind& kind, SeenFiles& seen, Observer& observer)
        : m_kind(kind), m_seen(seen), m_observer(observer), m_batch(GiveUp{observer}) {}

    void take(OpenFile file) final {
        const std::string name = file.name();
        try {
            std::optional<SeenFiles::Claim> claim = m_seen.claim(file.stat());
            if (!claim)
                return m_observer.skipped(name, SeenFiles::kReason);
            auto job = std::make_unique<Job>(m_kind, std::move(file));
            job->file().as([&] { begin(job); });
            if (!job) // moved into the batch
                m_claims.push_back(std::move(*claim));
        } catch (const Failure& failure) {
            m_observer.failed(name, failure);
        } catch (const std::bad_alloc&) {
            m_observer.failed(name, systemFailure("Failed to stub ", name, ENOMEM));
        }
        if (isFull())
            this->finish();
        if (m_batch.isEmpty())
            m_claims.clear();
    }

protected:
    /// Brings a job to where `keep` can follow, and hands it to the batch; or leaves it, and tells why.
    virtual void begin(std::unique_ptr<Job>& job) = 0;
    virtual bool isFull() const { return m_batch.isFull(); }

    void makeStubs() {
        for (void (Job::*step)() : {&Job::keep, &Job::stub}) {
            m_batch.step([step](Job& job) { (job.*step)(); });
            m_batch.flush();
        }
        m_batch.step([](Job& job) { job.end(); });
    }

    struct GiveUp {
        Observer& observer;
        void operator()(Job& job, const Failure& failure) const {
            job.giveUp();
            observer.failed(job.file().name(), failure);
        }
    };

    StubKind& m_kind;
    SeenFiles& m_seen;
    Observer& m_observer;
    JobBatch<Job, GiveUp> m_batch;
    std::vector<SeenFiles::Claim> m_claims; ///< of those in the batch
};
