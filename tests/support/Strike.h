#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// What befalls a program at one of the system calls that it makes from the beginning of its main() on.
struct Strike {
    enum class Kind {
        None,
        Kill,    ///< before a call that changes something: before any other it would find the same files
        Fail,    ///< a call fails with `err`
        Shorten, ///< a call that reads or writes gets half of what it asked for
        Look,    ///< `look` is called before each call that changes something
    } kind = Kind::None;
    int number = 0; ///< of those calls, the first is 1
    int err = 0;
    std::function<void()> look{};
    bool attributes = true; ///< without them the kernel seems to know no attributes of users
};

struct Ended {
    int status = -1; ///< -1 if it was killed
    bool struck = false;
    long long call = -1; ///< the system call that was struck
    std::string said{};
};

/// What changes a file, brings it to the disk, or ends the program.
inline bool isChange(const __ptrace_syscall_info& info) {
    const auto& args = info.entry.args;
    switch (info.entry.nr) {
    case SYS_write:
        return args[0] > STDERR_FILENO;
    case SYS_open:
        return (args[1] & (O_CREAT | O_TRUNC)) != 0;
    case SYS_openat:
        return (args[2] & (O_CREAT | O_TRUNC)) != 0;
    default:
        constexpr std::array changes{
            SYS_pwrite64,  SYS_truncate,   SYS_ftruncate,       SYS_fallocate,    SYS_setxattr,
            SYS_fsetxattr, SYS_utimensat,  SYS_removexattr,     SYS_fremovexattr, SYS_utime,
            SYS_utimes,    SYS_chmod,      SYS_fchmod,          SYS_fchmodat,     SYS_rename,
            SYS_renameat,  SYS_renameat2,  SYS_unlink,          SYS_unlinkat,     SYS_mkdir,
            SYS_mkdirat,   SYS_fsync,      SYS_fdatasync,       SYS_syncfs,       SYS_pwritev,
            SYS_linkat,    SYS_exit_group, SYS_copy_file_range,
        };
        return std::ranges::find(changes, static_cast<long>(info.entry.nr)) != changes.end();
    }
}

inline bool isTransfer(const __ptrace_syscall_info& info) {
    const auto nr = info.entry.nr;
    return info.entry.args[2] > 1 &&
           (nr == SYS_read || nr == SYS_write || nr == SYS_pread64 || nr == SYS_pwrite64);
}

/// Whether it is about an attribute named "user.".
inline bool isUserAttribute(pid_t child, const __ptrace_syscall_info& info) {
    const auto nr = info.entry.nr;
    if (nr < SYS_setxattr || nr > SYS_fremovexattr || (nr >= SYS_listxattr && nr <= SYS_flistxattr))
        return false;
    const long name = ::ptrace(PTRACE_PEEKDATA, child, info.entry.args[1], nullptr);
    return std::string(reinterpret_cast<const char*>(&name), 5) == "user.";
}

/// Whether the call can fail. The end of a program cannot.
inline bool canFail(const __ptrace_syscall_info& info) {
    return info.entry.nr != SYS_exit_group;
}

/// Runs a program and strikes it.
inline Ended runStruck(const std::vector<std::string>& words, const Strike& strike) {
    const int output = ::memfd_create("output", MFD_CLOEXEC);
    const pid_t child = ::fork();
    if (child == 0) {
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (const std::string& word : words)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    Ended ended;
    using Kind = Strike::Kind;
    const auto poke = [&](size_t where, long long value) { ::ptrace(PTRACE_POKEUSER, child, where, value); };
    int status = 0;
    ::waitpid(child, &status, 0); // it stops when it has become the program
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    bool inMain = false;
    int number = 0;
    int result = 0; // of the call that is under way and does not happen: an errno
    bool isBreak = false;
    for (int signal = 0;;) {
        ::ptrace(PTRACE_SYSCALL, child, nullptr, std::exchange(signal, 0));
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) || WIFSIGNALED(status))
            break;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status);
            continue;
        }
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
            if (const int err = std::exchange(result, 0)) // brk(2) answers with an address
                poke(offsetof(user, regs.rax), isBreak ? 0 : -err);
            continue;
        }
        isBreak = info.entry.nr == SYS_brk;
        inMain |= info.entry.nr == SYS_fcntl && info.entry.args[1] == F_GETFD; // the first that it does
        if (!inMain)
            continue;
        if (!strike.attributes && isUserAttribute(child, info))
            result = EOPNOTSUPP;
        const bool counts = strike.kind == Kind::Fail      ? canFail(info)
                            : strike.kind == Kind::Shorten ? isTransfer(info)
                                                           : isChange(info);
        if (counts && strike.kind == Kind::Look)
            strike.look();
        if (counts && ++number == strike.number) {
            ended.struck = true;
            ended.call = static_cast<long long>(info.entry.nr);
            if (strike.kind == Kind::Kill)
                ::kill(child, SIGKILL);
            else if (strike.kind == Kind::Fail)
                result = strike.err;
            else if (strike.kind == Kind::Shorten)
                poke(offsetof(user, regs.rdx), static_cast<long long>(info.entry.args[2] / 2));
        }
        if (result != 0)
            poke(offsetof(user, regs.orig_rax), -1);
    }
    if (WIFEXITED(status))
        ended.status = WEXITSTATUS(status);
    ended.said.resize(static_cast<size_t>(::lseek(output, 0, SEEK_END)));
    ::pread(output, ended.said.data(), ended.said.size(), 0);
    ::close(output);
    return ended;
}
