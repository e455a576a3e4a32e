#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"

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

BENCHMARK_CAPTURE(cachedLookup, NK_ANYFS, "NK_ANYFS");
BENCHMARK_CAPTURE(cachedLookup, NK_ARCHIVE_DELETE_FS, "NK_ARCHIVE_DELETE_FS");

} // namespace
