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

void requireUninterrupted() {
    if (isInterrupted())
        throw Failure(QZHSM_FAILURE, "Interrupted: the files that follow were left as they are");
}

/// Writes to the list on standard output, unless that has failed before.
template <class Write>
void ShownWork::list(Write write) {
    if (m_outputFailure)
        return;
    try {
        write();
    } catch (const OutputFailure&) {
        m_outputFailure = std::current_exception();
    }
}

void ShownWork::show() {
    Progress& progress = m_report.progress();
    if (!progress.isDue())
        return;
    const long long all = m_walked ? 0 : m_report.given();
    const long long done = m_done + m_skipped + m_failed;
    std::string text = Progress::files(done, all);
    if (m_begun > 0)
        text += ", " + sizeText(m_bytes) + (all == 1 ? " of " + sizeText(m_begun) : "");
    progress.draw(text + progress.rate(done));
}

/// How many bytes a file has that was under way, and is no more.
long long ShownWork::endOf(const std::string& name) {
    const auto node = m_underWay.extract(name);
    return node ? node.mapped() : 0;
}

void ShownWork::started(const std::string& name, long long size) {
    const std::lock_guard lock(m_mutex);
    m_begun += size;
    m_underWay[name] = size;
}

void ShownWork::walking(const std::string&) {
    const std::lock_guard lock(m_mutex);
    m_walked = true;
}

void ShownWork::bytes(long long count) {
    const std::lock_guard lock(m_mutex);
    m_bytes += count;
    show();
}

void ShownWork::counted() {
    const std::lock_guard lock(m_mutex);
    ++m_done;
    show();
}

void ShownWork::done(const std::string& name, const std::string& what) {
    const std::lock_guard lock(m_mutex);
    ++m_done;
    m_doneBytes += endOf(name);
    list([&] {
        if (m_report.isJson())
            m_report.json({{"path", name}, {"done", what}});
        else if (m_report.isNull())
            m_report.record(name);
    });
    show();
}

void ShownWork::failed(const std::string& name, const Failure& failure) {
    const std::lock_guard lock(m_mutex);
    ++m_failed;
    endOf(name);
    const std::string text = failure.what();
    const bool namesIt = text.find(name) != std::string::npos;
    m_report.failure(namesIt ? failure : Failure(failure.code(), name + ": " + text, failure.advice()));
    list([&] {
        if (m_report.isJson())
            m_report.json({{"path", name}, {"failed", text}, {"code", failure.code()}});
    });
}

void ShownWork::skipped(const std::string& name, const std::string& reason) {
    const std::lock_guard lock(m_mutex);
    ++m_skipped;
    m_skippedLast = name + " was left alone: " + reason;
    list([&] {
        if (m_report.isJson())
            m_report.json({{"path", name}, {"skipped", reason}});
    });
    show();
}

void ShownWork::note(const std::string& text) {
    const std::lock_guard lock(m_mutex);
    m_report.note(text);
}

void ShownWork::summarise(const std::string& done, bool tellsOfOne) {
    m_report.progress().clear();
    const long long all = m_done + m_skipped + m_failed;
    const bool isOneNamed = m_report.given() == 1 && !m_walked;
    if (isOneNamed && all == 1 && m_skipped == 1 && !m_report.isQuiet())
        m_report.note(m_skippedLast);
    // A failure of one file has been told of already.
    if ((all > 1 || (tellsOfOne && m_done == 1)) && !m_report.isQuiet())
        m_report.note(std::to_string(m_done) + " " + done + ", " + std::to_string(m_skipped) +
                      " left alone, " + std::to_string(m_failed) + " failed" +
                      (m_doneBytes > 0 ? ", " + sizeText(m_doneBytes) : ""));
    if (m_outputFailure)
        std::rethrow_exception(m_outputFailure);
}
