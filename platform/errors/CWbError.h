#pragma once

#include "platform/Export.h"

#include <memory>
#include <string>
#include <utility>

/// The place in the code that made an error.
struct FXCodeLocation {
    const char* function; ///< its signature
    const char* file;     ///< the source file's name, without ending
    int line;             ///< in that file
};

/// An error result: a code, 0 for success, and for errors the details behind it.
class QZHSM_API CWbError {
public:
    /// No error: code 0.
    static CWbError Success() { return {0, nullptr}; }
    /// An error, unless the code is 0.
    CWbError(int code, const FXCodeLocation& where, std::string text);

    /// Whether the code is any but 0.
    bool IsError() const { return m_code != 0; }
    /// The code, whose meaning is the maker's: an errno in those of `FXErrorUtil`.
    int GetCode() const { return m_code; }
    /// The error's text and the place where it was made; "Success" for a success.
    std::string AsString() const;

private:
    struct Details {
        std::string where;
        std::string text;
    };
    CWbError(int code, std::shared_ptr<const Details> details)
        : m_code(code), m_details(std::move(details)) {}

    int m_code;
    std::shared_ptr<const Details> m_details;
};

/// Makes errors.
class QZHSM_API FXErrorUtil {
public:
    /// An error with code `err` whose text is the formatted text, ": " and the system's text for `err`.
    /// Always an error: an `err` of 0 counts as EINVAL.
    static CWbError ErrorErrNo(const FXCodeLocation& where, int err, const char* format, ...)
        QZHSM_PRINTF(3, 4);
};
