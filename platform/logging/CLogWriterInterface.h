/// @file
/// The process's log.

#pragma once

#include "platform/Export.h"

#include <memory>

/// The process's log. A line of level L is written when `GetLevel()` is at least L; level -1 marks errors,
/// which every writer writes.
class QZHSM_API CLogWriterInterface {
public:
    virtual ~CLogWriterInterface();
    /// The highest level that is written. Asked before each line is put together, from any thread.
    virtual int GetLevel() const = 0;
    /// Writes one line, whatever its level; called from any thread. `function` is the caller's full signature
    /// text and `line` its source line. The two integers behind them are always 0. The format is printf's.
    virtual void Write(int level, const char* function, int line, int, int, const char* format, ...)
        QZHSM_PRINTF(7, 8) = 0;
};

/// Starts as a writer to standard error at the level that the environment variable QZHSM_LOG_LEVEL gives
/// (default 0). A process that may lose whoever reads its standard error has to ignore SIGPIPE. The service
/// may replace it before it starts threads, or set it to null to silence it.
extern QZHSM_API std::shared_ptr<CLogWriterInterface> g_ptrLogWriter;
