#include "platform/process/NkProcess.h"

#include "platform/errors/ErrorText.h"
#include "platform/files/UniqueFd.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kFirstFd = STDERR_FILENO + 1;

/// A pipe whose ends lie beyond the standard descriptors, which may be closed in this process.
struct Pipe {
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) < 0)
            return;
        const UniqueFd low[2] = {UniqueFd(ends[0]), UniqueFd(ends[1])};
        reading = UniqueFd(::fcntl(ends[0], F_DUPFD_CLOEXEC, kFirstFd));
        writing = UniqueFd(::fcntl(ends[1], F_DUPFD_CLOEXEC, kFirstFd));
    }
    bool isOpen() const { return reading.isOpen() && writing.isOpen(); }

    UniqueFd reading;
    UniqueFd writing;
};

class SpawnActions {
public:
    SpawnActions(int outFd, int errFd) {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&m_actions, outFd, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&m_actions, errFd, STDERR_FILENO);
        ::posix_spawn_file_actions_addclosefrom_np(&m_actions, kFirstFd);
        ::posix_spawnattr_init(&m_attributes);
        sigset_t signals;
        ::sigfillset(&signals);
        ::posix_spawnattr_setsigdefault(&m_attributes, &signals);
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&m_attributes, &signals);
        ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() {
        ::posix_spawn_file_actions_destroy(&m_actions);
        ::posix_spawnattr_destroy(&m_attributes);
    }

    /// 0, or an errno.
    int spawnShell(const char* command, pid_t& child) const {
        std::string text = command;
        char shell[] = "sh";
        char option[] = "-c";
        char* const arguments[] = {shell, option, text.data(), nullptr};
        return ::posix_spawn(&child, "/bin/sh", &m_actions, &m_attributes, arguments, environ);
    }

private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
};

/// Reads both to their ends, whichever has something: a command that waits for room in one never blocks.
void drain(int outFd, std::string& out, int errFd, std::string& err) {
    pollfd ready[] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* const texts[] = {&out, &err};
    while (ready[0].fd >= 0 || ready[1].fd >= 0) {
        if (::poll(ready, std::size(ready), -1) < 0)
            continue; // a signal
        for (size_t i = 0; i < std::size(ready); ++i) {
            if (ready[i].fd < 0 || ready[i].revents == 0)
                continue;
            char piece[65536];
            const ssize_t got = ::read(ready[i].fd, piece, sizeof piece);
            if (got > 0)
                texts[i]->append(piece, static_cast<size_t>(got));
            else if (got == 0 || errno != EINTR)
                ready[i].fd = -1; // which poll skips
        }
    }
}

} // namespace

int NkProcess::system(const char* command, std::string* out, std::string* err, int, bool) {
    std::string ignored[2];
    std::string& outText = out ? *out : ignored[0];
    std::string& errText = err ? *err : ignored[1];
    outText.clear();
    errText.clear();
    const auto cannotRun = [&](const char* what, int reason) {
        errText += errnoText({what}, reason);
        return -1;
    };

    Pipe outPipe;
    Pipe errPipe;
    if (!outPipe.isOpen() || !errPipe.isOpen())
        return cannotRun("Failed to make a pipe", errno);
    pid_t child = -1;
    if (const int reason =
            SpawnActions(outPipe.writing.get(), errPipe.writing.get()).spawnShell(command, child))
        return cannotRun("Failed to run /bin/sh", reason);
    outPipe.writing = UniqueFd();
    errPipe.writing = UniqueFd();
    drain(outPipe.reading.get(), outText, errPipe.reading.get(), errText);

    int status = 0;
    pid_t ended = -1;
    do
        ended = ::waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    if (ended < 0)
        return cannotRun("Failed to learn the command's exit status", errno);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    const bool wasRun = WEXITSTATUS(status) != 126 && WEXITSTATUS(status) != 127;
    return wasRun ? WEXITSTATUS(status) : -WEXITSTATUS(status);
}
