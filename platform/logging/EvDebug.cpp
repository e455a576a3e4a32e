#include "platform/logging/EvDebug.h"

#include "platform/logging/LogLine.h"

void EvDebug::Debug(const char* funcName, const char* format, ...) {
    if (configuredLogLevel() < 1)
        return;
    va_list args;
    va_start(args, format);
    writeLogLine(1, funcName, 0, format, args);
    va_end(args);
}

void EvDebug::DebugLvl(const char* funcName, int level, const char* format, ...) {
    if (configuredLogLevel() < level)
        return;
    va_list args;
    va_start(args, format);
    writeLogLine(level, funcName, 0, format, args);
    va_end(args);
}

void EvDebug::Error(const char* funcName, const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeLogLine(-1, funcName, 0, format, args);
    va_end(args);
}
