#include "platform/files/TimedStat.h"

#include "platform/files/CachedStat.h"
#include "platform/files/utf_files.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <new>
#include <pthread.h>
#include <semaphore>
#include <string>
#include <sys/stat.h>

namespace {

/// What a caller and its helper share. The side that holds the turn (by its semaphore) owns the members
/// behind `stop`.
struct Exchange {
    std::counting_semaphore<2> asked{0}; ///< once to stat, and once to stop, which waits for no answer
    std::binary_semaphore answered{0};
    std::atomic<bool> stop{false};
    std::string path; ///< in the locale's encoding
    struct stat st {};
    int error = 0;
};

/// Allocates nothing: a failure here would end the process.
void* serve(void* argument) {
    const std::unique_ptr<std::shared_ptr<Exchange>> own(static_cast<std::shared_ptr<Exchange>*>(argument));
    Exchange& exchange = **own;
    for (;;) {
        exchange.asked.acquire();
        if (exchange.stop)
            return nullptr;
        exchange.error = ::lstat(exchange.path.c_str(), &exchange.st) == 0 ? 0 : errno;
        exchange.answered.release();
    }
}

/// Counts forks: the helpers of a parent do not exist in its child.
std::atomic<unsigned> forks{0};

class Helper {
public:
    Helper() {
        static const bool counts = [] {
            if (pthread_atfork(nullptr, nullptr, [] { ++forks; }) != 0)
                throw std::bad_alloc();
            return true;
        }();
        static_cast<void>(counts);
        m_born = forks;

        auto shared = std::make_unique<std::shared_ptr<Exchange>>(m_exchange);
        // The service's signal handlers are not to run on a thread that may hang.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        m_startError = pthread_create(&m_thread, nullptr, serve, shared.get());
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (m_startError == 0)
            static_cast<void>(shared.release()); // the thread's now
    }

    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    ~Helper() {
        // A parent's thread is unknown here, and its id may be another thread's by now.
        if (m_startError != 0 || m_born != forks)
            return;
        m_exchange->stop = true;
        m_exchange->asked.release();
        if (m_hangs)
            pthread_detach(m_thread); // it ends once its lstat returns
        else
            pthread_join(m_thread, nullptr);
    }

    int startError() const { return m_startError; }
    bool lives() const { return m_startError == 0 && !m_hangs && m_born == forks; }

    /// Takes a path in the locale's encoding. Null if the time ran out; the helper then no longer lives.
    const Exchange* ask(const char* path, int timeoutSeconds) {
        m_exchange->path = path;
        m_exchange->asked.release();
        m_hangs = !m_exchange->answered.try_acquire_for(std::chrono::seconds(timeoutSeconds));
        return m_hangs ? nullptr : m_exchange.get();
    }

private:
    std::shared_ptr<Exchange> m_exchange = std::make_shared<Exchange>();
    pthread_t m_thread{};
    unsigned m_born = 0;
    int m_startError = 0;
    bool m_hangs = false;
};

} // namespace

const struct stat* TimedStat::class_lstat(const char* path) try {
    const LocalPath local(path);
    m_errno = 0;
    if (cachedLstat(local.c_str(), m_stat))
        return &m_stat;
    static thread_local std::unique_ptr<Helper> helper;
    if (!helper || !helper->lives()) {
        helper = std::make_unique<Helper>();
        m_errno = helper->startError();
        if (m_errno != 0)
            return nullptr;
    }
    const Exchange* answer = helper->ask(local.c_str(), m_timeoutSeconds);
    if (!answer) {
        helper.reset();
        m_errno = ETIMEDOUT;
        return nullptr;
    }
    m_errno = answer->error;
    m_stat = answer->st;
    return m_errno == 0 ? &m_stat : nullptr;
} catch (const std::bad_alloc&) {
    m_errno = ENOMEM;
    return nullptr;
}
