#pragma once

#include <csignal>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// The system calls that the calling thread makes in `call` (which answers whether it succeeded), counted by
/// tracing a forked child. -1 if the call failed or the child cannot be traced.
template <class Call>
int countSyscalls(Call call) {
    constexpr auto kMarker = SYS_getppid; // entered right before and right after the call, and nowhere in it
    const pid_t child = ::fork();
    if (child == 0) {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) < 0)
            ::_exit(1);
        static_cast<void>(::raise(SIGSTOP));
        ::syscall(kMarker);
        const bool done = call();
        ::syscall(kMarker);
        ::_exit(done ? 0 : 1);
    }

    constexpr int kSyscallStop = SIGTRAP | 0x80;
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) < 0)
        return -1;
    if (WIFSTOPPED(status))
        ::ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions);
    int count = 0;
    int markers = 0;
    while (WIFSTOPPED(status)) {
        if (WSTOPSIG(status) == kSyscallStop) {
            struct __ptrace_syscall_info info {};
            ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
                if (info.entry.nr == kMarker)
                    ++markers;
                else if (markers == 1)
                    ++count;
            }
        }
        if (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) < 0 || ::waitpid(child, &status, 0) < 0)
            return -1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && markers == 2 ? count : -1;
}
