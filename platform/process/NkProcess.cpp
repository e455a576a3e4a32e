#include "platform/process/NkProcess.h"

#include "platform/errors/ErrorText.h"
#include "platform/files/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

struct Pipe {
    /// 0, or an errno.
    int open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) < 0)
            return errno;
        reading = UniqueFd(ends[0]);
        writing = UniqueFd(ends[1]);
        return 0;
    }

    UniqueFd reading;
    UniqueFd writing;
};

/// A running command; its owner waits for it.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        int status = 0;
        if (m_pid > 0)
            wait(status);
    }

    /// 0, or an errno.
    int start(const char* command, int outFd, int errFd) {
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        // These allocate. A command whose output went elsewhere would look like one that wrote nothing. If
        // this process has closed its standard descriptors, a pipe's end can be one of them: `outFd` is at
        // least 1 and `errFd` at least 3, so neither is replaced before it is in its place.
        int err =
            std::max({::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
                      ::posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO),
                      ::posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO),
                      ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1)});
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        sigset_t signals;
        ::sigfillset(&signals);
        ::posix_spawnattr_setsigdefault(&attributes, &signals);
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&attributes, &signals);

        std::string text = command;
        char shell[] = "sh";
        char option[] = "-c";
        char* const arguments[] = {shell, option, text.data(), nullptr};
        if (err == 0)
            err = ::posix_spawn(&m_pid, "/bin/sh", &actions, &attributes, arguments, environ);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (err != 0)
            m_pid = -1;
        return err;
    }

    /// False if somebody else has learned the status.
    bool wait(int& status) {
        const pid_t child = std::exchange(m_pid, -1);
        pid_t ended = -1;
        do
            ended = ::waitpid(child, &status, 0);
        while (ended < 0 && errno == EINTR);
        return ended == child;
    }

private:
    pid_t m_pid = -1;
};

/// Reads both to their ends, whichever has something: a command that waits for room in one never blocks.
void drain(int outFd, std::string& out, int errFd, std::string& err) {
    pollfd ready[] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* const texts[] = {&out, &err};
    while (ready[0].fd >= 0 || ready[1].fd >= 0) {
        if (::poll(ready, std::size(ready), -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
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

    constexpr int kUnknownStatus = 255;
    Child child; // outlives the pipes: a command that is given up finds them closed, and ends
    Pipe outPipe;
    Pipe errPipe;
    for (Pipe* pipe : {&outPipe, &errPipe})
        if (const int reason = pipe->open())
            return cannotRun("Failed to make a pipe", reason);
    if (const int reason = child.start(command, outPipe.writing.get(), errPipe.writing.get()))
        return cannotRun("Failed to run /bin/sh", reason);
    outPipe.writing = UniqueFd();
    errPipe.writing = UniqueFd();
    drain(outPipe.reading.get(), outText, errPipe.reading.get(), errText);
    outPipe.reading = UniqueFd();
    errPipe.reading = UniqueFd();

    int status = 0;
    if (!child.wait(status))
        return kUnknownStatus;
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    const bool wasRun = WEXITSTATUS(status) != 126 && WEXITSTATUS(status) != 127;
    return wasRun ? WEXITSTATUS(status) : -WEXITSTATUS(status);
}
