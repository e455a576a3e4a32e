#pragma once

#include "platform/Export.h"

class EvDebugFileInstance;

/// The debug log: one object for each function call, made from a null pointer. Lines go to standard error;
/// `funcName` is the calling function's name written as class, two colons and method. Formats are printf's.
class EvDebug {
public:
    explicit EvDebug(EvDebugFileInstance*) {}

    /// Written at log level 1 and above.
    void Debug(const char* funcName, const char* format, ...) QZHSM_PRINTF(3, 4);
    /// Written at log level `level` and above.
    void DebugLvl(const char* funcName, int level, const char* format, ...) QZHSM_PRINTF(4, 5);
    /// Always written.
    void Error(const char* funcName, const char* format, ...) QZHSM_PRINTF(3, 4);
};
