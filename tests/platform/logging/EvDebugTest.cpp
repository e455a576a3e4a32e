#include "platform/logging/EvDebug.h"
#include "platform/logging/CLogWriterInterface.h"

#include <gtest/gtest.h>

TEST(EvDebug, WritesErrorsAlwaysAndDetailNever) {
    ::testing::internal::CaptureStderr();
    EvDebug log(nullptr);
    log.Debug("A::b", "%s", "debug");
    log.DebugLvl("A::b", 2, "%s", "debug");
    g_ptrLogWriter->Write(3, "int A::b()", 31, 0, 0, "detail");
    log.Error("A::b", "two\nlines \x1b[%d", 5);
    g_ptrLogWriter->Write(-1, "int A::b()", 31, 0, 0, "%s", "failure");
    const std::string lines = ::testing::internal::GetCapturedStderr();
    const size_t time = sizeof "2026-01-31 23:59:59" - 1;
    EXPECT_EQ(lines.substr(time, lines.find('\n') - time), " error [A::b] two lines ?[5") << lines;
    EXPECT_EQ(lines.substr(lines.find('\n') + 1 + time), " error [int A::b():31] failure\n") << lines;
}
