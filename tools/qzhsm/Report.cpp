#include "tools/qzhsm/Report.h"

#include <cerrno>
#include <unistd.h>

namespace {

/// File names may hold anything; a terminal must not obey them.
std::string printable(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            c = '?';
    return out;
}

} // namespace

void Report::raw(std::string_view bytes) {
    if (QZHSMLowLevel::writeAll(STDOUT_FILENO, bytes.data(), static_cast<int>(bytes.size())) < 0)
        throw OutputFailure(systemFailure("Failed to write to standard output", "", errno));
}

void Report::close() {
    if (::close(STDOUT_FILENO) < 0)
        throw OutputFailure(systemFailure("Failed to write to standard output", "", errno));
}

void Report::line(std::string_view text) {
    raw(printable(text) + '\n');
}

void Report::row(std::string_view heading, std::string_view text) {
    if (!m_headed)
        line(heading);
    m_headed = true;
    line(text);
}

void Report::json(const Json& object) {
    raw(object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n');
}

void Report::note(std::string_view text) {
    const std::string whole = "qzhsm: " + printable(text) + '\n';
    // If standard error itself cannot be written, there is nobody left to tell.
    QZHSMLowLevel::writeAll(STDERR_FILENO, whole.data(), static_cast<int>(whole.size()));
}

void Report::failure(const Failure& failure) {
    m_failed = true;
    note(std::string(failure.what()) + " (code " + std::to_string(failure.code()) + ")");
    if (!failure.advice().empty())
        note(failure.advice());
}
