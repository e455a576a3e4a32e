#pragma once

#include "platform/logging/CLogWriterInterface.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

/// Takes the process log's place while it lives, and keeps whatever it is given, so that a line which nobody
/// would read shows too. A line is "LEVEL FUNCTION LINE TEXT".
class RecordingLog final : public CLogWriterInterface {
public:
    explicit RecordingLog(int level = 0) : m_level(level) {
        g_ptrLogWriter = {std::shared_ptr<void>(), this}; // owned by nobody
    }
    ~RecordingLog() override { g_ptrLogWriter = m_before; }

    void setLevel(int level) { m_level = level; }
    /// The lines since the last call, each with a line break.
    std::string take() { return std::exchange(m_lines, ""); }

private:
    int GetLevel() const override { return m_level; }
    void Write(int level, const char* function, int line, int, int, const char* format, ...) override
        QZHSM_PRINTF(7, 8) {
        va_list args;
        va_start(args, format);
        char text[512];
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started right above
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        m_lines += std::to_string(level) + " " + function + " " + std::to_string(line) + " " + text + "\n";
    }

    const std::shared_ptr<CLogWriterInterface> m_before = g_ptrLogWriter;
    int m_level;
    std::string m_lines;
};
