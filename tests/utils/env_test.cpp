#include "utils/env.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "fixtures/log_capture.h"
#include "utils/logger.h"

using obx_test::LogCapture;

namespace {

void set_or_unset(const char* name, const char* value) {
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

}  // namespace

TEST(Env, TwoNameLookup) {
    struct Row {
        const char* prefixed;
        const char* bare;
        const char* value;
        std::vector<std::pair<uint32_t, std::string>> lines;
    };
    const std::string conflict = "[obx_getenv] Environment variables conflict - OBX_OBXT_SETTING=";
    const Row rows[] = {
        {"a", "b", "a",
         {{4, conflict + "a and OBXT_SETTING=b. Using OBX_OBXT_SETTING"}, {7, "[obx_getenv] Using 'OBX_OBXT_SETTING'='a'"}}},
        {"a", "a", "a", {{7, "[obx_getenv] Using 'OBX_OBXT_SETTING'='a'"}}},  // equal texts are no conflict
        {nullptr, "b", "b", {{7, "[obx_getenv] Using 'OBXT_SETTING'='b'"}}},
        {"a", nullptr, "a", {{7, "[obx_getenv] Using 'OBX_OBXT_SETTING'='a'"}}},
        // an empty prefixed value is still a value, and it wins
        {"", "b", "", {{4, conflict + " and OBXT_SETTING=b. Using OBX_OBXT_SETTING"}, {7, "[obx_getenv] Using 'OBX_OBXT_SETTING'=''"}}},
        {nullptr, nullptr, nullptr, {{7, "[obx_getenv] No value for 'OBX_OBXT_SETTING' or 'OBXT_SETTING'"}}},
    };
    for (const Row& row : rows) {
        set_or_unset("OBX_OBXT_SETTING", row.prefixed);
        set_or_unset("OBXT_SETTING", row.bare);
        LogCapture capture(OBX_LOG_DEBUG);
        const char* value = obx_getenv("OBXT_SETTING");
        std::vector<std::pair<uint32_t, std::string>> lines;
        for (const obx_test::LogLine& line : capture.lines()) lines.emplace_back(line.level, line.text);
        const std::string what = std::string(row.prefixed ? row.prefixed : "<unset>") + "/" + (row.bare ? row.bare : "<unset>");
        if (row.value)
            EXPECT_STREQ(value, row.value) << what;
        else
            EXPECT_EQ(value, nullptr) << what;
        EXPECT_EQ(lines, row.lines) << what;
    }
    unsetenv("OBX_OBXT_SETTING");
    unsetenv("OBXT_SETTING");
}

TEST(Env, ValueIsTrueByItsFirstCharacter) {
    struct Row {
        const char* value;
        bool result;
    };
    const Row rows[] = {
        {"1", true},  {"t", true},   {"True", true}, {"YES", true},  {"y", true}, {"10", true},
        {"", false},  {"0", false},  {"no", false},  {"false", false}, {" y", false}, {"2", false},
        {nullptr, false},
    };
    for (const Row& row : rows) EXPECT_EQ(obx_env_value_is_true(row.value), row.result) << (row.value ? row.value : "<null>");
}
