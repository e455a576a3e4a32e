#pragma once

#include <cstdarg>

/// The level that QZHSM_LOG_LEVEL gives; 0 if it is absent or no number. Read once.
int configuredLogLevel();

/// Writes "TIME LEVEL [TAG] TEXT" to standard error as one line with one write(2). Line breaks in the text
/// become blanks, other control characters "?". If `line` is 0, the tag has no source line.
void writeLogLine(int level, const char* tag, int line, const char* format, va_list args);
