#include "platform/logging/LogLine.h"

#include "platform/errors/FXString.h"
#include "platform/logging/Printable.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

int configuredLogLevel() {
    static const int level = [] {
        const char* text = std::getenv("QZHSM_LOG_LEVEL"); // NOLINT(concurrency-mt-unsafe)
        return text ? std::atoi(text) : 0;
    }();
    return level;
}

void writeLogLine(int level, const char* tag, int line, const char* format, va_list args) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char time[32];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &local);

    std::string text =
        level < 0 ? FXString::Format("%s error", time) : FXString::Format("%s %d", time, level);
    text += line ? FXString::Format(" [%s:%d] ", tag, line) : FXString::Format(" [%s] ", tag);
    text += FXString::FormatV(format, args);
    std::replace(text.begin(), text.end(), '\n', ' ');
    static const bool isTerminal = ::isatty(STDERR_FILENO) == 1;
    text = printable(text, isTerminal) + '\n';
    // A log that cannot be written must not fail the operation that is being logged.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}
