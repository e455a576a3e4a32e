#pragma once

#include "bench/SyscallCount.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// Allocations by operator new so far, in all of the process, the library included.
long long allocations();

/// A path in the directory of this run, which is made by the first call and removed when the program ends.
/// It lies under $QZHSM_BENCH_DIR, $TMPDIR or /tmp.
std::string scratchPath(const std::string& name);

/// False, with the benchmark skipped, if the directory's file system has no user attributes.
bool requireAttributes(benchmark::State& state);

/// Ends a benchmark whose calls fail; the program then fails too.
void giveUp(benchmark::State& state, const std::string& why);

/// One call of the library beside the bare system calls that it stands for.
struct Case {
    std::string name;
    int batch;                       ///< calls that are timed together
    std::optional<int> syscalls{};   ///< promised for either side; none: not counted
    std::optional<int> allocs{};     ///< promised; none: counted and shown only
    std::optional<int> overheadNs{}; ///< promised at most: the library's time beyond the bare calls'
};

/// A promise that is not kept: the program fails.
void breakPromise(const std::string& what);

/// Sets the counter `what`. If the count is not the promised one, the program fails.
void report(benchmark::State& state, const std::string& name, const std::string& what, long long count,
            std::optional<int> promised);

/// Sets the counter `what` to the median, and "`what`_q1" and "`what`_q3" to the quartiles. The median.
double reportSpread(benchmark::State& state, const std::string& what, std::vector<double>& values);

/// Nanoseconds of one call when `call` runs with 0 to `batch` - 1; negative if one failed.
template <class Call>
double timeBatch(int batch, Call& call) {
    bool done = true;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < batch; ++i)
        done &= call(i);
    const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
    return done ? spent.count() / batch : -1;
}

/// Times the two sides in batches that take turns, each time the other one first, so that noise hits both;
/// the counters hold the medians and quartiles of all batches and of the ratios of all pairs, the benchmark's
/// own time is the library's mean. Then counts what one call takes. `ours` and `bare` take the number of the
/// call in its batch and answer whether it succeeded; `prepare` runs before each pair of batches, outside the
/// timing.
template <class Prepare, class Ours, class Bare>
void measure(benchmark::State& state, const Case& c, Prepare prepare, Ours ours, Bare bare) {
    std::vector<double> oursTimes;
    std::vector<double> bareTimes;
    std::vector<double> ratios;
    for (bool bareFirst = false; state.KeepRunningBatch(c.batch); bareFirst = !bareFirst) {
        prepare();
        const double before = bareFirst ? timeBatch(c.batch, bare) : 0;
        const double time = timeBatch(c.batch, ours);
        const double after = bareFirst ? 0 : timeBatch(c.batch, bare);
        if (time < 0 || before < 0 || after < 0)
            return giveUp(state, c.name + ": a call failed");
        oursTimes.push_back(time);
        bareTimes.push_back(before + after);
        ratios.push_back(time / (before + after));
        state.SetIterationTime(time * c.batch * 1e-9);
    }
    reportSpread(state, "ratio", ratios);
    const double overhead =
        reportSpread(state, "ours_ns", oursTimes) - reportSpread(state, "bare_ns", bareTimes);
    constexpr size_t kEnough = 100; // pairs, which the short runs for warming up do not reach
    if (c.overheadNs)
        state.counters["overhead_ns"] = overhead;
    if (c.overheadNs && ratios.size() >= kEnough && overhead > *c.overheadNs)
        breakPromise(c.name + ": overhead of " + std::to_string(overhead) + " ns");

    if (c.syscalls) {
        prepare();
        report(state, c.name, "syscalls", countSyscalls([&] { return ours(0); }), c.syscalls);
        report(state, c.name, "bare_syscalls", countSyscalls([&] { return bare(0); }), c.syscalls);
    }
    prepare();
    const long long before = allocations();
    if (!ours(0))
        return giveUp(state, c.name + ": a call failed");
    report(state, c.name, "allocs", allocations() - before, c.allocs);
}
