#include "platform/errors/CWbError.h"

#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"

#include <cerrno>
#include <utility>

CWbError::CWbError(int code, const FXCodeLocation& where, std::string text)
    : CWbError(code,
               std::make_shared<const Details>(Details{
                   FXString::Format("%s, %s:%d", where.function, where.file, where.line), std::move(text)})) {
}

std::string CWbError::AsString() const {
    return m_details ? m_details->text + " (" + m_details->where + ")" : "Success";
}

CWbError FXErrorUtil::ErrorErrNo(const FXCodeLocation& where, int err, const char* format, ...) {
    if (err == 0)
        err = EINVAL;
    va_list args;
    va_start(args, format);
    const std::string what = FXString::FormatV(format, args);
    va_end(args);
    return {err, where, errnoText({what}, err)};
}
