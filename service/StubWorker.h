#pragma once

#include "service/ArchiveWorker.h"

#include <functional>
#include <string>

/// What files are turned into stubs with.
struct StubRules {
    std::string meta;
    std::optional<std::time_t> refTime;
    /// The archived copy of a file, which is compared with it; null if somebody's word is taken for it.
    std::function<OpenFile(const OpenFile& file)> copyOf;
    /// Several files were given: what is a stub already, or would free no room, is left alone, and no
    /// failure.
    bool isList = false;
    bool force = false; ///< also what frees no room
};

/// Turns files whose data has been archived into stubs, several together.
class StubWorker final : public FileWorker {
public:
    StubWorker(StubKind& kind, const StubRules& rules, SeenFiles& seen, Observer& observer)
        : m_kind(kind), m_rules(rules), m_seen(seen), m_observer(observer), m_batch(Tell{observer}) {}

    void take(OpenFile file) override;
    void finish() override;

private:
    std::string reasonToSkip(const FileLook& look);
    void begin(std::unique_ptr<StubJob>& job);

    struct Tell {
        Observer& observer;
        void operator()(StubJob& job, const Failure& failure) const {
            job.giveUp();
            observer.failed(job.file().name(), failure);
        }
    };

    StubKind& m_kind;
    const StubRules& m_rules;
    SeenFiles& m_seen;
    Observer& m_observer;
    JobBatch<StubJob, Tell> m_batch;
    std::vector<UniqueFd> m_copies; ///< to be on the disk before any data is given up
};
