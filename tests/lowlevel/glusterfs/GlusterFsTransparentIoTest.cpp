#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "tests/support/BackEndTest.h"

#include <fcntl.h>

using GlusterFsTransparentIo = BackEndTest<QZHSMLowLevelGlusterFs>;

TEST_F(GlusterFsTransparentIo, IsPlainIo) {
    expectFailure(m_backEnd.writeFileTrans("x", 1, 0), -1, "write(-1) failed error=Bad file descriptor");
    expectFailure(m_backEnd.seekFileTrans(0, SEEK_SET), -1, "seek(-1) failed error=Bad file descriptor");
    expectFailure(m_backEnd.openFileTrans(m_missing.c_str(), O_WRONLY, 0), -1,
                  "open(@) failed, error=No such file or directory", m_missing);
    ASSERT_EQ(m_backEnd.openFileTrans(m_missing.c_str(), O_RDWR | O_CREAT, 0640), 0);
    EXPECT_EQ(statOf(m_missing).st_mode & 0777, 0640U);
    expectFailure(
        m_backEnd.openFileTrans("/other", O_RDONLY, 0), -1,
        "Attempt to open a new file /other in transparent mode w/o closing the previous one first.");
    EXPECT_EQ(m_backEnd.writeFileTrans("abc", 3, 4096), 3) << "the position counts, not the offset";
    EXPECT_EQ(m_backEnd.seekFileTrans(-1, SEEK_END), 2);
    char buffer = 0;
    expectFailure(m_backEnd.readFileTrans(&buffer, 1), 38, "readFileTrans not implemented");
    EXPECT_EQ(m_backEnd.closeFileTrans(), 0);
    expectError(0, "");
    EXPECT_EQ(readFile(m_missing), "abc");
}
