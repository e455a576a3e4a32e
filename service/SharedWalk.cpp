#include "service/SharedWalk.h"

#include <utility>

namespace {

/// Directories that wait, for each walk: few, as each is open, but enough to keep all threads at work.
constexpr size_t kMostWaiting = 4;

} // namespace

SharedWalk::SharedWalk(std::vector<Walk*> walks) : m_walks(std::move(walks)) {
    if (m_walks.size() < 2)
        return;
    for (Walk* walk : m_walks) {
        walk->handOver([this](FoundDirectory& found) { return take(found); });
        walk->stopWhen([this] { return m_ended.load(); });
    }
    try {
        for (size_t other = 1; other < m_walks.size(); ++other)
            m_threads.emplace_back([this, walk = m_walks[other]] { serve(*walk); });
    } catch (...) { // those that run would be waited for, and wait
        end();
        throw;
    }
}

SharedWalk::~SharedWalk() {
    end();
}

void SharedWalk::from(const std::string& path) {
    m_walks.front()->from(path);
    rethrow();
}

void SharedWalk::finish() {
    serve(*m_walks.front());
    for (std::jthread& thread : m_threads)
        thread.join();
    rethrow();
}

void SharedWalk::serve(Walk& walk) {
    try {
        while (const std::optional<FoundDirectory> found = next())
            walk.below(*found);
    } catch (...) {
        {
            const std::lock_guard lock(m_mutex);
            m_failure = std::current_exception();
        }
        end();
    }
}

std::optional<FoundDirectory> SharedWalk::next() {
    std::unique_lock lock(m_mutex);
    ++m_idle;
    if (m_idle == m_walks.size() && m_found.empty()) { // nobody is left who could find any
        m_ended = true;
        m_changed.notify_all();
    }
    m_changed.wait(lock, [this] { return !m_found.empty() || m_ended; });
    if (m_ended)
        return {};
    --m_idle;
    std::optional<FoundDirectory> found(std::move(m_found.front()));
    m_found.pop_front();
    m_isFull = false;
    return found;
}

bool SharedWalk::take(FoundDirectory& found) {
    if (m_isFull)
        return false;
    {
        const std::lock_guard lock(m_mutex);
        m_isFull = m_found.size() >= kMostWaiting * m_walks.size();
        if (m_isFull)
            return false;
        m_found.push_back(std::move(found));
    }
    m_changed.notify_one();
    return true;
}

void SharedWalk::end() {
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_changed.notify_all();
}

void SharedWalk::rethrow() {
    const std::lock_guard lock(m_mutex);
    if (m_failure)
        std::rethrow_exception(m_failure);
}
