#include "tools/qzhsm/ShownWork.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t interrupted = 0;

bool noteSignals() {
    struct sigaction note {};
    note.sa_handler = [](int) { interrupted = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        ::sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN)
            ::sigaction(signal, &note, nullptr);
    }
    return true;
}

} // namespace

bool isInterrupted() {
    static const bool noting = noteSignals();
    return noting && interrupted != 0;
}

void ShownWork::started(const std::string&, long long) {}

void ShownWork::bytes(long long count) {
    const std::lock_guard lock(m_mutex);
    m_bytes += count;
    m_progress.work(m_done, m_bytes);
}

void ShownWork::done(const std::string& name, const std::string& what) {
    const std::lock_guard lock(m_mutex);
    ++m_done;
    if (m_report.isJson())
        m_report.json({{"path", name}, {"done", what}});
    m_progress.work(m_done, m_bytes);
}

void ShownWork::failed(const std::string&, const Failure& failure) {
    const std::lock_guard lock(m_mutex);
    ++m_failed;
    m_progress.clear();
    m_report.failure(failure);
}

void ShownWork::skipped(const std::string& name, const std::string& reason) {
    const std::lock_guard lock(m_mutex);
    ++m_skipped;
    if (m_report.isJson())
        m_report.json({{"path", name}, {"skipped", reason}});
}

void ShownWork::note(const std::string& text) {
    const std::lock_guard lock(m_mutex);
    m_progress.clear();
    m_report.note(text);
}

void ShownWork::summarise(const std::string& done) {
    m_progress.clear();
    if (m_done + m_skipped + m_failed <= 1) // one file has been told of already
        return;
    m_report.note(std::to_string(m_done) + " " + done + ", " + std::to_string(m_skipped) + " left alone, " +
                  std::to_string(m_failed) + " failed, " + sizeText(m_bytes));
}
