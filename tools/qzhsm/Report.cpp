#include "tools/qzhsm/Report.h"

#include "platform/logging/Printable.h"
#include "service/stores/Encoding.h"

#include <cerrno>
#include <unistd.h>

OutputFailure::OutputFailure(int err)
    : m_failure(systemFailure("Failed to write to standard output", "", err)), m_closedPipe(err == EPIPE) {}

Report::Report(OutputForm form)
    : m_form(form), m_outputIsTerminal(::isatty(STDOUT_FILENO) == 1),
      m_errorIsTerminal(::isatty(STDERR_FILENO) == 1), m_progress(m_errorIsTerminal && !form.quiet) {}

void Report::raw(std::string_view bytes) {
    m_progress.clear();
    if (QZHSMLowLevel::writeAll(STDOUT_FILENO, bytes.data(), static_cast<int>(bytes.size())) < 0)
        throw OutputFailure(errno);
}

void Report::close() {
    if (::close(STDOUT_FILENO) < 0)
        throw OutputFailure(errno);
}

void Report::line(std::string_view text) {
    raw(printable(text, m_outputIsTerminal) + '\n');
}

void Report::row(std::string_view heading, std::string_view text) {
    if (m_form.null)
        return record(text);
    if (!m_headed)
        line(heading);
    m_headed = true;
    line(text);
}

void Report::record(std::string_view text) {
    raw(std::string(text) + '\0');
}

namespace {

void addBytes(Json& json) {
    Json bytes = Json::object();
    for (const auto& [name, value] : json.items())
        if (value.is_structured())
            addBytes(value);
        else if (json.is_object() && value.is_string() && !isUtf8(value.get_ref<const std::string&>()))
            bytes[name + "Bytes"] = percentText(value.get_ref<const std::string&>());
    if (json.is_object())
        json.update(bytes);
}

} // namespace

void Report::json(Json object) {
    addBytes(object);
    // To a terminal only ASCII goes, for JSON lets controls beyond it stand.
    raw(object.dump(-1, ' ', m_outputIsTerminal, Json::error_handler_t::replace) + '\n');
}

void Report::note(std::string_view text) {
    m_progress.clear();
    const std::string whole = "qzhsm: " + printable(text, m_errorIsTerminal) + '\n';
    // If standard error itself cannot be written, there is nobody left to tell.
    QZHSMLowLevel::writeAll(STDERR_FILENO, whole.data(), static_cast<int>(whole.size()));
}

void Report::failure(const Failure& failure) {
    m_failed = true;
    note(std::string(failure.what()) + " (code " + std::to_string(failure.code()) + ")");
    if (!failure.advice().empty())
        note(failure.advice());
}
