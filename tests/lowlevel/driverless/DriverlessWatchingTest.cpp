#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "tests/support/BackEndTest.h"

#include <climits>
#include <map>

using DriverlessWatching = BackEndTest<QZHSMLowLevelDriverless>;

TEST_F(DriverlessWatching, KnowsWhereStubsCanBeKept) {
    const TestFs ramfs(FsKind::Ramfs);
    EXPECT_EQ(m_backEnd.isDMRFS(m_fs.dir().c_str()), 1);
    EXPECT_EQ(m_backEnd.isDMRFS(ramfs.dir().c_str()), 0);
    expectError(
        0, "Extended Attribute is not supported in [ ramfs ] or extended attributed is disabled in mount "
           "option. ");
    for (const auto& [value, answer] : {std::pair{"yes", 1}, {"Yes", 0}}) {
        const TestConfig config(std::string("[FileSystemAgent]\nsArchiveNonExtData = ") + value + "\n");
        EXPECT_EQ(QZHSMLowLevelDriverless().isDMRFS(ramfs.dir().c_str()), answer) << value;
    }
    QZHSMLowLevelDriverless archiveDelete;
    archiveDelete.setArchiveAndDelete();
    EXPECT_EQ(archiveDelete.isDMRFS("/no/such/path"), 1);
}

TEST_F(DriverlessWatching, NotesDevicesWithoutAttributes) {
    const TestFs first(FsKind::Ramfs);
    const TestFs second(FsKind::Ramfs);
    std::string found;
    m_backEnd.getNonXATTRmountPoints(found);
    EXPECT_EQ(found, "");
    const TestFs late(FsKind::Ramfs); // too late for the mount table, which is read once
    for (const TestFs* fs : {&second, &first, &late})
        EXPECT_FALSE(m_backEnd.isDMRFSforInPlaceRestore(fs->dir().c_str()));
    EXPECT_FALSE(m_backEnd.isDMRFSforInPlaceRestore(m_path.c_str())) << "is not there, and not noted";
    arrange();
    EXPECT_TRUE(m_backEnd.isDMRFSforInPlaceRestore(m_path.c_str())) << "nor remembered";
    m_backEnd.getNonXATTRmountPoints(found);
    std::map<dev_t, std::string> byDevice;
    for (const TestFs* fs : {&second, &first, &late})
        byDevice[statOf(fs->dir()).st_dev] = fs == &late ? "" : fs->dir();
    std::string expected;
    for (const auto& [device, dir] : byDevice)
        expected += dir + " ";
    EXPECT_EQ(found, expected);

    // One memory for all objects: the answer of one is the other's.
    QZHSMLowLevelDriverless archiveDelete;
    archiveDelete.setArchiveAndDelete();
    EXPECT_TRUE(archiveDelete.isDMRFSforInPlaceRestore(first.dir().c_str()));
    EXPECT_TRUE(m_backEnd.isDMRFSforInPlaceRestore(first.dir().c_str()));
}

TEST_F(DriverlessWatching, MigratedTreesCountAsWatched) {
    const std::string list = m_fs.path("trees");
    writeFile(list, "/data/a/\n\n/data/b\n");
    char host[HOST_NAME_MAX + 1]; // the client's name if the configuration has none
    ASSERT_EQ(::gethostname(host, sizeof host), 0);
    const TestConfig config("[MigratedDirTrees]\n" + std::string(host) + " = " + list + "\n");
    for (const auto& [dir, watched] :
         {std::pair{"/data/a", 1}, {"/data/a/x/y", 1}, {"/data/ab", 0}, {"/data", 0}})
        EXPECT_EQ(m_backEnd.isDirBeingWatched(dir), watched) << dir;
}
