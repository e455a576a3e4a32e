#pragma once

#include "service/Failure.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

/// Standard output cannot be written: there is no point in going on.
class OutputFailure : public Failure {
public:
    explicit OutputFailure(const Failure& failure) : Failure(failure) {}
};

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
