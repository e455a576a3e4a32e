#include "service/ConfigCheck.h"
#include "tools/qzhsm/CommandLine.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <string_view>
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

/// To be told without memory.
void tellLackOfMemory() {
    constexpr std::string_view kText = "qzhsm: Cannot allocate memory\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kText.data(), kText.size());
}

/// Comes if an exception cannot be made, for want of memory, or where none may pass.
[[noreturn]] void endUnexpectedly() {
    const std::exception_ptr current = std::current_exception();
    try {
        if (current)
            std::rethrow_exception(current);
    } catch (const std::bad_alloc&) { // like no exception at all
    } catch (...) {
        std::abort();
    }
    tellLackOfMemory();
    ::_exit(1);
}

/// Before the parser's own objects are made.
[[gnu::constructor(101)]] void expectLackOfMemory() {
    std::set_terminate(endUnexpectedly);
}

int tellWrongUsage(const CLI::ParseError& error) {
    Report report;
    report.note(error.what());
    report.note("see qzhsm --help, or qzhsm VERB --help");
    return kWrongUsage;
}

int runTool(int argc, char** argv) {
    CommandLine commandLine;
    try {
        commandLine.parse(argc, argv);
    } catch (const CLI::Success& call) {
        Report().raw(commandLine.answer(call));
        return 0;
    } catch (const CLI::ParseError& error) {
        return tellWrongUsage(error);
    }
    Report report(commandLine.form());
    for (const std::string& warning : configWarnings())
        report.note("warning: " + warning);
    try {
        commandLine.run(report);
        report.close();
    } catch (const CLI::ParseError& error) { // a verb's own rule
        return tellWrongUsage(error);
    } catch (const Failure& failure) {
        report.failure(failure);
    }
    return report.status();
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    std::ios::sync_with_stdio(false); // with it a read that fails would pass for the end
    std::signal(SIGPIPE, SIG_IGN);    // what is being done to a file comes to its end
    try {
        return runTool(argc, argv);
    } catch (const OutputFailure& failure) {
        if (!failure.isClosedPipe())
            Report().failure(failure.failure());
    } catch (const std::bad_alloc&) {
        tellLackOfMemory();
    } catch (const Failure& failure) {
        Report().failure(failure);
    } catch (const std::exception& error) {
        Report().note(error.what());
    }
    return 1;
}
