#include "platform/errors/CWbError.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(CWbError, IsAnErrorWhateverTheErrno) {
    const CWbError error = FXErrorUtil::ErrorErrNo({"A::b", "A.cpp", 7}, ENOENT, "Failed to load %s", "lib");
    EXPECT_EQ(error.AsString(), "Failed to load lib: No such file or directory (A::b, A.cpp:7)");
    EXPECT_EQ(error.GetCode(), ENOENT);
    EXPECT_TRUE(FXErrorUtil::ErrorErrNo({}, 0, "x").IsError() && !CWbError::Success().IsError());
}
