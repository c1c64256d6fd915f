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

// Full lines are 50 characters of hex; a short one is padded by its own rule and may be
// one blank narrower.
TEST(Logger, HexDumpLines) {
    LogCapture log(OBX_LOG_DEBUG);
    const std::string bytes = "ABCDEFGH\x01JKLMNOPQRSTUVWXYZ";  // 16 + 10 bytes
    obx_log_hexdump(bytes.data(), bytes.size());
    obx_log_hexdump("AB\x7f", 3);
    obx_log_hexdump("12345678", 8);
    obx_log_hexdump("x", 0);
    EXPECT_EQ(log.at(OBX_LOG_DEBUG),
              (std::vector<std::string>{"41 42 43 44 45 46 47 48  01 4A 4B 4C 4D 4E 4F 50  |  ABCDEFGH.JKLMNOP ",
                                        "51 52 53 54 55 56 57 58  59 5A " + std::string(18, ' ') + "|  QRSTUVWXYZ ",
                                        "41 42 7F  " + std::string(39, ' ') + "|  AB. ",
                                        "31 32 33 34 35 36 37 38   " + std::string(24, ' ') + "|  12345678 "}));
    log.clear();
    obx_log_set_level(OBX_LOG_INFO);
    obx_log_hexdump("AB", 2);  // below debug: nothing
    EXPECT_EQ(log.all(), "");
}

TEST(Logger, LevelFromTheEnvironment) {
    LogCapture restore;
    const struct {
        const char* prefixed;
        const char* bare;
        uint32_t level;
    } rows[] = {{nullptr, nullptr, 0}, {"4", "7", 4}, {nullptr, "7", 7}, {"abc", nullptr, 0},
                {"-2", nullptr, 0xFFFFFFFEu}, {"6x", nullptr, 6}};
    for (const auto& row : rows) {
        row.prefixed ? setenv("OBX_API_LOG_LEVEL", row.prefixed, 1) : unsetenv("OBX_API_LOG_LEVEL");
        row.bare ? setenv("API_LOG_LEVEL", row.bare, 1) : unsetenv("API_LOG_LEVEL");
        obx_log_init_from_env();
        EXPECT_EQ(obx_log_current_level, row.level) << (row.prefixed ? row.prefixed : "-") << (row.bare ? row.bare : "-");
    }
    unsetenv("OBX_API_LOG_LEVEL");
    unsetenv("API_LOG_LEVEL");
}
