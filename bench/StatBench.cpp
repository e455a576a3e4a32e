#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sys/stat.h>
#include <thread>

namespace {

/// Whose turn it is, the asking side's (0) or the helper's (1), waited for in one way or the other.
class AtomicTurn {
public:
    void give(int turn) {
        m_turn = turn;
        m_turn.notify_one();
    }
    void await(int turn) { m_turn.wait(1 - turn); }

private:
    std::atomic<int> m_turn = 0;
};

class CondVarTurn {
public:
    void give(int turn) {
        {
            const std::lock_guard lock(m_mutex);
            m_turn = turn;
        }
        m_changed.notify_one();
    }
    void await(int turn) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_turn == turn; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_turn = 0;
};

/// The references: an lstat handed to a helper thread and back, without a time-out.
template <class Turn>
class LstatHelper {
public:
    LstatHelper() : m_thread([this] { serve(); }) {}
    LstatHelper(const LstatHelper&) = delete;
    LstatHelper& operator=(const LstatHelper&) = delete;
    ~LstatHelper() {
        ask(nullptr, nullptr);
        m_thread.join();
    }

    /// A null path ends the helper.
    int ask(const char* path, struct stat* st) {
        m_path = path;
        m_st = st;
        m_turn.give(1);
        m_turn.await(0);
        return m_result;
    }

private:
    void serve() {
        for (bool stop = false; !stop; m_turn.give(0)) {
            m_turn.await(1);
            stop = !m_path;
            m_result = stop ? 0 : ::lstat(m_path, m_st);
        }
    }

    Turn m_turn;
    const char* m_path = nullptr;
    struct stat* m_st = nullptr;
    int m_result = 0;
    std::thread m_thread;
};

template <class Stat>
void besideLstat(benchmark::State& state, const char* name, Stat statCall) {
    const std::string path = scratchPath("");
    struct stat st {};
    measure(
        state, {.name = name, .batch = 64}, [] {}, [&](int) { return statCall(path.c_str(), &st) == 0; },
        [&](int) { return ::lstat(path.c_str(), &st) == 0; });
}

void statFile(benchmark::State& state) {
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    besideLstat(state, "statFile",
                [&](const char* path, struct stat* st) { return backEnd->statFile(path, st); });
    const std::string path = scratchPath("");
    struct stat st {};
    report(state, "statFile", "syscalls",
           countSyscalls([&] { return backEnd->statFile(path.c_str(), &st) == 0; }), 3);
}

/// Of a file system that is none of this machine's.
void statFileByHelper(benchmark::State& state) {
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    struct stat st {};
    const char* path = "/proc/version";
    measure(
        state, {.name = "statFileByHelper", .batch = 64, .allocs = 0}, [] {},
        [&](int) { return backEnd->statFile(path, &st) == 0; }, [&](int) { return ::lstat(path, &st) == 0; });
}

template <class Turn>
void handOver(benchmark::State& state) {
    LstatHelper<Turn> helper;
    besideLstat(state, "handOver", [&](const char* path, struct stat* st) { return helper.ask(path, st); });
}

void handOverToFreshThread(benchmark::State& state) {
    besideLstat(state, "handOverToFreshThread", [](const char* path, struct stat* st) {
        int result = -1;
        std::thread([&] { result = ::lstat(path, st); }).join();
        return result;
    });
}

BENCHMARK(statFile)->UseManualTime();
BENCHMARK(statFileByHelper)->UseManualTime();
BENCHMARK_TEMPLATE(handOver, AtomicTurn)->UseManualTime();
BENCHMARK_TEMPLATE(handOver, CondVarTurn)->UseManualTime();
BENCHMARK(handOverToFreshThread)->UseManualTime();

} // namespace
