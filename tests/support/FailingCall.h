#pragma once

#include <cstddef>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// A system call by its number, SYS_write say, and its third argument; 0 is any.
struct SystemCall {
    unsigned number = ~0U;
    unsigned length = 0;
};

/// Runs `action`, expectations and all, in a process of its own, to which the kernel answers `err` wherever
/// it makes the call.
template <class Action>
void whileFailing(const SystemCall& call, unsigned err, Action action) {
    const unsigned short compare = call.length == 0 ? BPF_JGE : BPF_JEQ;
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(static_cast<unsigned short>(BPF_JMP | compare | BPF_K), call.length, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | err),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    const pid_t child = ::fork();
    if (child == 0) {
        EXPECT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        EXPECT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
        action();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "what failed is above";
}
