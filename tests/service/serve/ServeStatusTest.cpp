#include "service/serve/ServeStatus.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

TEST(ServeStatusTest, FitsIntoAMessageHoweverLongTheQueueIs) {
    ServeStatus status;
    status.stubs = 3000;
    for (int i = 0; i < 3000; ++i)
        status.running.push_back({"/data/" + std::string(200, 'x'), "cat (1)", 1, 0, 1.5});
    const std::string text = status.toJson({"/data"});
    EXPECT_LT(text.size(), 200'000U);
    const auto json = nlohmann::json::parse(text);
    EXPECT_EQ(json["stubs"], 3000);
    EXPECT_GT(json["running"].size(), 100U);
    EXPECT_NE(status.toMetrics().find("qzhsmd_running 3000\n"), std::string::npos);
}

} // namespace
