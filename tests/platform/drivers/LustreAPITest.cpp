#include "platform/drivers/LustreAPI.h"

#include <gtest/gtest.h>

TEST(LustreAPI, SaysThatItsLibraryIsMissing) {
    const std::string text = LustreAPI::LoadFunctions().AsString();
    EXPECT_TRUE(text.starts_with("liblustreapi.so.1: cannot open shared object file")) << text;
    EXPECT_TRUE(text.ends_with(" (LustreAPI::LoadFunctions, LustreAPI:100)")) << text;
}
