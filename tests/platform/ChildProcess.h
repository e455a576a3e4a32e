#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs `check` in a child process, for what cannot be undone: whether it answered true.
template <class Check>
bool inChild(Check check) {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(check() ? 0 : 1);
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

/// Makes one system call fail with `err` in this process from now on.
inline bool refuse(unsigned call, unsigned err) {
    sock_filter rules[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0), // the call's number
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | err),
                           BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{4, rules};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
