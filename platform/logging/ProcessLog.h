#pragma once

#include "platform/logging/CLogWriterInterface.h"

/// The log that takes a line of this level, or null where nobody would read it; asked first, so that a line
/// that is not written costs no formatting. Errors, level -1, are taken whatever the level.
inline CLogWriterInterface* processLog(int level) {
    CLogWriterInterface* writer = g_ptrLogWriter.get();
    return writer && (level < 0 || writer->GetLevel() >= level) ? writer : nullptr;
}
