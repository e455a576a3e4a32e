#include "service/serve/RecallService.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

// --- Who is not held up ---

RecallService::OwnThread::OwnThread(RecallService& service) : m_service(service) {
    const std::lock_guard lock(m_service.m_mutex);
    m_service.m_ownThreads.insert(::gettid());
}

RecallService::OwnThread::~OwnThread() {
    const std::lock_guard lock(m_service.m_mutex);
    m_service.m_ownThreads.erase(::gettid());
}

void RecallService::exempt(pid_t process) {
    const std::lock_guard lock(m_mutex);
    ++m_exempt[process];
}

void RecallService::endExemption(pid_t process) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_exempt.find(process);
    if (found != m_exempt.end() && --found->second == 0)
        m_exempt.erase(found);
}

int RecallService::heed(int fd) {
    std::unique_lock lock(m_mutex); // between another thread's look at this file and its `ignore`
    struct stat st {};
    if (const int err = m_group.heed(fd); err != 0 || ::fstat(fd, &st) < 0)
        return err != 0 ? err : errno;
    const auto isUnderWay = [&](const auto& passing) {
        return passing.first == FileKey{st.st_dev, st.st_ino} && passing.second.isUnderWay();
    };
    constexpr auto kPause = std::chrono::milliseconds(1);
    constexpr int kPatience = 100;
    for (int i = 0; std::ranges::any_of(m_passing, isUnderWay); ++i) {
        if (i == kPatience)
            return EBUSY;
        lock.unlock();
        std::this_thread::sleep_for(kPause);
        lock.lock();
    }
    return 0;
}

bool RecallService::isPassed(pid_t tid) {
    return m_ownThreads.contains(tid) || (!m_exempt.empty() && m_exempt.contains(processOf(tid)));
}
