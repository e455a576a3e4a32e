#pragma once

#include "platform/Export.h"

#include <exception>
#include <string>

/// The one exception that the library throws and catches.
class QZHSM_API NkException : public std::exception {
public:
    /// `funcName` is the function that failed, `message` what failed and why; `file`, a source file's name,
    /// and `line` tell where; `code` is a last-error code.
    NkException(std::string funcName, std::string message, std::string file, int line, int code);
    ~NkException() override;

    // What it was made of. Texts live as long as the exception.

    /// The function that failed.
    const char* getFuncName() const { return m_funcName.c_str(); }
    /// What failed and why.
    const char* getMessage() const { return m_message.c_str(); }
    /// The source file's name.
    const char* getFile() const { return m_file.c_str(); }
    /// The line in that file.
    int getLine() const { return m_line; }
    /// The last-error code, such as QZHSM_FAILURE.
    int getCode() const { return m_code; }
    /// As `getMessage`.
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_funcName;
    std::string m_message;
    std::string m_file;
    int m_line;
    int m_code;
};
