#include "tools/qzhsm/FileCrew.h"

#include "service/FileIo.h"

FileCrew::FileCrew(const CommandLine& line, Observer& observer, int count, const Make& make)
    : m_workers(count,
                [&] {
                    allowManyDescriptors();
                    m_backEnds.push_back(line.openBackEnd());
                    return make(m_backEnds.back()->kind());
                }),
      m_walk(observer, [this](OpenFile file) { m_workers.give(std::move(file)); }) {}
