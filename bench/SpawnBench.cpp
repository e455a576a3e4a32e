#include "bench/Harness.h"
#include "platform/process/NkProcess.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Memory of this process that is there, page by page, while it lives.
class TouchedMemory {
public:
    explicit TouchedMemory(size_t size) : m_size(size) {
        m_memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        constexpr size_t kPage = 4096;
        ::madvise(m_memory, size, MADV_NOHUGEPAGE); // a large page would be one entry to copy for a fork
        for (size_t at = 0; isThere() && at < size; at += kPage)
            static_cast<volatile char*>(m_memory)[at] = 1;
    }
    TouchedMemory(const TouchedMemory&) = delete;
    TouchedMemory& operator=(const TouchedMemory&) = delete;
    ~TouchedMemory() {
        if (isThere())
            ::munmap(m_memory, m_size);
    }
    bool isThere() const { return m_memory != MAP_FAILED; }

private:
    size_t m_size;
    void* m_memory;
};

bool spawned() {
    std::string out;
    std::string err;
    return NkProcess::system("true", &out, &err, 0, true) == 0;
}

bool forked() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sh", "sh", "-c", "true", nullptr);
        ::_exit(127);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

/// What running a command costs with 4 GiB of memory beside what it costs with 50 MB, in turns of the two
/// within one run: the figures are nanoseconds, the ratio is that of the medians.
template <class Run>
void growth(benchmark::State& state, const char* name, int runs, Run run, double promised) {
    constexpr size_t kSmall = 50'000'000;
    constexpr size_t kLarge = size_t{4} << 30;
    constexpr int kTurns = 5;
    const TouchedMemory small(kSmall);
    const auto call = [&](int) { return run(); };
    std::vector<double> withSmall;
    std::vector<double> withLarge;
    while (state.KeepRunning()) {
        for (int turn = 0; turn < kTurns; ++turn) {
            for (int i = 0; i < runs; ++i)
                withSmall.push_back(timeBatch(1, call));
            const TouchedMemory large(kLarge);
            if (!large.isThere())
                return giveUp(state, std::string(name) + ": no 4 GiB of memory");
            for (int i = 0; i < runs; ++i)
                withLarge.push_back(timeBatch(1, call));
        }
        state.SetIterationTime(median(withLarge) * 1e-9);
    }
    state.counters["ns_50MB"] = median(withSmall);
    state.counters["ns_4GiB"] = median(withLarge);
    const double ratio = median(withLarge) / median(withSmall);
    state.counters["ratio"] = ratio;
    if (ratio > promised)
        breakPromise(name + (": costs " + std::to_string(ratio)) + " times as much with 4 GiB");
}

void spawn(benchmark::State& state) {
    growth(state, "spawn", 40, spawned, 1.2);
}
void forkAndExec(benchmark::State& state) {
    growth(state, "forkAndExec", 5, forked, 1000);
}

BENCHMARK(spawn)->UseManualTime()->Iterations(1);
BENCHMARK(forkAndExec)->UseManualTime()->Iterations(1);

} // namespace
