#include "bench/Harness.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <new>
#include <set>
#include <sys/xattr.h>
#include <system_error>

namespace {

std::atomic<long long> allocationCount{0};

void* counted(void* memory) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

class ScratchDirectory {
public:
    ScratchDirectory() {
        for (const char* variable : {"QZHSM_BENCH_DIR", "TMPDIR"})
            if (const char* value = std::getenv(variable); value && *value && m_path.empty())
                m_path = value;
        if (m_path.empty())
            m_path = "/tmp";
        m_path += "/qzhsm-bench.XXXXXX";
        if (!::mkdtemp(m_path.data()))
            throw std::system_error(errno, std::generic_category(), m_path);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

std::set<std::string>& brokenPromises() {
    static std::set<std::string> broken; // a set, as Google Benchmark runs each function several times
    return broken;
}

} // namespace

// What else operator new and delete come in ends in these.
void* operator new(size_t size) {
    return counted(std::malloc(size));
}
void* operator new(size_t size, std::align_val_t alignment) {
    const auto unit = static_cast<size_t>(alignment);
    return counted(std::aligned_alloc(unit, (size + unit - 1) / unit * unit));
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t, std::align_val_t) noexcept {
    std::free(memory);
}

long long allocations() {
    return allocationCount.load(std::memory_order_relaxed);
}

std::string scratchPath(const std::string& name) {
    static const ScratchDirectory directory;
    return directory.path() + "/" + name;
}

bool requireAttributes(benchmark::State& state) {
    if (::setxattr(scratchPath("").c_str(), "user.bench", "1", 1, 0) == 0)
        return true;
    state.SkipWithError("no user attributes in the scratch directory: set QZHSM_BENCH_DIR");
    return false;
}

void breakPromise(const std::string& what) {
    brokenPromises().insert(what);
}

void giveUp(benchmark::State& state, const std::string& why) {
    breakPromise(why);
    state.SkipWithError(why.c_str());
}

void report(benchmark::State& state, const std::string& name, const std::string& what, long long count,
            std::optional<int> promised) {
    state.counters[what] = static_cast<double>(count);
    if (promised && count != *promised)
        breakPromise(name + ": " + what + " " + std::to_string(count) + ", promised " +
                     std::to_string(*promised));
}

double reportSpread(benchmark::State& state, const std::string& what, std::vector<double>& values) {
    std::ranges::sort(values);
    state.counters[what + "_q1"] = values[values.size() / 4];
    state.counters[what + "_q3"] = values[values.size() * 3 / 4];
    return state.counters[what] = values[values.size() / 2];
}

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    try {
        scratchPath("");
    } catch (const std::system_error& e) {
        std::cerr << "No scratch directory: " << e.what() << '\n';
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    for (const std::string& broken : brokenPromises())
        std::cerr << "BROKEN: " << broken << '\n';
    return brokenPromises().empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
