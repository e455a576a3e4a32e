#pragma once

#include "service/ArchiveJob.h"
#include "service/StubbingWorker.h"

#include <ctime>
#include <functional>
#include <optional>

/// Which files are archived, and how far.
struct ArchiveRules {
    std::optional<std::time_t> modifiedBefore; ///< only files that have not been modified since
    long long largerThan = 0;                  ///< only files of more bytes
    bool keepData = false;                     ///< to the store only: no file becomes a stub
    bool readBack = false;                     ///< what is put is read back and compared before data goes
    bool dryRun = false;                       ///< nothing is done, only told
    std::function<bool()> isToStop{};          ///< asked while data is put, and read back

    /// Why an ordinary file is left alone; empty for one to be archived.
    std::string reasonToSkip(const struct stat& st) const;
};

/// Puts files into a store and turns them into stubs.
class ArchiveWorker final : public StubbingWorker<ArchiveJob> {
public:
    ArchiveWorker(StubKind& kind, Store& store, const ArchiveRules& rules, SeenFiles& seen,
                  Observer& observer)
        : StubbingWorker(kind, seen, observer), m_store(store), m_rules(rules) {}

    void finish() override;

private:
    void begin(std::unique_ptr<ArchiveJob>& job) override;
    /// Throws if the work is to stop.
    void requireGoOn(const std::string& name) const;
    /// Why this file is left alone; empty for one to be archived. Throws for one that needs mending first.
    std::string reasonToSkip(const OpenFile& file, const FileLook& look);

    Store& m_store;
    const ArchiveRules& m_rules;
};
