#pragma once

#include "service/ArchiveJob.h"
#include "service/JobBatch.h"
#include "service/Observer.h"
#include "service/Workers.h"

#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

/// Which files are archived, and how far.
struct ArchiveRules {
    std::optional<std::time_t> modifiedBefore; ///< only files that have not been modified since
    long long largerThan = 0;                  ///< only files of more bytes
    bool keepData = false;                     ///< to the store only: no file becomes a stub
    bool dryRun = false;                       ///< nothing is done, only told
};

/// The files with several names that were seen, by all workers together.
class SeenFiles {
public:
    /// True for the first time.
    bool isNew(const struct stat& st) {
        const std::lock_guard lock(m_mutex);
        return m_seen.emplace(st.st_dev, st.st_ino).second;
    }

private:
    std::mutex m_mutex;
    std::set<std::pair<dev_t, ino_t>> m_seen;
};

/// Archives files, several together: each step is taken for all of them, and flushed once.
class ArchiveWorker final : public FileWorker {
public:
    ArchiveWorker(StubKind& kind, Store& store, const ArchiveRules& rules, SeenFiles& seen,
                  Observer& observer);

    void take(OpenFile file) override;
    void finish() override;

private:
    /// Why this file is left alone; empty for one to be archived. Throws for one that needs mending first.
    std::string reasonToSkip(const OpenFile& file, const FileLook& look);
    void begin(std::unique_ptr<ArchiveJob>& job);

    struct Tell {
        Observer& observer;
        void operator()(ArchiveJob& job, const Failure& failure) const {
            job.giveUp();
            observer.failed(job.file().name(), failure);
        }
    };

    StubKind& m_kind;
    Store& m_store;
    const ArchiveRules& m_rules;
    SeenFiles& m_seen;
    Observer& m_observer;
    JobBatch<ArchiveJob, Tell> m_batch;
};
