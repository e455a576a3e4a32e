#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "tests/support/BackEndTest.h"

#include <fcntl.h>

using DriverlessTransparentIo = BackEndTest<QZHSMLowLevelDriverless>;

TEST_F(DriverlessTransparentIo, OpensAsItIsTold) {
    expectFailure(m_backEnd.openFileTrans(m_missing.c_str(), O_RDWR, 0640), -1,
                  "Failed to open file @: No such file or directory", m_missing);
    EXPECT_EQ(m_backEnd.closeFileTrans(), 0);
    expectError(0, "");
    ASSERT_EQ(m_backEnd.openFileTrans(m_missing.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0640), 0);
    expectError(0, "");
    EXPECT_EQ(statOf(m_missing).st_mode & 0777, 0640U);
    EXPECT_EQ(m_backEnd.writeFileTrans("abc", 3, 0), 3);
    EXPECT_EQ(m_backEnd.seekFileTrans(0, SEEK_SET), 0);
    EXPECT_EQ(m_backEnd.writeFileTrans("def", 3, 0), 3);
    EXPECT_EQ(m_backEnd.closeFileTrans(), 0);
    EXPECT_EQ(readFile(m_missing), "abcdef");
}
