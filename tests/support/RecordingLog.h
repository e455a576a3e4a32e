#pragma once

#include "platform/logging/CLogWriterInterface.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

/// Takes the process log's place while it lives, and keeps whatever it is given, so that a line which nobody
/// would read shows too. A line is "LEVEL FUNCTION LINE TEXT".
class RecordingLog {
public:
    explicit RecordingLog(int level = 0) : m_writer(std::make_shared<Writer>()) {
        m_writer->level = level;
        g_ptrLogWriter = m_writer;
    }
    RecordingLog(const RecordingLog&) = delete;
    RecordingLog& operator=(const RecordingLog&) = delete;
    ~RecordingLog() { g_ptrLogWriter = m_before; }

    void setLevel(int level) { m_writer->level = level; }
    /// The lines since the last call, each with a line break.
    std::string take() { return std::exchange(m_writer->lines, ""); }

private:
    struct Writer final : CLogWriterInterface {
        int GetLevel() const override { return level; }
        void Write(int lineLevel, const char* function, int line, int, int, const char* format, ...) override
            QZHSM_PRINTF(7, 8) {
            va_list args;
            va_start(args, format);
            char text[512];
            // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started right above
            std::vsnprintf(text, sizeof text, format, args);
            va_end(args);
            lines +=
                std::to_string(lineLevel) + " " + function + " " + std::to_string(line) + " " + text + "\n";
        }
        int level = 0;
        std::string lines;
    };

    std::shared_ptr<CLogWriterInterface> m_before = g_ptrLogWriter;
    std::shared_ptr<Writer> m_writer;
};
