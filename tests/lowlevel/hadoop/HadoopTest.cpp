#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

#include <gtest/gtest.h>

namespace {

void expectRefused(const QZHSMLowLevel& backEnd, const char* operation, long long result) {
    EXPECT_EQ(result, -1) << operation;
    EXPECT_EQ(backEnd.m_errorCode, 38) << operation;
    EXPECT_EQ(backEnd.m_errorText, operation + std::string(" not implemented"));
}

/// What Lustre refuses as well.
void expectNoTransparentIo(QZHSMLowLevel& backEnd) {
    char buffer[1];
    expectRefused(backEnd, "openFileTrans", backEnd.openFileTrans("p", 0, 0));
    expectRefused(backEnd, "readFileTrans", backEnd.readFileTrans(buffer, 1));
    expectRefused(backEnd, "writeFileTrans", backEnd.writeFileTrans(buffer, 1, 0));
    expectRefused(backEnd, "seekFileTrans", backEnd.seekFileTrans(0, 0));
    expectRefused(backEnd, "closeFileTrans", backEnd.closeFileTrans());
    expectRefused(backEnd, "setAMCTime", backEnd.setAMCTime("p", 0, 0, 0));
}

} // namespace

TEST(Lustre, RefusesTransparentIo) {
    QZHSMLowLevelLustre lustre;
    expectNoTransparentIo(lustre);
}

TEST(Hadoop, RefusesActionsAndAnswersQueries) {
    QZHSMLowLevelHadoop hadoop;
    std::vector<char> data;
    struct stat st {};
    expectNoTransparentIo(hadoop);
    expectRefused(hadoop, "backupStub", hadoop.backupStub("p", data));
    expectRefused(hadoop, "restoreStub", hadoop.restoreStub("p", data));
    expectRefused(hadoop, "statFile", hadoop.statFile("p", &st));
    expectRefused(hadoop, "stubFile", hadoop.stubFile("p", "m", 0, 0));
    bool isStub = true;
    int state = 0;
    EXPECT_EQ(hadoop.isStub("/no/such/file"), 0);
    EXPECT_EQ(hadoop.isDMRFS("/no/such/file"), 1);
    EXPECT_EQ(hadoop.getFileInfo("p", &isStub, &state), 0);
    EXPECT_FALSE(isStub);
    EXPECT_EQ(state, 2);
    EXPECT_EQ(hadoop.restoreDone("p", true, {}), 1);
    EXPECT_EQ(hadoop.restoreDone("p", false, {}), 0);
    EXPECT_EQ(hadoop.resubmitPendingRecalls(), 0);
    EXPECT_EQ(hadoop.m_errorCode, 38) << "none of the queries touches the error";
    EXPECT_EQ(hadoop.m_errorText, "stubFile not implemented");
    EXPECT_EQ(hadoop.isDirBeingWatched("p"), 0);
    EXPECT_EQ(hadoop.m_errorCode, 0);
    EXPECT_EQ(hadoop.m_errorText, "");
}
