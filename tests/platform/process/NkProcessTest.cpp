#include "platform/process/NkProcess.h"

#include "platform/files/UniqueFd.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

namespace {

int run(const std::string& command, std::string& out, std::string& err) {
    return NkProcess::system(command.c_str(), &out, &err, 0, true);
}

} // namespace

TEST(Process, TellsHowTheCommandEnded) {
    const struct {
        const char* command;
        int result;
        const char* out;
        const char* err; ///< part of it
    } rows[] = {
        {"true", 0, "", ""},
        {"exit 3", 3, "", ""},
        {"echo ' a  b'; echo oops >&2; exit 125", 125, " a  b\n", "oops\n"},
        {"printf '\\0x'", 0, "", ""},
        {"/no/such/command", -127, "", "not found"},
        {"/dev/null", -126, "", "ermission denied"},
        {"echo partly; exit 127", -127, "partly\n", ""},
        {"kill -9 $$", 128 + SIGKILL, "", ""},
        {"sh -c 'kill -TERM $$'", 128 + SIGTERM, "", ""},
        {"cat", 0, "", ""}, // there is no input
    };
    for (const auto& row : rows) {
        std::string out = "old";
        std::string err = "old";
        EXPECT_EQ(run(row.command, out, err), row.result) << row.command;
        EXPECT_STREQ(out.c_str(), row.out) << row.command;
        EXPECT_NE(err.find(row.err), std::string::npos) << row.command << ": " << err;
        EXPECT_EQ(err.find("old"), std::string::npos);
    }
    EXPECT_EQ(NkProcess::system("exit 4", nullptr, nullptr, 0, true), 4);
}

TEST(Process, TakesBothOutputsWhole) {
    std::string out;
    std::string err;
    const std::string both = "head -c 10000000 /dev/zero & head -c 10000001 /dev/zero >&2; wait";
    EXPECT_EQ(run(both, out, err), 0);
    EXPECT_EQ(out.size(), 10'000'000U);
    EXPECT_EQ(err.size(), 10'000'001U);
}

TEST(Process, InheritsNothing) {
    const UniqueFd open(::open("/dev/null", O_RDONLY)); // not closed on exec
    std::string out;
    std::string err;
    EXPECT_EQ(run("ls -l /proc/self/fd | grep -c ' -> '", out, err), 0);
    EXPECT_EQ(out, "4\n") << "the standard three, and that of the directory listed";

    ::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    ::sigfillset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    EXPECT_EQ(run("kill -PIPE $$", out, err), 128 + SIGPIPE) << "neither ignored nor blocked";
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
}

TEST(Process, DoesNotTakeALostStatusForACommandThatWasNotRun) {
    ::signal(SIGCHLD, SIG_IGN);
    std::string out;
    std::string err;
    EXPECT_EQ(run("echo done", out, err), 255);
    EXPECT_EQ(out, "done\n");
    ::signal(SIGCHLD, SIG_DFL);
}

TEST(Process, SaysWhereThereIsNoShell) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::string out;
        std::string err;
        const bool isRoot = ::chroot("/proc") == 0;
        ::_exit(!isRoot                                                                                  ? 77
                : run("true", out, err) < 0 && err == "Failed to run /bin/sh: No such file or directory" ? 0
                                                                                                         : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "changing the root directory needs root";
    EXPECT_EQ(status, 0);
}

TEST(Process, WorksWithStandardDescriptorsClosed) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2})
            ::close(fd);
        std::string out;
        std::string err;
        ::_exit(run("echo out; echo err >&2", out, err) == 0 && out == "out\n" && err == "err\n" ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Process, RunsFromSeveralThreads) {
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([number = std::to_string(&thread - threads)] {
            for (int i = 0; i < 25; ++i) {
                std::string out;
                std::string err;
                EXPECT_EQ(run("echo " + number, out, err), 0);
                EXPECT_EQ(out, number + "\n");
                EXPECT_EQ(err, "");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no zombie is left";
    EXPECT_EQ(errno, ECHILD);
}
