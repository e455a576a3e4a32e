#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"

#include <functional>
#include <gtest/gtest.h>

TEST(Hadoop, RefusesActionsAndAnswersQueries) {
    QZHSMLowLevelHadoop hadoop;
    std::vector<char> data;
    struct stat st {};
    char buffer[1];
    const std::pair<const char*, std::function<long long()>> refused[] = {
        {"backupStub", [&] { return hadoop.backupStub("p", data); }},
        {"restoreStub", [&] { return hadoop.restoreStub("p", data); }},
        {"openFileTrans", [&] { return hadoop.openFileTrans("p", 0, 0); }},
        {"readFileTrans", [&] { return hadoop.readFileTrans(buffer, 1); }},
        {"writeFileTrans", [&] { return hadoop.writeFileTrans(buffer, 1, 0); }},
        {"seekFileTrans", [&] { return hadoop.seekFileTrans(0, 0); }},
        {"closeFileTrans", [&] { return hadoop.closeFileTrans(); }},
        {"setAMCTime", [&] { return hadoop.setAMCTime("p", 0, 0, 0); }},
        {"statFile", [&] { return hadoop.statFile("p", &st); }},
        {"stubFile", [&] { return hadoop.stubFile("p", "m", 0, 0); }},
    };
    for (const auto& [operation, call] : refused) {
        EXPECT_EQ(call(), -1) << operation;
        EXPECT_EQ(hadoop.m_errorCode, 38) << operation;
        EXPECT_EQ(hadoop.m_errorText, operation + std::string(" not implemented"));
    }
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
