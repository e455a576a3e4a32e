#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

/// What went wrong with one path: a text for people, a code of the back-ends' vocabulary for programs.
class Failure : public std::runtime_error {
public:
    Failure(int code, const std::string& text, std::string advice = {})
        : std::runtime_error(text), m_code(code), m_advice(std::move(advice)) {}
    /// The back-end's last error.
    explicit Failure(const QZHSMLowLevel& backEnd) : Failure(backEnd.m_errorCode, backEnd.m_errorText) {}

    int code() const { return m_code; }
    /// A further line that tells what to do about it, or nothing.
    const std::string& advice() const { return m_advice; }

private:
    int m_code;
    std::string m_advice;
};

/// Standard output cannot be written: there is no point in going on.
class OutputFailure : public Failure {
public:
    explicit OutputFailure(const Failure& failure) : Failure(failure) {}
};

/// The failure "`phrase``path`: " and the system's text for `err`.
Failure systemFailure(std::string_view phrase, std::string_view path, int err);

/// Passes on the result of an action; a negative one throws the back-end's last error.
int checked(const QZHSMLowLevel& backEnd, int result);
/// Passes on the answer to a yes/no question. It throws where the code tells that the question failed.
bool answered(const QZHSMLowLevel& backEnd, int result);

/// All that the tool says. Lines go out whole, one write(2) each, so that they can be followed as they come.
class Report {
public:
    explicit Report(bool json = false) : m_json(json) {}

    bool isJson() const { return m_json; }
    /// One line on standard output.
    void line(std::string_view text);
    /// One row of a table; the heading comes before the first.
    void row(std::string_view heading, std::string_view text);
    void json(const Json& object);
    /// Bytes on standard output as they are.
    void raw(std::string_view bytes);

    /// Closes standard output: some file systems tell only then that they have no room.
    void close();

    /// "qzhsm: TEXT" on standard error.
    void note(std::string_view text);
    /// "qzhsm: TEXT (code N)" and the advice on standard error. The exit status becomes 1.
    void failure(const Failure& failure);

    int status() const { return m_failed ? 1 : 0; }

private:
    bool m_json;
    bool m_headed = false;
    bool m_failed = false;
};
