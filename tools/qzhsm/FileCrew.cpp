#include "tools/qzhsm/FileCrew.h"

#include <sys/resource.h>

void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

FileCrew::FileCrew(const CommandLine& line, Observer& observer, int count, const Make& make)
    : m_workers(count,
                [&] {
                    allowManyDescriptors();
                    m_backEnds.push_back(line.openBackEnd());
                    return make(m_backEnds.back()->kind());
                }),
      m_walk(observer, [this](OpenFile file) { m_workers.give(std::move(file)); }) {}
