#include "platform/config/NKPI_Focus.h"
#include "platform/config/NKPlatformInfo.h"
#include "platform/config/NkRegKey.h"
#include "platform/errors/ErrorText.h"
#include "tests/support/TestFs.h"

#include <cerrno>
#include <unistd.h>

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(ConfigFile, ReadsWhatItCanAndNamesWhatItCannot) {
    const std::string longest(191, 'x'); // with its key, the longest line
    const std::string name(49, 's');     // the longest of a section
    const std::string nul(1, '\0');
    const TestConfig config(
        "[Focus]\n  instance = I2\nno equals sign\n[Tessly/I2/JRN]\n\tnINSTALL=1\n longest=" + longest +
        "\n\v last = 2\ntoo long=" + longest + "\n;" + longest + longest + "\n[" + name + "]\nkey=1\nkey=2" +
        nul + "\n [" + name + "s]\nkey=3\n");
    CaptureStderr();
    NkRegKey key(true);
    EXPECT_EQ(key.open("Tessly/I2/JRN", true), 0);
    const std::string log = GetCapturedStderr();
    for (const char* line : {":3: ", ":8: ", ":12: ", ":13: "})
        EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4) << log;
    EXPECT_STREQ(key.getValue("nINSTALL"), "1");
    EXPECT_EQ(key.getValue("longest"), longest);
    EXPECT_STREQ(key.getValue("last"), "2");
    EXPECT_EQ(key.getValue("too long"), nullptr);
    CaptureStderr(); // nothing of this is told again
    EXPECT_EQ(key.open(name, true), 0);
    EXPECT_STREQ(key.getValue("key"), "1") << "not that of the section that cannot be read";
    EXPECT_EQ(key.open("Tessly/I2/Sortwell", true), -1);
    EXPECT_EQ(key.getValue("key"), nullptr);
    char value[3] = "?";
    int size = sizeof value;
    EXPECT_EQ(NKPlatformInfo().getString("Focus", "instance", value, &size), 0);
    EXPECT_EQ(std::string(value), std::string("I2x", static_cast<size_t>(size)));
    EXPECT_LT(NKPlatformInfo().getString("Focus", "instance", value, &size), 0) << "no room for the NUL";
    char host[256];
    ASSERT_EQ(::gethostname(host, sizeof host), 0);
    EXPECT_STREQ(NKPI_Focus::getFocusClientName(true), host);
    EXPECT_STREQ(NKPI_Focus::getFocusClientName(false), "");
    EXPECT_STREQ(NKPI_Focus::getFocus(), "I2");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(ConfigFile, CutsNoSectionBehindAByteOrderMark) {
    const std::string name(49, 's');
    for (const char* mark : {"\xEF\xBB\xBF", " \xEF\xBB\xBF \xEF\xBB\xBF"}) {
        const TestConfig config(mark + ("[" + name + "s]\nkey=3\n[Focus]\nkey=1\n") + mark +
                                "[open\nkey=2\n");
        CaptureStderr();
        NkRegKey key(true);
        EXPECT_EQ(key.open(name, true), -1);
        EXPECT_EQ(key.open("Focus", true), 0);
        EXPECT_STREQ(key.getValue("key"), "1") << "not that of the section that cannot be read";
        GetCapturedStderr();
    }
}

TEST(ConfigFile, AMissingFileIsEmptyAndAnUnreadableOneIsNot) {
    ::unsetenv("QZHSM_CONFIG");
    EXPECT_EQ(ConfigFile::path(), "/etc/qzhsm/qzhsm.conf");
    for (const auto& [path, status] : {std::pair{"/no/such/file", -1},
                                       {"/etc/passwd/x", ENOTDIR},
                                       {"/etc", EISDIR},
                                       {"/proc/self/mem", EIO}}) {
        ::setenv("QZHSM_CONFIG", path, 1);
        CaptureStderr();
        EXPECT_EQ(NkRegKey(true).open("Focus", true), status) << path;
        const std::string log = GetCapturedStderr();
        EXPECT_EQ(log.empty(), status < 0) << log;
        EXPECT_TRUE(status < 0 || log.ends_with(errnoText({"Failed to read ", path}, status) + "\n")) << log;
    }
    EXPECT_STREQ(NKPI_Focus::getFocus(), "Instance001");
    ::unsetenv("QZHSM_CONFIG");
}
