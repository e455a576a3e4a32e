#pragma once

#include "service/StubbingWorker.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

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

/// Turns files whose data has been archived into stubs.
class StubWorker final : public StubbingWorker<StubJob> {
public:
    StubWorker(StubKind& kind, const StubRules& rules, SeenFiles& seen, Observer& observer)
        : StubbingWorker(kind, seen, observer), m_rules(rules) {}

    void finish() override;

private:
    void begin(std::unique_ptr<StubJob>& job) override;
    bool isFull() const override;
    std::string reasonToSkip(const FileLook& look);

    const StubRules& m_rules;
    std::vector<UniqueFd> m_copies; ///< to be on the disk before any data is given up
};
