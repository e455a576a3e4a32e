#include "service/stores/Mover.h"

#include "platform/errors/ErrorText.h"
#include "service/Failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kPipeSize = 1024 * 1024; // fewer turns between the two processes
constexpr size_t kTextMax = 4096;      // the end of what it said, where the reason stands

/// The command's end of a pipe stays as it is.
void stopBlocking(const UniqueFd& end) {
    ::fcntl(end.get(), F_SETFL, ::fcntl(end.get(), F_GETFL) | O_NONBLOCK);
}

} // namespace

Mover::Mover(std::string phrase, const std::string& command, Data data, std::chrono::seconds timeout)
    : m_phrase(std::move(phrase)), m_timeout(timeout), m_data(data) {
    if (!m_pipe.isOpen() || !m_textPipe.isOpen())
        fail(QZHSM_FAILURE, errnoText({"no pipe"}, errno));
    if (data != Data::None)
        ::fcntl(m_pipe.writing.get(), F_SETPIPE_SZ, kPipeSize); // a smaller one does too
    stopBlocking(m_textPipe.reading);
    const int inFd = data == Data::In ? m_pipe.reading.get() : -1;
    const int outFd = data == Data::Out ? m_pipe.writing.get() : m_textPipe.writing.get();
    const int err =
        m_child.start(command.c_str(), inFd, outFd, m_textPipe.writing.get(), ChildProcess::Group::Own);
    if (err != 0)
        fail(QZHSM_FAILURE, errnoText({"/bin/sh was not started"}, err));
    m_textPipe.writing = UniqueFd();
    if (data == Data::In) {
        stopBlocking(m_pipe.writing);
    } else {
        m_pipe.writing = UniqueFd();
        stopBlocking(m_pipe.reading);
    }
    m_end = m_child.openEnd();
    if (!m_end.isOpen())
        fail(QZHSM_FAILURE, errnoText({"its end cannot be waited for"}, errno));
}

/// Waits until its data can go on, with `events` 0 until it has ended; takes up what it says meanwhile. False
/// if the command has ended and data is no longer taken.
bool Mover::waitUntilReady(short events) {
    using Clock = std::chrono::steady_clock;
    const int dataFd = events == 0 ? -1 : events == POLLOUT ? m_pipe.writing.get() : m_pipe.reading.get();
    // What it has written can be read after its end too.
    pollfd fds[] = {{dataFd, events, 0}, {m_textPipe.reading.get(), POLLIN, 0}, {m_end.get(), POLLIN, 0}};
    if (events == POLLIN)
        fds[2].fd = -1;
    for (const Clock::time_point giveUp = Clock::now() + m_timeout;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(giveUp - Clock::now());
        const int ready = left.count() > 0 ? ::poll(fds, std::size(fds), static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno != EINTR)
            fail(QZHSM_FAILURE, errnoText({"poll"}, errno));
        if (ready == 0)
            fail(QZHSM_TIMEOUT, "nothing moved for " + std::to_string(m_timeout.count()) + " s");
        if (ready < 0)
            continue;
        takeText();
        if ((fds[1].revents & POLLHUP) != 0)
            fds[1].fd = -1;
        if (fds[2].revents != 0)
            return false;
        if (fds[0].revents != 0)
            return true;
    }
}

void Mover::takeText() {
    char piece[kTextMax];
    for (ssize_t got = 0; (got = ::read(m_textPipe.reading.get(), piece, sizeof piece)) > 0;) {
        m_text.append(piece, static_cast<size_t>(got));
        m_text.erase(0, m_text.size() - std::min(m_text.size(), kTextMax));
    }
}

void Mover::write(const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t put = ::write(m_pipe.writing.get(), bytes, size);
        if (put > 0) {
            bytes += put;
            size -= static_cast<size_t>(put);
        } else if (errno == EAGAIN) {
            if (!waitUntilReady(POLLOUT))
                failAtEnd("it ended before it had taken all data");
        } else if (errno != EINTR) {
            fail(QZHSM_FAILURE, errnoText({"write"}, errno));
        }
    }
}

size_t Mover::read(char* buffer, size_t size) {
    for (;;) {
        const ssize_t got = ::read(m_pipe.reading.get(), buffer, size);
        if (got >= 0)
            return static_cast<size_t>(got);
        if (errno == EAGAIN)
            waitUntilReady(POLLIN);
        else if (errno != EINTR)
            fail(QZHSM_FAILURE, errnoText({"read"}, errno));
    }
}

void Mover::readAll(char* buffer, size_t size) {
    while (size > 0) {
        const size_t got = read(buffer, size);
        if (got == 0)
            failAtEnd("it gave less data than was asked for");
        buffer += got;
        size -= got;
    }
}

void Mover::finish() {
    char more = 0;
    if (m_data == Data::Out && read(&more, 1) > 0)
        fail(QZHSM_FAILURE, "it gave more data than was asked for");
    const std::string how = howItEnded();
    int unread = 0;
    if (m_data == Data::In)
        ::ioctl(m_pipe.reading.get(), FIONREAD, &unread);
    if (!how.empty())
        fail(QZHSM_FAILURE, how);
    if (unread > 0)
        fail(QZHSM_FAILURE, "it ended before it had taken all data");
}

/// Waits for the command's end. Empty for a success.
std::string Mover::howItEnded() {
    m_pipe.writing = UniqueFd();
    waitUntilReady(0);
    takeText();
    int status = 0;
    if (!m_child.wait(status))
        return "its exit status is lost";
    if (WIFSIGNALED(status))
        return "it was killed by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : "it ended with status " + std::to_string(WEXITSTATUS(status));
}

void Mover::failAtEnd(const std::string& reason) {
    const std::string how = howItEnded();
    fail(QZHSM_FAILURE, how.empty() ? reason : how);
}

void Mover::fail(int code, const std::string& reason) {
    std::string text = m_phrase + ": " + reason;
    m_text.erase(m_text.find_last_not_of("\r\n\t ") + 1);
    std::replace(m_text.begin(), m_text.end(), '\n', ' ');
    if (!m_text.empty())
        text += ": " + m_text;
    throw Failure(code, text);
}
