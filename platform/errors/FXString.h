#pragma once

#include "platform/Export.h"

#include <cstdarg>
#include <string>

class FXString {
public:
    /// printf-style formatting into a string of whatever length it takes.
    static std::string Format(const char* format, ...) QZHSM_PRINTF(1, 2);
    static std::string FormatV(const char* format, va_list args) QZHSM_PRINTF(1, 0);
};
