#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <spawn.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

// "qzhsm scan" of a tree beside a bare walk of it, a process each, while the tree grows. Four of ten files
// are stubs. The two sides take turns; caches are warm on both. A small tree tells what starting the tool
// costs.

namespace {

namespace fs = std::filesystem;

constexpr int kManyFiles = 100000;

int mostFiles() {
    const char* value = std::getenv("QZHSM_BENCH_FILES");
    return value ? std::atoi(value) : kManyFiles;
}

/// A tree of so many files, or of more: it only grows.
const std::string& tree(int files) {
    static const std::string tree = scratchPath("scan");
    static int number = 0;
    if (number >= files)
        return tree;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    const std::string meta =
        "store=main;object=6ba7b810-9dad-11d1-80b4-00c04fd430c8;checksum=0123456789abcdef";
    const std::string data(4096, 'd');
    for (; number < files; ++number) {
        const std::string directory = tree + "/" + std::to_string(number / 500);
        if (number % 500 == 0)
            fs::create_directories(directory);
        const std::string file = directory + "/file" + std::to_string(number);
        std::ofstream(file, std::ios::binary) << data;
        if (number % 5 >= 2)
            continue;
        fs::resize_file(file, 1 << 20);
        constexpr time_t kAnyTime = std::numeric_limits<time_t>::max();
        if (backEnd->stubFile(file.c_str(), meta.c_str(), kAnyTime, 1 << 20) < 0)
            throw std::runtime_error(backEnd->m_errorText);
    }
    ::sync(); // no side is to wait for it later
    return tree;
}

/// One stat and one attribute read a file.
void bareWalk(int parent, const char* name, const std::string& path) {
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* entries = ::fdopendir(fd);
    if (!entries)
        ::_exit(1);
    while (const dirent* entry = ::readdir(entries)) {
        const std::string_view found = entry->d_name;
        if (found == "." || found == "..")
            continue;
        const std::string below = path + "/" + entry->d_name;
        if (entry->d_type == DT_DIR) {
            bareWalk(fd, entry->d_name, below);
            continue;
        }
        struct stat st {};
        char mark = '\0';
        if (::lstat(below.c_str(), &st) < 0 ||
            (::lgetxattr(below.c_str(), "user.NkStubFile", &mark, 1) < 0 && errno != ENODATA))
            ::_exit(1);
    }
    ::closedir(entries);
}

struct Cost {
    double wall; ///< seconds
    double cpu;
    long kilobytes; ///< at its peak
};

template <class Start>
Cost costOf(Start start) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = start();
    int status = -1;
    rusage used{};
    if (child < 0 || ::wait4(child, &status, 0, &used) != child || status != 0)
        throw std::runtime_error("a walk failed");
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return {wall.count(), seconds(used.ru_utime) + seconds(used.ru_stime), used.ru_maxrss};
}

pid_t startBareWalk(const std::string& tree) {
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    bareWalk(AT_FDCWD, tree.c_str(), tree);
    ::_exit(0);
}

pid_t startScan(const char* tool, const std::string& jobs, const std::string& tree) {
    std::vector<std::string> words{tool, "scan", "-q", "-j", jobs, tree};
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t child = -1;
    return ::posix_spawn(&child, tool, nullptr, nullptr, argv.data(), environ) == 0 ? child : -1;
}

void scan(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    const char* tool = std::getenv("QZHSM_TOOL");
    if (!tool)
        return state.SkipWithError("QZHSM_TOOL does not name the tool");
    const auto files = static_cast<int>(state.range(0));
    const auto jobs = state.range(1);
    std::vector<double> wall;
    std::vector<double> cpu;
    std::vector<double> ours;
    std::vector<double> bare;
    std::vector<double> oursCpu;
    std::vector<double> bareCpu;
    try {
        const std::string& path = tree(files);
        const auto walkTree = [&] { return startBareWalk(path); };
        const auto scanTree = [&] { return startScan(tool, std::to_string(jobs), path); };
        costOf(walkTree);
        for (bool walkFirst = true; state.KeepRunning(); walkFirst = !walkFirst) {
            const Cost before = walkFirst ? costOf(walkTree) : Cost{};
            const Cost scanned = costOf(scanTree);
            const Cost walk = walkFirst ? before : costOf(walkTree);
            state.SetIterationTime(scanned.wall);
            wall.push_back(scanned.wall / walk.wall);
            cpu.push_back(scanned.cpu / walk.cpu);
            ours.push_back(scanned.wall * 1e9);
            bare.push_back(walk.wall * 1e9);
            oursCpu.push_back(scanned.cpu / files * 1e9);
            bareCpu.push_back(walk.cpu / files * 1e9);
            state.counters["peak_KiB"] = static_cast<double>(scanned.kilobytes);
        }
    } catch (const std::exception& error) {
        return giveUp(state, error.what());
    }
    reportSpread(state, "ours_ns", ours);
    reportSpread(state, "bare_ns", bare);
    reportSpread(state, "ours_cpu_ns", oursCpu);
    reportSpread(state, "bare_cpu_ns", bareCpu);
    const double cpuRatio = reportSpread(state, "cpu_ratio", cpu);
    const double wallRatio = reportSpread(state, "ratio", wall);
    if (files < kManyFiles)
        return;
    const std::string count = std::to_string(files);
    constexpr double kMostCpu = 1.4;
    if (jobs == 1 && cpuRatio > kMostCpu)
        breakPromise("scan of " + count + " files: " + std::to_string(cpuRatio) +
                     " times the CPU time of a bare walk");
    if (jobs == 2 && std::thread::hardware_concurrency() >= 2 && wallRatio >= 1)
        breakPromise("scan -j 2 of " + count + " files: " + std::to_string(wallRatio) +
                     " times the time of a bare walk");
}

[[maybe_unused]] const auto registered = [] {
    long files = 1;
    for (; files <= mostFiles(); files *= 10)
        for (const int jobs : {1, 2})
            benchmark::RegisterBenchmark("scan", scan)
                ->ArgNames({"files", "jobs"})
                ->Args({files, jobs})
                ->Iterations(files > kManyFiles ? 5 : 11)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
    return files;
}();

} // namespace
