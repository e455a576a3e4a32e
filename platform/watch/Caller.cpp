#include "platform/watch/Caller.h"

#include "platform/files/UniqueFd.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <sys/syscall.h>

namespace {

std::string readProc(pid_t tid, const char* name) {
    const std::string path = "/proc/" + std::to_string(tid) + '/' + name;
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char text[4096];
    const ssize_t got = file.isOpen() ? ::read(file.get(), text, sizeof text) : -1;
    return got > 0 ? std::string(text, static_cast<size_t>(got)) : std::string();
}

std::string nameOf(pid_t tid) {
    std::string name = readProc(tid, "comm");
    if (name.ends_with('\n'))
        name.pop_back();
    return name;
}

CallerWants wantsByFlags(unsigned long long flags) {
    if ((flags & O_TRUNC) != 0)
        return CallerWants::Truncate;
    return (flags & O_ACCMODE) == O_RDONLY ? CallerWants::OpenRead : CallerWants::Other;
}

/// What stands behind the name in a line of a file of /proc/TID.
std::string_view lineOf(std::string_view text, std::string_view name) {
    const size_t at = text.find(name);
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + name.size());
    return text.substr(0, text.find('\n'));
}

} // namespace

CallerWants wantsOf(pid_t tid) {
    if (tid <= 0)
        return CallerWants::Other;
    constexpr int kPatience = 4; // a thread that was just caught may still be said to run
    for (int i = 0; i < kPatience; ++i) {
        const std::string text = readProc(tid, "syscall");
        long number = -1;
        unsigned long long args[3] = {};
        if (std::sscanf(text.c_str(), "%ld %llx %llx %llx", &number, &args[0], &args[1], &args[2]) == 4) {
            switch (number) {
            case SYS_read:
            case SYS_pread64:
            case SYS_readv:
            case SYS_preadv:
            case SYS_preadv2:
                return CallerWants::Read;
            case SYS_open:
                return wantsByFlags(args[1]);
            case SYS_openat:
                return wantsByFlags(args[2]);
            case SYS_creat:
                return CallerWants::Truncate;
            default:
                return CallerWants::Other;
            }
        }
        if (!text.starts_with("running"))
            return CallerWants::Other;
        ::sched_yield();
    }
    return CallerWants::Unclear;
}

CallerProgram programOf(pid_t tid) {
    if (tid <= 0)
        return {};
    CallerProgram program{processOf(tid), {}, nameOf(tid)};
    program.name = program.process == tid ? program.thread : nameOf(program.process);
    return program;
}

std::string controlGroupOf(pid_t tid) {
    const std::string text = readProc(tid, "cgroup");
    return std::string(lineOf(text, "0::"));
}

pid_t processOf(pid_t tid) {
    const std::string text = readProc(tid, "status");
    int process = 0;
    return std::sscanf(std::string(lineOf(text, "\nTgid:")).c_str(), "%d", &process) == 1 ? process : 0;
}

PassingCall PassingCall::of(pid_t tid) {
    const std::string text = readProc(tid, "stat");
    const size_t at = text.rfind(')'); // behind the name, which may hold anything
    unsigned long long userTime = 0;
    if (at != std::string::npos)
        std::sscanf(text.c_str() + at, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu", &userTime);
    return {tid, userTime};
}

bool PassingCall::isUnderWay() const {
    const std::string text = readProc(tid, "syscall");
    if (text.starts_with("running"))
        return of(tid).userTime == userTime;
    long number = -1;
    return std::sscanf(text.c_str(), "%ld", &number) == 1 && number == SYS_truncate;
}

bool isAlive(pid_t tid) {
    const std::string text = readProc(tid, "stat");
    const size_t at = text.rfind(") "); // behind the name, which may hold anything
    return at != std::string::npos && text.find_first_of("ZX", at) != at + 2;
}
