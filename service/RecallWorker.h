#pragma once

#include "service/JobBatch.h"
#include "service/RecallJob.h"
#include "service/SeenFiles.h"
#include "service/Workers.h"

#include <functional>
#include <memory>
#include <vector>

/// Recalls stubs, several together: each step is taken for all of them, and flushed once.
class RecallWorker final : public FileWorker {
public:
    /// Where a stub's data lies. Throws if that cannot be told, or there is none for this stub.
    using FindSource = std::function<std::unique_ptr<DataSource>(const OpenFile&, const FileLook&)>;

    /// Why an ordinary file below a directory is left alone.
    static constexpr const char* kNoStub = "it is no stub";

    RecallWorker(StubKind& kind, bool force, SeenFiles& seen, FindSource findSource, Observer& observer);

    void take(OpenFile file) override;
    void finish() override;

private:
    void begin(std::unique_ptr<RecallJob>& job);

    struct PutBack {
        void operator()(RecallJob& job, const Failure& failure) const { job.putBack(failure); }
    };

    StubKind& m_kind;
    bool m_force;
    SeenFiles& m_seen;
    FindSource m_findSource;
    Observer& m_observer;
    JobBatch<RecallJob, PutBack> m_batch{PutBack{}};
    std::vector<SeenFiles::Claim> m_claims; ///< of those in the batch
};
