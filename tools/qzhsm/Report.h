#pragma once

#include "service/Failure.h"
#include "tools/qzhsm/Progress.h"

#include <atomic>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

/// Standard output cannot be written: there is no point in going on. No `Failure`, for it is none of the file
/// that was worked on.
class OutputFailure : public std::exception {
public:
    explicit OutputFailure(int err);

    const char* what() const noexcept override { return m_failure.what(); }
    const Failure& failure() const { return m_failure; }
    /// The reader has had enough, and need not be told.
    bool isClosedPipe() const { return m_closedPipe; }

private:
    Failure m_failure;
    bool m_closedPipe;
};

/// How the tool is to put what it says.
struct OutputForm {
    bool json = false;
    bool null = false;  ///< records end in NUL, and names are left as they are
    bool quiet = false; ///< no progress, no summary
};

/// All that the tool says. Lines go out whole, one write(2) each, so that they can be followed as they come.
class Report {
public:
    explicit Report(OutputForm form = {});

    bool isJson() const { return m_form.json; }
    bool isNull() const { return m_form.null; }
    bool isQuiet() const { return m_form.quiet; }

    /// One line on standard output.
    void line(std::string_view text);
    /// One row of a table; the heading comes before the first. With `isNull` a record, and no heading.
    void row(std::string_view heading, std::string_view text);
    /// Text on standard output as it is, ended by NUL.
    void record(std::string_view text);
    /// One object a line. Beside a text "name" that is not UTF-8 stands "nameBytes", as `percentText` has it.
    void json(Json object);
    /// Bytes on standard output as they are.
    void raw(std::string_view bytes);

    /// Closes standard output: some file systems tell only then that they have no room.
    void close();

    /// "qzhsm: TEXT" on standard error.
    void note(std::string_view text);
    /// "qzhsm: TEXT (code N)" and the advice on standard error. The exit status becomes 1.
    void failure(const Failure& failure);
    /// The exit status becomes 1, for a reason that was told otherwise.
    void fail() { m_failed = true; }
    int status() const { return m_failed ? 1 : 0; }

    /// The line on standard error that tells how the work goes. What else is said takes it away.
    Progress& progress() { return m_progress; }
    /// How many paths were given to work on; 0 if it is not known.
    void setGiven(long long count) { m_given = count; }
    long long given() const { return m_given; }

private:
    OutputForm m_form;
    bool m_outputIsTerminal;
    bool m_errorIsTerminal;
    Progress m_progress;
    long long m_given = 0;
    bool m_headed = false;
    std::atomic<bool> m_failed = false;
};
