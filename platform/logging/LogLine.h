#pragma once

#include <cstdarg>

/// The level that QZHSM_LOG_LEVEL gives; 0 where it is absent or no number. Read once.
int configuredLogLevel();

/// Writes "TIME LEVEL [TAG] TEXT" to standard error as one line with one write(2), line breaks in the text
/// made blanks. `line` 0 leaves the source line out of the tag.
void writeLogLine(int level, const char* tag, int line, const char* format, va_list args);
