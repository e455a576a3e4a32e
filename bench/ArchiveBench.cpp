#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

// Archiving and recalling a tree with two workers beside "cp -a" of the same tree, each with a flush at its
// end. The two sides take turns, what counts is the median. Caches are warm on both sides.

namespace {

namespace fs = std::filesystem;

struct Run {
    double seconds;
    long kilobytes; ///< at its peak
};

/// Files of 4 KiB to 1 MiB, half of them up to 64 KiB, and perhaps one that is nearly all hole. The bytes
/// that they hold.
double makeTree(const fs::path& tree, int files, int sparseGib) {
    std::mt19937 random(1);
    std::string noise(2 << 20, '\0');
    std::ranges::generate(noise, [&] { return static_cast<char>(random()); });
    double bytes = 0;
    const auto pick = [&](size_t least, size_t most) { return least + random() % (most - least + 1); };
    for (int number = 0; number < files; ++number) {
        const fs::path directory = tree / std::to_string(number / 500);
        fs::create_directories(directory);
        const size_t size = number % 2 == 0 ? pick(4097, 65536) : pick(65537, 1 << 20);
        std::ofstream(directory / std::to_string(number), std::ios::binary)
            .write(noise.data() + pick(0, noise.size() - size), static_cast<std::streamsize>(size));
        bytes += static_cast<double>(size);
    }
    if (sparseGib > 0) {
        std::ofstream sparse(tree / "sparse", std::ios::binary);
        for (std::streamoff part = 0; part < 64; ++part) {
            sparse.seekp((part * sparseGib << 30) / 64);
            sparse.write(noise.data(), 65536);
        }
        sparse.close();
        fs::resize_file(tree / "sparse", static_cast<std::uintmax_t>(sparseGib) << 30);
    }
    return bytes;
}

void flush(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::syncfs(fd) < 0)
        throw std::runtime_error("cannot flush " + path.string());
    ::close(fd);
}

Run run(const fs::path& work, const std::vector<std::string>& words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    int status = -1;
    rusage used{};
    if (::posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
        ::wait4(child, &status, 0, &used) != child || status != 0)
        throw std::runtime_error(words[0] + " " + words[1] + " failed");
    flush(work);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return {took.count(), used.ru_maxrss};
}

/// Gives the room back, but no inode: ext4 looks for minutes at each one that was freed before it makes a
/// file.
void empty(const fs::path& tree) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree))
        if (entry.is_regular_file())
            fs::resize_file(entry.path(), 0);
    flush(tree);
}

std::vector<double> times(const std::vector<Run>& runs) {
    std::vector<double> seconds;
    seconds.reserve(runs.size());
    for (const Run& one : runs)
        seconds.push_back(one.seconds);
    return seconds;
}

double middle(const std::vector<Run>& runs) {
    std::vector<double> seconds = times(runs);
    std::ranges::sort(seconds);
    return seconds[seconds.size() / 2];
}

/// A line of JSON in $QZHSM_BENCH_JSON, if that is set, with the nanoseconds of each round.
void record(const char* name, const std::vector<Run>& ours, const std::vector<Run>& bare, int files,
            double bytes) {
    const char* path = std::getenv("QZHSM_BENCH_JSON");
    if (!path)
        return;
    std::ofstream out(path, std::ios::app);
    const auto list = [&](const std::vector<Run>& runs) {
        const char* separator = "[";
        for (const double seconds : times(runs))
            out << std::exchange(separator, ", ") << std::llround(seconds * 1e9);
        out << "]";
    };
    out << R"({"name": ")" << name << R"(", "files": )" << files << R"(, "bytes": )" << std::llround(bytes)
        << R"(, "ours_ns": )";
    list(ours);
    out << R"(, "bare_ns": )";
    list(bare);
    out << "}\n";
}

void measure(const fs::path& work, const std::string& tool, int files, int rounds, int sparseGib) {
    const fs::path tree = work / "tree";
    const double bytes = makeTree(tree, files, sparseGib);
    flush(work);
    std::map<std::string, std::vector<Run>> runs;
    for (int round = 0; round < rounds; ++round) {
        const fs::path copy = work / ("copy" + std::to_string(round));
        const fs::path store = work / ("store" + std::to_string(round));
        runs["copy"].push_back(run(work, {"cp", "-a", tree, copy}));
        empty(copy);
        run(work, {tool, "store", "create", store});
        runs["archive"].push_back(run(work, {tool, "archive", "-j", "2", "--store", store, tree}));
        runs["recall"].push_back(run(work, {tool, "recall", "-j", "2", tree}));
        empty(store);
    }
    std::printf("%d files, %.0f MB of data, medians of %d rounds\n", files, bytes / 1e6, rounds);
    for (const char* what : {"copy", "archive", "recall"}) {
        const double seconds = middle(runs[what]);
        const auto memory = [](const Run& a, const Run& b) { return a.kilobytes < b.kilobytes; };
        std::printf("%-8s %8.2f s %8.0f files/s %6.0f MB/s %5.2f times cp -a %7ld KiB at most\n", what,
                    seconds, files / seconds, bytes / 1e6 / seconds, seconds / middle(runs["copy"]),
                    std::ranges::max(runs[what], memory).kilobytes);
        record(what, runs[what], runs["copy"], files, bytes);
    }
}

} // namespace

int main(int argc, char** argv) {
    const auto number = [&](int at, int otherwise) { return argc > at ? std::atoi(argv[at]) : otherwise; };
    if (argc < 2) {
        std::fputs("usage: qzhsm_archive_bench PATH-OF-QZHSM [FILES [ROUNDS [GIB-OF-A-SPARSE-FILE]]]\n",
                   stderr);
        return 2;
    }
    const char* under = std::getenv("QZHSM_BENCH_DIR");
    std::string work = std::string(under ? under : "/tmp") + "/qzhsm-bench.XXXXXX";
    if (!::mkdtemp(work.data())) {
        std::perror(work.c_str());
        return 1;
    }
    int status = 0;
    try {
        measure(work, argv[1], number(2, 100000), number(3, 3), number(4, 10));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        status = 1;
    }
    fs::remove_all(work);
    return status;
}
