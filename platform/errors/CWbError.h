#pragma once

#include "platform/Export.h"

#include <memory>
#include <string>

/// The place in the code that made an error.
struct FXCodeLocation {
    const char* function;
    const char* file;
    int line;
};

/// An error result: a code, 0 for success, and for errors the details behind it.
class QZHSM_API CWbError {
public:
    static CWbError Success() { return {0, nullptr}; }
    CWbError(int code, const FXCodeLocation& where, std::string text);

    bool IsError() const { return m_code != 0; }
    int GetCode() const { return m_code; }
    /// The error's text and the place where it was made; "Success" for a success.
    std::string AsString() const;

private:
    struct Details {
        std::string where;
        std::string text;
    };
    CWbError(int code, std::shared_ptr<const Details> details);

    int m_code;
    std::shared_ptr<const Details> m_details;
};

class QZHSM_API FXErrorUtil {
public:
    /// An error with code `err` whose text is the formatted text, ": " and the system's text for `err`.
    /// Always an error: an `err` of 0 counts as EINVAL.
    static CWbError ErrorErrNo(const FXCodeLocation& where, int err, const char* format, ...)
        QZHSM_PRINTF(3, 4);
};
