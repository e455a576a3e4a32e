#pragma once

#include "platform/logging/CLogWriterInterface.h"

/// The log, or null if it does not take lines of this level. Asked first, so that a line that is not written
/// costs no formatting. Errors, level -1, are always taken.
inline CLogWriterInterface* processLog(int level) {
    CLogWriterInterface* writer = g_ptrLogWriter.get();
    return writer && (level < 0 || writer->GetLevel() >= level) ? writer : nullptr;
}
