#include "utils/env.h"

#include <gtest/gtest.h>

#include "fixtures/log_capture.h"
#include "utils/logger.h"

using Texts = std::vector<std::string>;

TEST(Env, TwoNameLookupPrefersThePrefixedName) {
    const std::string conflict = "4 [obx_getenv] Environment variables conflict - OBX_OBXT_SETTING=";
    const struct { const char* prefixed; const char* bare; const char* value; Texts lines; } rows[] = {  // lines: level and text
        {"a", "b", "a", {conflict + "a and OBXT_SETTING=b. Using OBX_OBXT_SETTING", "7 [obx_getenv] Using 'OBX_OBXT_SETTING'='a'"}},
        {"a", "a", "a", {"7 [obx_getenv] Using 'OBX_OBXT_SETTING'='a'"}},  // equal texts are no conflict
        {nullptr, "b", "b", {"7 [obx_getenv] Using 'OBXT_SETTING'='b'"}},
        // an empty prefixed value is still a value, and it wins
        {"", "b", "", {conflict + " and OBXT_SETTING=b. Using OBX_OBXT_SETTING", "7 [obx_getenv] Using 'OBX_OBXT_SETTING'=''"}},
        {nullptr, nullptr, nullptr, {"7 [obx_getenv] No value for 'OBX_OBXT_SETTING' or 'OBXT_SETTING'"}},  // last: leaves both unset
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        row.prefixed ? setenv("OBX_OBXT_SETTING", row.prefixed, 1) : unsetenv("OBX_OBXT_SETTING");
        row.bare ? setenv("OBXT_SETTING", row.bare, 1) : unsetenv("OBXT_SETTING");
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        EXPECT_STREQ(obx_getenv("OBXT_SETTING"), row.value);
        Texts lines;
        for (const obx_test::LogLine& line : capture.lines()) lines.push_back(std::to_string(line.level) + " " + line.text);
        EXPECT_EQ(lines, row.lines);
    }
}

TEST(Env, ValueIsTrueByItsFirstCharacter) {
    for (const char* text : {"1", "t", "True", "YES", "y", "10"}) EXPECT_TRUE(obx_env_value_is_true(text)) << text;
    for (const char* text : {"", "0", "no", "false", " y", "2"}) EXPECT_FALSE(obx_env_value_is_true(text)) << text;
    EXPECT_FALSE(obx_env_value_is_true(nullptr));
}
