#include "utils/logger.h"

#include <gtest/gtest.h>

#include <regex>

#include "fixtures/log_capture.h"

using namespace obx_test;

// Logged text without the "[YYYY-MM-DD HH:MM:SS.mmm] " time prefix of each line.
static std::string without_times(const std::string& text) {
    return std::regex_replace(text, std::regex(R"((^|\n)\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\] )"), "$1");
}

TEST(Logger, LevelFilterTagAndTimePrefix) {
    LogCapture restore;  // when it ends, the logger is back on stderr at its old level
    struct Row { uint32_t logger_level, message_level; const char* line; };  // nullptr: dropped
    const Row rows[] = {{7, 3, "[error] value 1"}, {7, 4, "[warning] value 1"}, {7, 6, "[info] value 1"}, {7, 7, "[debug] value 1"},
                        {7, 0, "value 1"}, {5, 5, "value 1"},  // levels without a tag
                        {0, 3, nullptr}, {0, 0, "value 1"}, {3, 4, nullptr}, {7, 8, nullptr}};  // -v 0 silences errors
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.logger_level) + "/" + std::to_string(row.message_level));
        ASSERT_TRUE(obx_init_stderr_logger(row.logger_level));
        int evaluated = 0;
        testing::internal::CaptureStderr();
        OBX_LOG(row.message_level, "value %d", ++evaluated);
        EXPECT_EQ(without_times(testing::internal::GetCapturedStderr()), row.line ? row.line + std::string("\n") : "");
        EXPECT_EQ(evaluated, row.line ? 1 : 0);  // a dropped message's arguments are never evaluated
    }
}
