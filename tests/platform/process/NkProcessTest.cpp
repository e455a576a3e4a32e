#include "platform/process/NkProcess.h"
#include "platform/files/UniqueFd.h"
#include "tests/platform/ChildProcess.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

std::string out;
std::string err;

int run(const std::string& command) {
    out = err = "old";
    return NkProcess::system(command.c_str(), &out, &err, 0, true);
}

} // namespace

TEST(NkProcess, TellsWhatTheCommandWroteAndHowItEnded) {
    const pid_t other = ::fork();
    if (other == 0)
        ::_exit(9);                                     // the status of another child is not the command's
    const UniqueFd open(::open("/dev/null", O_RDONLY)); // and may not be inherited
    const std::string many = std::string().append(9'999'999, 'x');
    const std::string writeMany = "head -c 9999999 /dev/zero | tr '\\0' x";
    for (const auto& [command, result, output, errors] :
         {std::tuple<std::string, int, std::string, std::string>{"cat", 0, "", ""}, // there is no input
          {"echo ' a  b'; echo oops >&2; exit 125", 125, " a  b\n", "oops\n"},
          {std::string(writeMany).append("& ").append(writeMany).append(" >&2; wait"), 0, many, many},
          {"ls /proc/self/fd", 0, "0\n1\n2\n3\n", ""}, // 3 is the directory's
          {"/no/such/command", -127, "", "sh: 1: /no/such/command: not found\n"},
          {"/dev/null", -126, "", "sh: 1: /dev/null: Permission denied\n"},
          {"kill -9 $$", 128 + SIGKILL, "", ""}}) {
        EXPECT_EQ(run(command), result) << command;
        EXPECT_TRUE(out == output && err == errors)
            << command << ": " << out.substr(0, 99) << err.substr(0, 99);
    }
    EXPECT_EQ(NkProcess::system("exit 4", nullptr, nullptr, 0, true), 4);
    EXPECT_EQ(::waitpid(-1, nullptr, 0), other);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no zombie is left";
}

TEST(NkProcess, GoesOnAfterSignals) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    // One while one output is awaited, the other being closed, and one while the end is.
    const std::string signal = "until grep -q '^State:.S' /proc/$PPID/status; do :; done; kill -USR1 $PPID; ";
    for (const auto& [closed, open] : {std::pair{"1", "2"}, {"2", "1"}}) {
        std::string command = "exec ";
        command.append(closed).append(">&-; ").append(signal).append("echo late >&").append(open);
        command.append("; exec ").append(open).append(">&-; ").append(signal).append("exit 5");
        EXPECT_EQ(run(command), 5);
        EXPECT_EQ(out + err, "late\n");
    }
}

TEST(NkProcess, CopesWithTheStateOfItsProcess) {
    EXPECT_TRUE(inChild([] { // signals ignored and blocked
        ::signal(SIGPIPE, SIG_IGN);
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        return run("kill -PIPE $$") == 128 + SIGPIPE;
    }));
    EXPECT_TRUE(
        inChild([] { // no standard descriptors; a status that is lost: the command was run all the same
            ::close_range(0, 2, 0);
            ::signal(SIGCHLD, SIG_IGN);
            return run("echo out") == 255 && out == "out\n" && run("/no/such/command") == -255 &&
                   run("echo out; echo err >&2") == -255 && out == "out\n" && err == "err\n";
        }));
    EXPECT_TRUE(inChild([] { // an output that cannot be read is none to rely on
        return refuse(SYS_poll, ENOMEM) && run("echo out") < 0 &&
               err == "Failed to read what the command wrote: Cannot allocate memory";
    }));
    if (::geteuid() != 0)
        GTEST_SKIP() << "changing the root directory needs root";
    EXPECT_TRUE(inChild([] { // no shell, and no descriptors
        return ::chroot("/proc") == 0 && run("") < 0 &&
               err == "Failed to run /bin/sh: No such file or directory" && refuse(SYS_pipe2, EMFILE) &&
               run("") < 0 && err == "Failed to make a pipe: Too many open files";
    }));
}
