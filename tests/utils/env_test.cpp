#include "utils/env.h"

#include <gtest/gtest.h>

#include "fixtures/log_capture.h"
#include "utils/logger.h"

using Texts = std::vector<std::string>;

TEST(Env, PrefixedNameWinsAndADifferenceIsWarned) {
    const std::string conflict = "[obx_getenv] Environment variables conflict - OBX_OBXT_SETTING=";
    const struct { const char* prefixed; const char* bare; const char* value; Texts warnings; } rows[] = {
        {"a", "b", "a", {conflict + "a and OBXT_SETTING=b. Using OBX_OBXT_SETTING"}}, {"a", "a", "a", {}},  // equal texts: no conflict
        {"", "b", "", {conflict + " and OBXT_SETTING=b. Using OBX_OBXT_SETTING"}},  // an empty prefixed value still wins
        {nullptr, "b", "b", {}}, {nullptr, nullptr, nullptr, {}},  // last: leaves both unset
    };
    for (const auto& row : rows) {
        row.prefixed ? setenv("OBX_OBXT_SETTING", row.prefixed, 1) : unsetenv("OBX_OBXT_SETTING");
        row.bare ? setenv("OBXT_SETTING", row.bare, 1) : unsetenv("OBXT_SETTING");
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        EXPECT_STREQ(obx_getenv("OBXT_SETTING"), row.value) << &row - rows;
        EXPECT_EQ(capture.at(OBX_LOG_WARNING), row.warnings) << &row - rows;
    }
}
