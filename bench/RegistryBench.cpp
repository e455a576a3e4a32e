#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"
#include "platform/stub/StubAttributes.h"

#include <atomic>
#include <fcntl.h>
#include <latch>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>

namespace {

/// A name that the registry has answered before. The second name is longer than a std::string holds without
/// an allocation.
void cachedLookup(benchmark::State& state, const char* fsName) {
    QZHSMLowLevelCtx registry(2);
    const std::string name = std::string("cachedLookup/") + fsName;
    const long long before = allocations();
    if (!registry.getByFSName(fsName) || allocations() == before)
        return giveUp(state, name + ": no object was made, or its allocation was not counted");

    const auto lookup = [&] { return registry.getByFSName(fsName) != nullptr; };
    while (state.KeepRunning())
        benchmark::DoNotOptimize(lookup());

    const long long made = allocations();
    benchmark::DoNotOptimize(lookup());
    report(state, name, "allocs", allocations() - made, 0);
    report(state, name, "syscalls", countSyscalls(lookup), 0);
}

/// Has each of `threads` threads make `calls` calls, which take the number of their thread. None begins
/// before all are there.
template <class Call>
bool onThreads(int threads, int calls, Call call) {
    std::atomic<bool> done = true;
    std::latch ready(threads);
    {
        std::vector<std::jthread> running;
        running.reserve(static_cast<size_t>(threads));
        for (int thread = 0; thread < threads; ++thread)
            running.emplace_back([&, thread] {
                ready.arrive_and_wait();
                for (int i = 0; i < calls; ++i)
                    if (!call(thread))
                        done = false;
            });
    }
    return done;
}

/// The two sides on as many threads as the benchmark was asked for; their times are those of `calls` calls.
template <class Ours, class Bare>
void measureThreads(benchmark::State& state, const char* name, int callsEach, Ours ours, Bare bare) {
    const auto threads = static_cast<int>(state.range(0));
    measure(
        state, {.name = name, .batch = 1}, [] {}, [&](int) { return onThreads(threads, callsEach, ours); },
        [&](int) { return onThreads(threads, callsEach, bare); });
    state.counters["calls"] = threads * callsEach;
}

struct alignas(128) OwnRegistry { // no two in one cache line
    QZHSMLowLevelCtx registry{2};
};

std::vector<std::unique_ptr<OwnRegistry>> registryEach(const benchmark::State& state) {
    std::vector<std::unique_ptr<OwnRegistry>> registries(static_cast<size_t>(state.range(0)));
    for (auto& own : registries)
        own = std::make_unique<OwnRegistry>();
    return registries;
}

/// One registry for all threads beside one for each.
void lookupByThreads(benchmark::State& state) {
    QZHSMLowLevelCtx shared(2);
    const auto own = registryEach(state);
    measureThreads(
        state, "lookupByThreads", 500000, [&](int) { return shared.getByFSName("NK_ANYFS") != nullptr; },
        [&](int thread) {
            return own[static_cast<size_t>(thread)]->registry.getByFSName("NK_ANYFS") != nullptr;
        });
}

/// Each thread with a back-end object and a plain file of its own.
void isStubByThreads(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    const auto own = registryEach(state);
    std::vector<QZHSMLowLevel*> backEnds;
    std::vector<std::string> files;
    for (const auto& each : own) {
        backEnds.push_back(each->registry.getByFileName(""));
        files.push_back(scratchPath("isStubByThreads" + std::to_string(files.size())));
        ::close(::open(files.back().c_str(), O_WRONLY | O_CREAT, 0600));
    }
    measureThreads(
        state, "isStubByThreads", 2000,
        [&](int thread) {
            QZHSMLowLevel* backEnd = backEnds[static_cast<size_t>(thread)];
            return backEnd->isStub(files[static_cast<size_t>(thread)].c_str()) == 0 &&
                   backEnd->m_errorCode == 0;
        },
        [&](int thread) {
            const char* path = files[static_cast<size_t>(thread)].c_str();
            struct stat st {};
            char value = 0;
            return ::stat(path, &st) == 0 && ::getxattr(path, "user.NkProbe", nullptr, 0) < 0 &&
                   ::getxattr(path, kStubMark, &value, 1) < 0;
        });
}

BENCHMARK(lookupByThreads)->ArgName("threads")->RangeMultiplier(2)->Range(1, 16)->UseManualTime();
BENCHMARK(isStubByThreads)->ArgName("threads")->RangeMultiplier(2)->Range(1, 16)->UseManualTime();
BENCHMARK_CAPTURE(cachedLookup, NK_ANYFS, "NK_ANYFS");
BENCHMARK_CAPTURE(cachedLookup, NK_ARCHIVE_DELETE_FS, "NK_ARCHIVE_DELETE_FS");

} // namespace
