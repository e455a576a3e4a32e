#pragma once

#include "platform/Export.h"

#include <exception>
#include <string>

/// The one exception that the library throws and catches.
class QZHSM_API NkException : public std::exception {
public:
    NkException(std::string funcName, std::string message, std::string file, int line, int code);
    ~NkException() override;

    const char* getFuncName() const { return m_funcName.c_str(); }
    const char* getMessage() const { return m_message.c_str(); }
    const char* getFile() const { return m_file.c_str(); }
    int getLine() const { return m_line; }
    int getCode() const { return m_code; }
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_funcName;
    std::string m_message;
    std::string m_file;
    int m_line;
    int m_code;
};
