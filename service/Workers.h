#pragma once

#include "service/OpenFile.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

/// Works on files one after the other. Each worker has its own, so that back-end objects are not shared.
class FileWorker {
public:
    FileWorker() = default;
    FileWorker(const FileWorker&) = delete;
    FileWorker& operator=(const FileWorker&) = delete;
    virtual ~FileWorker() = default;

    /// Works on a file, now or together with the next ones.
    virtual void take(OpenFile file) = 0;
    /// Brings what was taken to its end.
    virtual void finish() = 0;
};

/// Spreads files over a number of threads. What a worker throws ends the work and passes to `give` or
/// `finish`.
class Workers {
public:
    using Make = std::function<std::unique_ptr<FileWorker>()>;

    /// With a count of 1 the work is done by the calling thread.
    Workers(int count, const Make& make);
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers();

    /// Hands a file to a worker; waits while all are far behind.
    void give(OpenFile file);
    /// Waits until all files are worked on to their end.
    void finish();

private:
    /// Has the threads end, and what waits for them left alone.
    void end();
    void serve(FileWorker& worker);
    std::optional<OpenFile> next();
    void rethrow();

    std::vector<std::unique_ptr<FileWorker>> m_workers;
    std::mutex m_mutex;
    std::condition_variable m_given;
    std::condition_variable m_taken;
    std::deque<OpenFile> m_waiting;
    bool m_ended = false;
    std::exception_ptr m_failure;
    std::vector<std::jthread> m_threads;
};
