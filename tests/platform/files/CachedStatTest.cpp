#include "platform/files/CachedStat.h"

#include "tests/platform/ChildProcess.h"
#include "tests/support/TestFs.h"

#include <sys/sysmacros.h>

// Of what is there and cached on a local file system it answers all that lstat does.
TEST(CachedStat, AnswersAsLstatDoes) {
    const TestFs ext4(FsKind::Ext4);
    const TestFs tmpfs(FsKind::Tmpfs);
    for (const TestFs* fs : {&ext4, &tmpfs}) {
        REQUIRE_FS(*fs);
        std::filesystem::create_directories(fs->path("locked/inner"));
        writeFile(fs->path("file"), noise(70000));
        writeFile(fs->path("holes"), "");
        std::filesystem::resize_file(fs->path("holes"), std::uintmax_t{5} << 32);
        ::mknod(fs->path("device").c_str(), S_IFCHR | 0600, 0x1234567);
        std::filesystem::create_symlink("file", fs->path("link"));
        std::filesystem::create_symlink("locked", fs->path("tolocked"));
        std::filesystem::create_symlink("tolocked/../loop", fs->path("loop"));
        std::filesystem::create_symlink("gone", fs->path("dangling"));
        ::chmod(fs->path("locked").c_str(), 0700);
        const bool same = inChild([&] {
            bool all = ::chdir(fs->dir().c_str()) == 0;
            for (const uid_t user : {0U, 65534U}) {
                all &= ::setresuid(user, user, user) == 0;
                for (const char* path :
                     {"",          ".",           "..",           "file",        "file/",   "holes",
                      "device",    "link",        "link/",        "locked",      "locked/", "tolocked",
                      "tolocked/", "tolocked/..", "locked/inner", "locked/none", "loop",    "loop/",
                      "dangling",  "dangling/",   "gone",         "gone/x",      "file/x"}) {
                    struct stat wanted {};
                    struct stat got {};
                    const bool there = ::lstat(path, &wanted) == 0; // now it is cached
                    const bool answered = cachedLstat(path, got);
                    if (answered != there || (there && std::memcmp(&wanted, &got, sizeof got) != 0)) {
                        std::cerr << user << ": " << path << (answered ? ": differs\n" : ": no answer\n");
                        all = false;
                    }
                }
            }
            return all;
        });
        EXPECT_TRUE(same) << fs->dir();
    }
}

// Nobody could tell how long the answer of what is behind such a mount may take.
TEST(CachedStat, LeavesOtherFileSystemsToAHelper) {
    struct stat st {};
    EXPECT_NE(::lstat("/proc/version", &st), -1);
    EXPECT_FALSE(cachedLstat("/proc/version", st));
}
