#pragma once

#include "service/Walk.h"
#include "service/Workers.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/ShownWork.h"

#include <memory>
#include <vector>

/// Workers with a back-end each, to which paths are handed: files, and directories with all that is below.
class FileCrew {
public:
    using Make = std::function<std::unique_ptr<FileWorker>(StubKind&)>;

    FileCrew(const CommandLine& line, Observer& observer, int count, const Make& make);

    void give(OpenFile file) { m_workers.give(std::move(file)); }
    Walk& walk() { return m_walk; }
    void finish() { m_workers.finish(); }

private:
    std::vector<std::unique_ptr<OwnBackEnd>> m_backEnds;
    Workers m_workers;
    Walk m_walk;
};
