#pragma once

#include "tests/support/RecordingLog.h"
#include "tests/support/StubData.h"
#include "tests/support/TestFs.h"

#include <unistd.h>

/// A back-end, and a file system of its own. A line that it logs at this level, and that the test does not
/// take, fails the test.
template <class BackEnd, int LogLevel = 0>
class BackEndTest : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_FS(m_fs); }
    void TearDown() override { expectLog(""); }

    static constexpr time_t kModified = 1'700'000'000;

    /// A new file of 9000 bytes without attributes.
    void arrange() {
        ::unlink(m_path.c_str());
        writeFile(m_path, noise(9000));
        setTimes(m_path, 1000, kModified);
    }
    /// In texts "@" stands for the path, the file's unless there is another.
    void expectError(int code, const std::string& text, const std::string& path = "") const {
        EXPECT_EQ(m_backEnd.m_errorCode, code);
        EXPECT_EQ(m_backEnd.m_errorText, about(text, path));
    }
    void expectFailure(long long result, int code, const std::string& text,
                       const std::string& path = "") const {
        EXPECT_EQ(result, -1) << about(text, path);
        expectError(code, text, path);
    }
    /// The lines that were logged since the last call.
    void expectLog(const std::string& lines, const std::string& path = "") {
        EXPECT_EQ(m_log.take(), about(lines, path));
    }
    std::string about(std::string text, const std::string& path = "") const {
        for (size_t at; (at = text.find('@')) != std::string::npos;)
            text.replace(at, 1, path.empty() ? m_path : path);
        return text;
    }

    RecordingLog m_log{LogLevel};
    const TestFs m_fs{FsKind::Tmpfs};
    const std::string m_path = m_fs.path("file");
    const std::string m_missing = m_fs.path("missing");
    BackEnd m_backEnd;
};
