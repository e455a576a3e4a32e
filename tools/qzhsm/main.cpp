#include "tools/qzhsm/CommandLine.h"

#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace {

constexpr int kWrongUsage = 2;

/// A standard descriptor that is closed would be the next file's, and that file would get our messages. What
/// takes its place fails every use.
void occupyStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(fd, F_GETFD) < 0)
            ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

int runTool(int argc, char** argv) {
    CommandLine commandLine;
    try {
        commandLine.parse(argc, argv);
    } catch (const CLI::Success& call) {
        Report().raw(commandLine.answer(call));
        return 0;
    } catch (const CLI::ParseError& error) {
        Report().note(error.what());
        Report().note("see qzhsm --help, or qzhsm VERB --help");
        return kWrongUsage;
    }
    Report report(commandLine.isJson());
    try {
        commandLine.run(report);
        report.close();
    } catch (const Failure& failure) {
        report.failure(failure);
    }
    return report.status();
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    std::ios::sync_with_stdio(false); // with it a read that fails would pass for the end
    std::signal(SIGPIPE, SIG_IGN);    // a closed pipe is reported like any other failure to write
    try {
        return runTool(argc, argv);
    } catch (const Failure& failure) {
        Report().failure(failure);
    } catch (const std::exception& error) {
        Report().note(error.what());
    }
    return 1;
}
