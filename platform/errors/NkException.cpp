#include "platform/errors/NkException.h"

#include <utility>

NkException::NkException(std::string funcName, std::string message, std::string file, int line, int code)
    : m_funcName(std::move(funcName)), m_message(std::move(message)), m_file(std::move(file)), m_line(line),
      m_code(code) {}

NkException::~NkException() = default;
