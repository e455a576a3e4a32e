#pragma once

#include "service/RecallJob.h"
#include "service/Workers.h"

#include <functional>
#include <memory>
#include <vector>

/// Recalls stubs, several together: each step is taken for all of them, and flushed once.
class RecallWorker final : public FileWorker {
public:
    /// Where a stub's data lies. Throws if that cannot be told, or there is none for this stub.
    using FindSource = std::function<std::unique_ptr<DataSource>(const OpenFile&, const FileLook&)>;

    RecallWorker(StubKind& kind, bool force, FindSource findSource, Observer& observer);

    void take(OpenFile file) override;
    void finish() override;

private:
    /// Takes a step with every job that has come so far, and flushes what it did.
    void step(const std::function<void(RecallJob&)>& act);
    void flush();

    StubKind& m_kind;
    bool m_force;
    FindSource m_findSource;
    Observer& m_observer;
    std::vector<std::unique_ptr<RecallJob>> m_jobs;
    long long m_bytes = 0;
};
