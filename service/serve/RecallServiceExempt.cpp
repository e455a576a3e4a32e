#include "service/serve/RecallService.h"

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
    const std::lock_guard lock(m_mutex); // between another thread's look at this file and its `ignore`
    return m_group.heed(fd);
}

bool RecallService::isPassed(pid_t tid) {
    return m_ownThreads.contains(tid) || (!m_exempt.empty() && m_exempt.contains(processOf(tid)));
}
