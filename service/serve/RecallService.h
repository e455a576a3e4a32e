#pragma once

#include "platform/watch/Caller.h"
#include "service/Failure.h"
#include "service/serve/ServeRules.h"
#include "service/serve/ServeStatus.h"
#include "service/serve/ServedStub.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>
#include <thread>

/// A recall that was begun and left. Who brings the data knows the rest of it.
class SuspendedRecall {
public:
    SuspendedRecall() = default;
    SuspendedRecall(const SuspendedRecall&) = delete;
    SuspendedRecall& operator=(const SuspendedRecall&) = delete;
    virtual ~SuspendedRecall() = default;
};

/// Has readers of stubs wait until their data is there. One thread of its own looks at each access and
/// answers those of files that are no stubs; `RecallRunner`s, a thread each, bring the data.
class RecallService {
public:
    RecallService(PreContentGroup& group, ServeRules rules);
    RecallService(const RecallService&) = delete;
    RecallService& operator=(const RecallService&) = delete;
    ~RecallService();

    /// Accesses that a process which died has not answered.
    void takeOver(const std::vector<int>& held);
    void start();
    /// Has all accesses fail with EIO to stubs that nobody has seen a part of, and lets their recalls be put
    /// back. The others have a minute to end. `next` answers nothing new from now on. Tools need not tell of
    /// files any more: none is ignored.
    void stop();

    void setRules(ServeRules rules);
    ServeStatus status() const;

    // --- Who is not held up ---

    /// The calling thread, for as long as the object lives.
    class OwnThread {
    public:
        explicit OwnThread(RecallService& service);
        OwnThread(const OwnThread&) = delete;
        OwnThread& operator=(const OwnThread&) = delete;
        ~OwnThread();

    private:
        RecallService& m_service;
    };
    /// A process that archives and recalls by itself.
    void exempt(pid_t process);
    void endExemption(pid_t process);
    /// This file is about to become a stub: it is looked at again from now on. Returns 0 or an errno: EBUSY
    /// if somebody may not have come to do yet what he was let through for.
    int heed(int fd);

    // --- For those who bring the data ---

    using Stub = std::shared_ptr<ServedStub>;

    struct Work {
        Stub stub; ///< none at the end
        std::unique_ptr<SuspendedRecall>
            recall; ///< to be gone on with, perhaps by another thread than before
    };

    /// Waits for work: a suspended recall that somebody waits for, else a new stub, else any suspended
    /// recall.
    Work next();
    void suspend(Work work);
    void begin(ServedStub& stub, std::uint64_t pieces, std::uint64_t pieceSize);
    /// The piece to bring; none if all are there. Throws if this recall is to be given up.
    std::optional<std::uint64_t> wanted(ServedStub& stub, std::uint64_t after);
    void fill(ServedStub& stub, std::uint64_t piece);
    /// So many further bytes of the file are there, for which so many were moved. Waits until the bandwidth
    /// allows more.
    void count(ServedStub& stub, std::uint64_t bytes, std::uint64_t moved);
    void settle(ServedStub& stub);
    /// Whether nobody waits for this one, but for others, for which no thread has time.
    bool isLessUrgent(ServedStub& stub);
    /// Somebody else holds this file, which has so many blocks: it comes again by `next`, while others get
    /// their turn. False if it is to fail.
    bool postpone(const Stub& stub, long long blocks);
    enum class Start { Now, Later, Never };
    /// Whether to begin a recall: later, if somebody may be about to truncate the file; never, if nobody has
    /// asked who may cause recalls. Then the work on it has ended.
    Start mayBegin(const Stub& stub);
    /// Whether a recall is to be left, as the service comes to its end.
    bool isInterrupted(const ServedStub& stub) const;
    /// True if nobody has seen a part of the data. Then nobody will, and it may be taken out again.
    bool takeBack(ServedStub& stub);
    /// Ends the work on a stub: it is none any more, or all who wait for it get EIO.
    void done(const Stub& stub, bool wasRecalled);
    void fail(const Stub& stub, const Failure& failure);

    /// A line in the log.
    static void log(const std::string& text);

private:
    void watch(const std::stop_token& token);
    void handle(const HeldAccess& access);
    bool isPassed(pid_t tid);
    void ignorePlain(int fd, const struct stat& st);
    void letPass(const HeldAccess& access, const FileKey& key);
    void handleStub(const HeldAccess& access, const struct stat& st);
    Need needOf(const HeldAccess& access, bool isHeld);
    void reconsider(ServedStub& stub);
    void counted(ServedStub& stub, const std::function<void()>& act);
    void refuse(ServedStub& stub);
    void refuseLeft();
    bool isToBeLeft(const ServedStub& stub) const;
    bool hasNew();
    bool isAwaited(ServedStub& stub);
    void logLater(std::string line);

    PreContentGroup& m_group;
    mutable std::mutex m_mutex; ///< for all below
    ServeRules m_rules;
    std::map<FileKey, Stub> m_stubs; ///< those that are waited for or recalled
    std::deque<Stub> m_queue;        ///< those of them that nobody works on
    std::multimap<std::chrono::steady_clock::time_point, Stub> m_later; ///< the same, from then on
    std::vector<Work> m_suspended;
    std::condition_variable m_queued;
    std::condition_variable m_stopped;
    int m_idle = 0; ///< threads that wait for work
    std::set<pid_t> m_ownThreads;
    std::map<pid_t, int> m_exempt;                          ///< processes, and how often
    std::vector<std::pair<FileKey, PassingCall>> m_passing; ///< accesses to files that were no stubs
    std::deque<std::string> m_lines; ///< that the thread which answers must not write itself
    ServeStatus m_counts{};
    std::chrono::steady_clock::time_point m_free; ///< when the bandwidth allows more
    std::atomic<bool> m_stopping = false;
    std::chrono::steady_clock::time_point m_stopBy; ///< when whoever still waits gets EIO
    std::condition_variable_any m_lineThere;
    UniqueFd m_wake;
    std::jthread m_logger;
    std::jthread m_watcher;
};
