#pragma once

#include <string>
#include <sys/types.h>

/// What a thread that waits in a system call wants of a file.
enum class CallerWants {
    Read,     ///< reads by read(2) or one of its variants
    OpenRead, ///< opens for reading only
    Truncate, ///< opens, and gives up what is in the file
    Other,    ///< anything else, or it cannot be told
    Unclear,  ///< it still runs: to be asked again in a moment
};

/// Asks the kernel. Needs CAP_SYS_PTRACE for the threads of other users.
CallerWants wantsOf(pid_t tid);

/// The process of a thread. Names as programs set them, at most 15 bytes; empty if the thread is gone.
struct CallerProgram {
    pid_t process = 0;
    std::string name{};   ///< of its first thread
    std::string thread{}; ///< of this one
};
CallerProgram programOf(pid_t tid);
/// The thread's control group, "/system.slice/cron.service" for instance; empty if there is none.
std::string controlGroupOf(pid_t tid);
/// The process of a thread, or 0.
pid_t processOf(pid_t tid);
/// Whether the thread has not ended.
bool isAlive(pid_t tid);

/// A thread in a system call that was let go on.
struct PassingCall {
    pid_t tid;
    unsigned long long userTime; ///< that it had spent by then, in ticks of the clock

    static PassingCall of(pid_t tid);
    /// Whether it may still be in that call, truncate(2), or about to run and so to go on with it. False for
    /// a thread that sleeps in any other call.
    bool isUnderWay() const;
};
