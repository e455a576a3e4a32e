#include "platform/errors/FXString.h"

#include <cstdio>

std::string FXString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);
    va_end(args);
    return text;
}

std::string FXString::FormatV(const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller started it
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (!text.empty())
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}
