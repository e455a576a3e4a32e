#pragma once

#include "service/Failure.h"
#include "service/Flush.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <sys/resource.h>
#include <utility>
#include <vector>

/// Files that are worked on together: each step is taken for all of them, and flushed once. `GiveUp` is
/// called with a job whose step failed, or that could not be flushed, and the failure.
template <class Job, class GiveUp>
class JobBatch {
public:
    explicit JobBatch(GiveUp giveUp) : m_giveUp(std::move(giveUp)) {
        rlimit limit{};
        if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
            m_descriptors = limit.rlim_cur / 2;
        ++s_batches;
    }
    JobBatch(const JobBatch&) = delete;
    JobBatch& operator=(const JobBatch&) = delete;
    ~JobBatch() { --s_batches; }

    /// To be brought to its end before more is taken: enough to share a flush, few enough for all workers to
    /// keep their descriptors open.
    bool isFull() const {
        const size_t most = std::min(m_descriptors / kDescriptors / s_batches.load(), kMostFiles);
        return m_jobs.size() >= most || m_bytes >= kMostBytes;
    }
    bool isEmpty() const { return m_jobs.empty(); }

    void add(std::unique_ptr<Job> job, long long bytes) {
        m_jobs.push_back(std::move(job));
        m_bytes += bytes;
    }

    template <class Act>
    void step(Act act) {
        std::erase_if(m_jobs, [&](const std::unique_ptr<Job>& job) {
            try {
                job->file().as([&] { act(*job); });
                return false;
            } catch (const Failure& failure) {
                m_giveUp(*job, failure);
            } catch (const std::bad_alloc&) {
                m_giveUp(*job, systemFailure("Failed to work on ", job->file().name(), ENOMEM));
            }
            return true;
        });
    }

    void flush() {
        std::vector<Flushable> files;
        for (const auto& job : m_jobs)
            files.push_back({job->flushable(), job->look().st.st_dev});
        try {
            flushAll(files);
        } catch (const Failure& failure) {
            giveUpAll(failure);
        }
    }

    void giveUpAll(const Failure& failure) {
        for (const auto& job : m_jobs)
            m_giveUp(*job, failure);
        m_jobs.clear();
        m_bytes = 0;
    }

    /// The jobs that have come to their end.
    template <class Act>
    void finish(Act act) {
        for (const auto& job : m_jobs)
            act(*job);
        m_jobs.clear();
        m_bytes = 0;
    }

private:
    static constexpr size_t kMostFiles = 1024;
    static constexpr size_t kDescriptors = 4;        ///< for each file
    static inline std::atomic<size_t> s_batches = 0; ///< of all workers
    static constexpr long long kMostBytes = 1LL << 30;

    GiveUp m_giveUp;
    size_t m_descriptors = 0; ///< for the batches of all workers
    std::vector<std::unique_ptr<Job>> m_jobs;
    long long m_bytes = 0;
};
