#include "platform/process/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>

namespace {
constexpr int kFirstFd = STDERR_FILENO + 1;
} // namespace

Pipe::Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0)
        return;
    const UniqueFd low[2] = {UniqueFd(ends[0]), UniqueFd(ends[1])};
    reading = UniqueFd(::fcntl(ends[0], F_DUPFD_CLOEXEC, kFirstFd));
    writing = UniqueFd(::fcntl(ends[1], F_DUPFD_CLOEXEC, kFirstFd));
}

ChildProcess::~ChildProcess() {
    if (m_pid <= 0)
        return;
    if (m_group == Group::Own)
        kill();
    int status = 0;
    wait(status);
}

int ChildProcess::start(const char* command, int inFd, int outFd, int errFd, Group group) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    if (inFd < 0)
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    else
        ::posix_spawn_file_actions_adddup2(&actions, inFd, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
    ::posix_spawn_file_actions_addclosefrom_np(&actions, kFirstFd);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    const int ownGroup = group == Group::Own ? POSIX_SPAWN_SETPGROUP : 0;
    ::posix_spawnattr_setflags(&attributes,
                               static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | ownGroup));
    sigset_t signals;
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);

    std::string text = command;
    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, text.data(), nullptr};
    const int err = ::posix_spawn(&m_pid, "/bin/sh", &actions, &attributes, arguments, environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    m_group = group;
    if (err != 0)
        m_pid = -1;
    return err;
}

UniqueFd ChildProcess::openEnd() const {
    // By number: some C libraries declare pidfd_open for C alone.
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
}

void ChildProcess::kill() const {
    ::kill(-m_pid, SIGKILL);
}

bool ChildProcess::wait(int& status) {
    const pid_t child = std::exchange(m_pid, -1);
    pid_t ended = -1;
    do
        ended = ::waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    return ended == child;
}
