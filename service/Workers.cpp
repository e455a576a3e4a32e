#include "service/Workers.h"

#include <utility>

namespace {

constexpr size_t kMostWaiting = 64; // each holds a descriptor

} // namespace

Workers::Workers(int count, const Make& make) {
    for (int i = 0; i < count; ++i)
        m_workers.push_back(make());
    try {
        if (count > 1)
            for (const auto& worker : m_workers)
                m_threads.emplace_back([this, &worker = *worker] { serve(worker); });
    } catch (...) { // those that run would be waited for, and wait
        end();
        throw;
    }
}

Workers::~Workers() {
    end();
}

void Workers::end() {
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
        m_waiting.clear();
    }
    m_given.notify_all();
}

void Workers::give(OpenFile file) {
    if (m_threads.empty())
        return m_workers.front()->take(std::move(file));
    {
        std::unique_lock lock(m_mutex);
        m_taken.wait(lock, [this] { return m_waiting.size() < kMostWaiting || m_failure; });
        rethrow();
        m_waiting.push_back(std::move(file));
    }
    m_given.notify_one();
}

void Workers::finish() {
    if (m_threads.empty())
        return m_workers.front()->finish();
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_given.notify_all();
    for (std::jthread& thread : m_threads)
        thread.join();
    rethrow();
}

void Workers::serve(FileWorker& worker) {
    try {
        while (std::optional<OpenFile> file = next())
            worker.take(std::move(*file));
        worker.finish();
    } catch (...) {
        {
            const std::lock_guard lock(m_mutex);
            m_failure = std::current_exception();
            m_waiting.clear();
            m_ended = true;
        }
        m_given.notify_all();
        m_taken.notify_one();
    }
}

std::optional<OpenFile> Workers::next() {
    std::optional<OpenFile> file;
    bool isLow = false;
    {
        std::unique_lock lock(m_mutex);
        m_given.wait(lock, [this] { return !m_waiting.empty() || m_ended; });
        if (m_waiting.empty())
            return {};
        file.emplace(std::move(m_waiting.front()));
        m_waiting.pop_front();
        isLow = m_waiting.size() == kMostWaiting / 2;
    }
    if (isLow) // not for each file: to be woken costs more than to open one
        m_taken.notify_one();
    return file;
}

void Workers::rethrow() {
    if (m_failure)
        std::rethrow_exception(m_failure);
}
