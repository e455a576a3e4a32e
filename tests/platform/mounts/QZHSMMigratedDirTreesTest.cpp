#include "platform/mounts/QZHSMMigratedDirTrees.h"
#include "tests/support/TestFs.h"

TEST(QZHSMMigratedDirTrees, HoldWhatLiesBelow) {
    const std::string list = ::testing::TempDir() + "qzhsm-trees";
    const TestConfig config("[MigratedDirTrees]\nc1 = " + list + "\nc2 = /etc\n");
    for (const auto& [dirs, wholeTrees, path, tree] :
         {std::tuple{"/data/a//\n\n/b", true, "/data/a/x", "/data/a"},
          {"/data/a//\n\n/b", true, "/data/ab", ""},
          {"/data/a//\r\n\r\n/b", false, "/data/a", "/data/a"}, // from a machine with other ends of lines
          {"/data/a//\n\n/b", false, "/b/", "/b"},
          {"/data/a//\n\n/b", false, "/b/x", ""},
          {"/", true, "/data", "/"},
          {"/", true, "/", "/"}}) {
        writeFile(list, dirs);
        std::string found;
        EXPECT_EQ(QZHSMMigratedDirTrees(wholeTrees, "c1").wasDirMigrated(path, &found), *tree != '\0')
            << path;
        EXPECT_EQ(found, tree);
    }
    ::unlink(list.c_str());
    ::testing::internal::CaptureStderr();
    const QZHSMMigratedDirTrees unreadable(true, "c2");
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with("Failed to read /etc: Is a directory\n"));
}
