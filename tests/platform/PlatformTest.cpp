#include "platform/errors/CWbError.h"
#include "platform/files/NkACL.h"
#include "platform/files/utf_files.h"
#include "platform/logging/CLogWriterInterface.h"
#include "platform/logging/EvDebug.h"
#include "tests/support/TestFs.h"

#include <cerrno>
#include <clocale>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(Logs, WriteErrorsAlwaysAndDetailNever) {
    CaptureStderr();
    EvDebug log(nullptr);
    log.Debug("A::b", "%s", "debug");
    log.DebugLvl("A::b", 2, "%s", "debug");
    g_ptrLogWriter->Write(3, "int A::b()", 31, 0, 0, "detail");
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    log.Error("A::b", "two\nlines %d", 5);
    g_ptrLogWriter->Write(-1, "int A::b()", 31, 0, 0, "%s", "failure");
    const std::string lines = GetCapturedStderr();
    EXPECT_NE(lines.find("error [A::b] two lines 5\n"), std::string::npos) << lines;
    EXPECT_NE(lines.find("error [int A::b():31] failure\n"), std::string::npos) << lines;
}

TEST(Errors, AlwaysAreErrors) {
    const FXCodeLocation here{"A::b", "A.cpp", 7};
    const CWbError error = FXErrorUtil::ErrorErrNo(here, ENOENT, "Failed to load %s", "lib");
    EXPECT_TRUE(error.IsError());
    EXPECT_EQ(error.GetCode(), ENOENT);
    EXPECT_EQ(error.AsString(), "Failed to load lib: No such file or directory (A::b, A.cpp:7)");
    EXPECT_EQ(FXErrorUtil::ErrorErrNo(here, 0, "x").GetCode(), EINVAL);
    EXPECT_FALSE(CWbError::Success().IsError());
}

TEST(Paths, AreConvertedWhereTheyCanBe) {
    const auto converted = [](const char* path) {
        std::string out;
        utfToMbe(path, &out);
        return out;
    };
    // In the C locale nothing but ASCII can be converted.
    EXPECT_EQ(converted("/a/\xc3\xbc"), "/a/\xc3\xbc");
    const Latin1Locale locale;
    EXPECT_EQ(converted("/a/\xc3\xbc"), "/a/\xfc");
    EXPECT_EQ(converted("/a/\xe2\x82\xac"), "/a/\xe2\x82\xac")
        << "no euro sign in that encoding: left as it is";
    EXPECT_EQ(converted("/a/\xff"), "/a/\xff") << "no UTF-8: left as it is";
    EXPECT_EQ(converted("/ascii"), "/ascii");
}

TEST(Attributes, AreHandedOutWholeOrBeginning) {
    const TestFs fs(FsKind::Tmpfs);
    REQUIRE_FS(fs);
    const std::string path = fs.path("file");
    writeFile(path, "");
    setAttribute(path, "user.long", "0123456789");
    char buffer[10];
    NkACL::Helper* shared = NkACL::Helper::getInstance();
    EXPECT_EQ(shared->getAttribute(path.c_str(), "user.long", buffer, 4), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(shared->getAttribute(path.c_str(), "user.long", buffer, 10), 10);
    const auto forStubs = NkACL::Helper::getInstance(NkACL::Type::StubText);
    EXPECT_EQ(forStubs->getAttribute(path.c_str(), "user.long", buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 4), "0123");
    EXPECT_EQ(forStubs->getAttribute(path.c_str(), "user.none", buffer, 4), -1);
    EXPECT_FALSE(shared->supportsXattr(fs.path("missing").c_str()));
    EXPECT_TRUE(shared->supportsXattr((path + "/below").c_str()))
        << "so that the next call says what is wrong";
}
