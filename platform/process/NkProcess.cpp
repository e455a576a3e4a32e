#include "platform/process/NkProcess.h"

#include "platform/errors/ErrorText.h"
#include "platform/process/ChildProcess.h"

#include <cerrno>
#include <iterator>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Reads both to their ends, whichever has something: a command that waits for room in one never blocks. 0,
/// or the errno of what was in the way.
int drain(int outFd, std::string& out, int errFd, std::string& err) {
    pollfd ready[] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* const texts[] = {&out, &err};
    while (ready[0].fd >= 0 || ready[1].fd >= 0) {
        if (::poll(ready, std::size(ready), -1) < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        for (size_t i = 0; i < std::size(ready); ++i) {
            if (ready[i].fd < 0 || ready[i].revents == 0)
                continue;
            char piece[65536];
            const ssize_t got = ::read(ready[i].fd, piece, sizeof piece);
            if (got > 0)
                texts[i]->append(piece, static_cast<size_t>(got));
            else if (got == 0)
                ready[i].fd = -1; // which poll skips
            else if (errno != EINTR)
                return errno;
        }
    }
    return 0;
}

} // namespace

int NkProcess::system(const char* command, std::string* out, std::string* err, int, bool) {
    std::string ignored[2];
    std::string& outText = out ? *out : ignored[0];
    std::string& errText = err ? *err : ignored[1];
    outText.clear();
    errText.clear();
    const auto cannotRun = [&](const char* what, int reason) {
        errText += errnoText({what}, reason);
        return -1;
    };

    constexpr int kUnknownStatus = 255;
    ChildProcess child; // outlives the pipes: a command that is given up finds them closed, and ends
    Pipe outPipe;
    Pipe errPipe;
    if (!outPipe.isOpen() || !errPipe.isOpen())
        return cannotRun("Failed to make a pipe", errno);
    if (const int reason = child.start(command, -1, outPipe.writing.get(), errPipe.writing.get()))
        return cannotRun("Failed to run /bin/sh", reason);
    outPipe.writing = UniqueFd();
    errPipe.writing = UniqueFd();
    const int lost = drain(outPipe.reading.get(), outText, errPipe.reading.get(), errText);
    outPipe.reading = UniqueFd();
    errPipe.reading = UniqueFd();

    int status = 0;
    const bool isKnown = child.wait(status);
    if (lost != 0)
        return cannotRun("Failed to read what the command wrote", lost);
    if (!isKnown) // what has written no complaint counts as run; a shell that found no command complains
        return errText.empty() ? kUnknownStatus : -kUnknownStatus;
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    const bool wasRun = WEXITSTATUS(status) != 126 && WEXITSTATUS(status) != 127;
    return wasRun ? WEXITSTATUS(status) : -WEXITSTATUS(status);
}
