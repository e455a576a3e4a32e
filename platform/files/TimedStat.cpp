#include "platform/files/TimedStat.h"

#include "platform/files/utf_files.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <semaphore>
#include <string>
#include <system_error>
#include <thread>

namespace {

/// What a caller and its helper share. The side that holds the turn (by its semaphore) owns the other
/// members.
struct Exchange {
    std::binary_semaphore asked{0};
    std::binary_semaphore answered{0};
    bool stop = false;
    std::string path;
    struct stat st {};
    int error = 0;
};

void serve(const std::shared_ptr<Exchange>& exchange) {
    for (;;) {
        exchange->asked.acquire();
        if (exchange->stop)
            return;
        exchange->error = lstat_utf(exchange->path.c_str(), &exchange->st) == 0 ? 0 : errno;
        exchange->answered.release();
    }
}

/// Counts forks: the helpers of a parent do not exist in its child.
std::atomic<unsigned> forks{0};

class Helper {
public:
    Helper() {
        static const int registered = pthread_atfork(nullptr, nullptr, [] { ++forks; });
        static_cast<void>(registered);
        m_born = forks;

        // The service's signal handlers are not to run on a thread that may hang.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            m_thread = std::thread(serve, m_exchange);
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    ~Helper() {
        if (!lives()) {
            m_thread.detach();
            return;
        }
        m_exchange->stop = true;
        m_exchange->asked.release();
        m_thread.join();
    }

    bool lives() const { return !m_hangs && m_born == forks; }

    /// Null where the time ran out; the helper then no longer lives.
    const Exchange* ask(const char* path, int timeoutSeconds) {
        m_exchange->path = path;
        m_exchange->asked.release();
        m_hangs = !m_exchange->answered.try_acquire_for(std::chrono::seconds(timeoutSeconds));
        return m_hangs ? nullptr : m_exchange.get();
    }

private:
    std::shared_ptr<Exchange> m_exchange = std::make_shared<Exchange>();
    std::thread m_thread;
    unsigned m_born = 0;
    bool m_hangs = false;
};

} // namespace

const struct stat* TimedStat::class_lstat(const char* path) {
    static thread_local std::unique_ptr<Helper> helper;
    try {
        if (!helper || !helper->lives())
            helper = std::make_unique<Helper>();
    } catch (const std::system_error& e) {
        m_errno = e.code().value();
        return nullptr;
    }
    const Exchange* answer = helper->ask(path, m_timeoutSeconds);
    if (!answer) {
        helper.reset();
        m_errno = ETIMEDOUT;
        return nullptr;
    }
    m_errno = answer->error;
    m_stat = answer->st;
    return m_errno == 0 ? &m_stat : nullptr;
}
