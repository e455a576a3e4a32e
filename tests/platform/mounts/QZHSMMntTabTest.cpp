#include "platform/mounts/QZHSMMntTab.h"
#include "platform/mounts/MountDetails.h"
#include "platform/mounts/skipFS.h"
#include "tests/platform/ChildProcess.h"
#include "tests/support/TestFs.h"

#include <cerrno>
#include <sys/mount.h>

TEST(QZHSMMntTab, FindsTheMountThatHoldsAPath) {
    const TestFs outer(FsKind::Tmpfs);
    REQUIRE_FS(outer);
    const std::string dir = outer.path("with blank");
    ASSERT_EQ(::mkdir(dir.c_str(), 0700) + ::symlink(dir.c_str(), outer.path("link").c_str()), 0);
    ASSERT_EQ(::mount("hidden", dir.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(::mount("none", dir.c_str(), "ramfs", MS_RDONLY, nullptr), 0);
    std::string deep = outer.dir();
    while (deep.size() < 3800)
        ASSERT_EQ(::mkdir((deep += "/" + std::string(200, 'd')).c_str(), 0700), 0);
    ASSERT_EQ(::mount(std::string(4000, 's').c_str(), deep.c_str(), "tmpfs", 0, nullptr), 0);
    const std::string hiding = outer.path("hiding"); // hides the mount below it
    ASSERT_EQ(::mkdir(hiding.c_str(), 0700), 0);
    ASSERT_EQ(::mount("none", hiding.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(::mkdir((hiding + "/hidden").c_str(), 0700), 0);
    ASSERT_EQ(::mount("none", (hiding + "/hidden").c_str(), "proc", 0, nullptr), 0);
    ASSERT_EQ(::mount("none", hiding.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(::mkdir((hiding + "/hidden").c_str(), 0700), 0);
    const QZHSMMntTab table;
    for (const auto& [path, mountDir] : {std::pair{dir + "/missing/too", dir},
                                         {outer.path("link"), dir},
                                         {outer.path("with"), outer.dir()},
                                         {deep, deep},
                                         {hiding + "/hidden", hiding},
                                         {"/proc/self", "/proc"}}) {
        const QZHSMMntTab::Entry* entry = table.find(path.c_str());
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->mountDir, mountDir) << path;
        EXPECT_EQ(entry->fsType, mountDir == dir ? "ramfs" : mountDir == "/proc" ? "proc" : "tmpfs");
        EXPECT_EQ(entry->readOnly, mountDir == dir);
        bool skip = mountDir != "/proc";
        EXPECT_EQ(skipFS::getInstance().GetFsType(path.c_str(), skip, nullptr), entry->fsType);
        EXPECT_EQ(skip, mountDir == "/proc");
    }
    std::map<int, mntfs_ent*> mounts;
    EXPECT_EQ(GetMountDetails(mounts, "ramfs"), 0);
    ASSERT_FALSE(mounts.empty());
    EXPECT_EQ(mounts.rbegin()->second->mountDir, dir);
}

TEST(QZHSMMntTab, HasNoEntryForAPathThatNoMountCovers) {
    const TestFs fs(FsKind::Tmpfs);
    REQUIRE_FS(fs);
    const std::string root = fs.path("root");
    ASSERT_EQ(::mkdir(root.c_str(), 0700) + ::mkdir((root + "/proc").c_str(), 0700), 0);
    ASSERT_EQ(::mount("none", (root + "/proc").c_str(), "proc", 0, nullptr), 0);
    EXPECT_TRUE(inChild([&] {
        bool skip = false;
        return ::chroot(root.c_str()) == 0 && QZHSMMntTab().find("/proc/self") && !QZHSMMntTab().find("/a") &&
               skipFS::getInstance().GetFsType("/a", skip, nullptr) == "unknown";
    }));
    EXPECT_TRUE(inChild([&] { // in a working directory that is deleted; then from a table that cannot be read
        std::map<int, mntfs_ent*> mounts;
        return ::chdir(root.c_str()) == 0 && ::mkdir("gone", 0700) == 0 && ::chdir("gone") == 0 &&
               ::rmdir("../gone") == 0 && !QZHSMMntTab().find("a") && refuse(SYS_read, EIO) &&
               GetMountDetails(mounts, "allFsType") == EIO && mounts.empty() && refuse(SYS_openat, EMFILE) &&
               GetMountDetails(mounts, "allFsType") == EMFILE;
    }));
}
