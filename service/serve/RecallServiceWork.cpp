#include "service/serve/RecallService.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPause = std::chrono::milliseconds(1);
constexpr int kPatience = 500;

} // namespace

// --- For those who bring the data ---

RecallService::Work RecallService::next() {
    std::unique_lock lock(m_mutex);
    while (true) {
        auto next =
            std::ranges::find_if(m_suspended, [this](const Work& work) { return isAwaited(*work.stub); });
        if (next == m_suspended.end() && hasNew()) {
            Stub stub = std::move(m_queue.front());
            m_queue.pop_front();
            return {std::move(stub), nullptr};
        }
        if (!m_suspended.empty()) {
            if (next == m_suspended.end())
                --next;
            Work work = std::move(*next);
            m_suspended.erase(next);
            return work;
        }
        if (m_stopping)
            return {};
        ++m_idle;
        if (m_later.empty())
            m_queued.wait(lock);
        else
            m_queued.wait_until(lock, Clock::time_point(m_later.begin()->first));
        --m_idle;
    }
}

void RecallService::suspend(Work work) {
    const std::lock_guard lock(m_mutex);
    m_suspended.push_back(std::move(work));
}

bool RecallService::hasNew() {
    for (const auto now = Clock::now(); !m_later.empty() && m_later.begin()->first <= now;
         m_later.erase(m_later.begin())) {
        m_queue.push_front(m_later.begin()->second);
        m_queued.notify_one(); // there may be more of them than threads that wait for a time
    }
    return !m_queue.empty();
}

bool RecallService::postpone(const Stub& stub, long long blocks) {
    const std::lock_guard lock(m_mutex);
    std::optional<Clock::time_point> when;
    counted(*stub, [&] { when = stub->heldUp(blocks, Clock::now()); });
    if (!when || m_stopping)
        return false;
    m_later.emplace(*when, stub);
    m_queued.notify_one(); // not to wait for longer than that
    return true;
}

void RecallService::begin(ServedStub& stub, std::uint64_t pieces, std::uint64_t pieceSize) {
    const std::lock_guard lock(m_mutex);
    stub.begin(pieces, pieceSize);
}

std::optional<std::uint64_t> RecallService::wanted(ServedStub& stub, std::uint64_t after) {
    const std::lock_guard lock(m_mutex);
    reconsider(stub);
    if (isToBeLeft(stub))
        throw Failure(QZHSM_FAILURE, "Recall of " + stub.name() + " interrupted");
    return stub.wanted(after);
}

void RecallService::fill(ServedStub& stub, std::uint64_t piece) {
    const std::lock_guard lock(m_mutex);
    counted(stub, [&] { stub.fill(piece); });
}

void RecallService::count(ServedStub& stub, std::uint64_t bytes, std::uint64_t moved) {
    std::unique_lock lock(m_mutex);
    stub.count(bytes);
    m_counts.bytes += bytes;
    if (m_rules.bandwidth == 0 || moved == 0)
        return;
    const auto cost =
        std::chrono::duration<double>(static_cast<double>(moved) / static_cast<double>(m_rules.bandwidth));
    m_free = std::max(m_free, Clock::now()) + std::chrono::duration_cast<Clock::duration>(cost);
    const Clock::time_point until = m_free;
    const auto isOver = [&] { return m_stopping || m_free < until; }; // or the rules have changed
    m_stopped.wait_until(lock, until, isOver);
}

void RecallService::settle(ServedStub& stub) {
    const std::lock_guard lock(m_mutex);
    counted(stub, [&] { stub.settle(); });
}

bool RecallService::isLessUrgent(ServedStub& stub) {
    const std::lock_guard lock(m_mutex);
    const auto waits = [](const Work& work) { return work.stub->waiting() > 0; };
    return m_idle == 0 && (hasNew() || std::ranges::any_of(m_suspended, waits)) && !isAwaited(stub);
}

bool RecallService::isAwaited(ServedStub& stub) {
    bool awaited = false;
    counted(stub, [&] { awaited = stub.isAwaited(isAlive); });
    return awaited;
}

RecallService::Start RecallService::mayBegin(const Stub& stub) {
    std::unique_lock lock(m_mutex);
    reconsider(*stub);
    // One whose call is not known yet has not come to wait in the kernel, on a busy machine.
    for (int i = 0; stub->isUnclear() && i < kPatience; ++i) {
        lock.unlock();
        std::this_thread::sleep_for(kPause);
        lock.lock();
        reconsider(*stub);
    }
    if (stub->isBeingTruncated(isAlive, Clock::now()))
        return Start::Later;
    if (stub->isUnasked()) {
        m_stubs.erase(stub->key());
        return Start::Never;
    }
    stub->close();
    return Start::Now;
}

bool RecallService::isInterrupted(const ServedStub& stub) const {
    if (!m_stopping)
        return false;
    const std::lock_guard lock(m_mutex);
    return isToBeLeft(stub);
}

bool RecallService::isToBeLeft(const ServedStub& stub) const {
    return m_stopping && (!stub.isSeen() || Clock::now() >= m_stopBy);
}

bool RecallService::takeBack(ServedStub& stub) {
    const std::lock_guard lock(m_mutex);
    return stub.takeBack();
}

void RecallService::done(const Stub& stub, bool wasRecalled) {
    const std::lock_guard lock(m_mutex);
    m_counts.recalled += wasRecalled;
    struct stat st {};
    if (::fstat(stub->fd(), &st) == 0)
        ignorePlain(stub->fd(), st);
    stub->forEachWaiting([&](const HeldAccess& access) { letPass(access, stub->key()); });
    counted(*stub, [&] { stub->allowAll(); });
    m_stubs.erase(stub->key());
}

void RecallService::fail(const Stub& stub, const Failure& failure) {
    {
        const std::lock_guard lock(m_mutex);
        ++m_counts.failed;
        m_counts.lastFailure = failure.what();
        refuse(*stub);
    }
    log("Failed to recall " + stub->name() + " for " + stub->cause() + ": " + failure.what());
}

void RecallService::refuse(ServedStub& stub) {
    counted(stub, [&] { stub.denyAll(EIO); });
    m_stubs.erase(stub.key());
}
