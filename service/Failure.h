#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <stdexcept>
#include <string>
#include <string_view>

/// What went wrong with one file: a text for people, a code of the back-ends' vocabulary for programs.
class Failure : public std::runtime_error {
public:
    Failure(int code, const std::string& text, std::string advice = {});
    /// The back-end's last error.
    explicit Failure(const QZHSMLowLevel& backEnd);
    ~Failure() override;

    int code() const { return m_code; }
    /// A further line that tells what to do about it, or nothing.
    const std::string& advice() const { return m_advice; }

private:
    int m_code;
    std::string m_advice;
};

/// The failure "`phrase``path`: " and the system's text for `err`. Its code is 4 for a missing file, else -1.
Failure systemFailure(std::string_view phrase, std::string_view path, int err);

/// Passes on the result of an action; a negative one throws the back-end's last error.
int checked(const QZHSMLowLevel& backEnd, int result);
/// Passes on the answer to a yes/no question. Throws if the error code says that the question failed.
bool answered(const QZHSMLowLevel& backEnd, int result);
