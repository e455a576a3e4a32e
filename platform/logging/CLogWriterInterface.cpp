#include "platform/logging/CLogWriterInterface.h"

#include "platform/logging/LogLine.h"

CLogWriterInterface::~CLogWriterInterface() = default;

namespace {

class StderrLogWriter final : public CLogWriterInterface {
public:
    int GetLevel() const override { return configuredLogLevel(); }

    void Write(int level, const char* function, int line, int, int, const char* format, ...) override
        QZHSM_PRINTF(7, 8) {
        if (level >= 0 && level > GetLevel())
            return;
        va_list args;
        va_start(args, format);
        writeLogLine(level, function, line, format, args);
        va_end(args);
    }
};

StderrLogWriter stderrLogWriter;

} // namespace

// Owned by nobody: to allocate it as the library is loaded could end a process that is short of memory.
std::shared_ptr<CLogWriterInterface> g_ptrLogWriter{std::shared_ptr<void>(), &stderrLogWriter};
