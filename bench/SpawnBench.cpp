#include "bench/Harness.h"
#include "platform/process/NkProcess.h"

#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kMiB = size_t{1} << 20;
constexpr size_t kSmall = 50 * kMiB;
constexpr size_t kLarge = 4096 * kMiB;
constexpr double kMayGrow = 1.2;

using Start = bool (*)();

bool startBySystem() {
    std::string out;
    std::string err;
    return NkProcess::system("true", &out, &err, 0, true) == 0;
}

/// The reference: what starting a child costs if the parent's page tables are copied for it.
bool startByFork() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sh", "/bin/sh", "-c", "true", nullptr);
        ::_exit(127);
    }
    int status = -1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

/// A process that holds so much touched memory, and times the start of children of its own when asked.
class Parent {
public:
    Parent(size_t memory, Start start) {
        if (::pipe(m_asked) < 0 || ::pipe(m_told) < 0)
            return;
        m_pid = ::fork();
        if (m_pid == 0)
            serve(memory, start);
    }
    Parent(const Parent&) = delete;
    Parent& operator=(const Parent&) = delete;
    ~Parent() {
        for (const int fd : {m_asked[0], m_asked[1], m_told[0], m_told[1]})
            ::close(fd);
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    /// Nanoseconds; negative for a failure.
    double time() {
        double spent = -1;
        if (::write(m_asked[1], "?", 1) != 1 || ::read(m_told[0], &spent, sizeof spent) != sizeof spent)
            return -1;
        return spent;
    }

private:
    [[noreturn]] void serve(size_t memory, Start start) const {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        void* held = ::mmap(nullptr, memory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (held == MAP_FAILED)
            ::_exit(1);
        ::madvise(held, memory, MADV_NOHUGEPAGE); // as memory in pieces is held
        std::memset(held, 1, memory);
        const auto call = [&](int) { return start(); };
        for (char question = 0; ::read(m_asked[0], &question, 1) == 1;) {
            const double spent = timeBatch(4, call);
            if (::write(m_told[1], &spent, sizeof spent) < 0)
                break;
        }
        ::_exit(0);
    }

    int m_asked[2] = {-1, -1};
    int m_told[2] = {-1, -1};
    pid_t m_pid = -1;
};

/// The large parent and the small one take turns, each first every other time.
void spawn(benchmark::State& state, Start start, double mayGrow) {
    struct sysinfo machine {};
    ::sysinfo(&machine);
    if ((machine.freeram + machine.bufferram) * machine.mem_unit < kLarge + 512 * kMiB)
        return state.SkipWithError("less than 4.5 GiB of memory are free");
    Parent small(kSmall, start);
    Parent large(kLarge, start);
    if (small.time() < 0 || large.time() < 0) // not counted: they wait until the memory is touched
        return giveUp(state, "spawn: a start failed");
    std::vector<double> smallTimes;
    std::vector<double> largeTimes;
    std::vector<double> ratios;
    for (bool smallFirst = false; state.KeepRunning(); smallFirst = !smallFirst) {
        const double before = smallFirst ? small.time() : 0;
        const double spent = large.time();
        const double other = smallFirst ? before : small.time();
        if (spent < 0 || other < 0)
            return giveUp(state, "spawn: a start failed");
        largeTimes.push_back(spent);
        smallTimes.push_back(other);
        ratios.push_back(spent / other);
        state.SetIterationTime(spent * 1e-9);
    }
    reportSpread(state, "4GiB_ns", largeTimes);
    reportSpread(state, "50MB_ns", smallTimes);
    const double grown = reportSpread(state, "ratio", ratios);
    if (mayGrow > 0 && grown > mayGrow)
        giveUp(state, "spawn: grows with the parent's memory by " + std::to_string(grown));
}

BENCHMARK_CAPTURE(spawn, system, startBySystem, kMayGrow)->UseManualTime()->Iterations(200);
BENCHMARK_CAPTURE(spawn, fork, startByFork, 0)->UseManualTime()->Iterations(20);

} // namespace
