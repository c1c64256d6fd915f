#include "utils/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

#include "fixtures/log_capture.h"

using namespace obx_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Texts = std::vector<std::string>;

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
        CaptureStderr();
        OBX_LOG(row.message_level, "value %d", ++evaluated);
        EXPECT_EQ(without_times(GetCapturedStderr()), row.line ? row.line + std::string("\n") : "");
        EXPECT_EQ(evaluated, row.line ? 1 : 0);  // a dropped message's arguments are never evaluated
    }
}

// Runs `body` in a new copy of the test program, where the logger is still pristine.
// `body` returns "" on success, else the reason, which gtest shows from the child's stderr.
template <typename Body>
static void expect_in_fresh_process(Body body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT({ const std::string why = body(); std::fprintf(stderr, "%s\n", why.c_str()); _exit(why.empty() ? 0 : 1); },
                ::testing::ExitedWithCode(0), "");
}

// In fresh processes, so that first use really comes first. The prefixed names win, and a
// difference between the level's two names is not reported. A level that is no number is 0,
// and so is -1, which would read as "not set". Thread safety is off for a value that does
// not start with 1, t or y (in any case), but an empty value keeps it on.
TEST(LoggerFirstUse, LevelAndThreadSafetyComeFromTheEnvironment) {
    const struct { const char *level, *bare_level, *safe, *bare_safe; uint32_t expected; bool mutex; } rows[] = {
        {"7", "3", nullptr, nullptr, 7, true}, {nullptr, "3", "", nullptr, 3, true}, {"abc", nullptr, "no", nullptr, 0, false},
        {"-1", nullptr, nullptr, "n", 0, false}, {"6x", nullptr, "Yes", "n", 6, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        expect_in_fresh_process([&row]() -> std::string {
            const auto set = [](const char* name, const char* value) { value ? setenv(name, value, 1) : unsetenv(name); };
            set("OBX_API_LOG_LEVEL", row.level), set("API_LOG_LEVEL", row.bare_level);
            set("OBX_LOG_THREAD_SAFE", row.safe), set("LOG_THREAD_SAFE", row.bare_safe);
            CaptureStderr();
            obx_log_enabled(OBX_LOG_ERROR);
            const std::string text = GetCapturedStderr();
            const bool right = obx_log_current_level == row.expected && obx_logger_has_mutex() == row.mutex &&
                               text.find("API_LOG_LEVEL=") == std::string::npos;
            return right ? "" : "level " + std::to_string(obx_log_current_level) + ", logged:\n" + text;
        });
    }
}

TEST(LoggerHexdump, LinesKeepTheTextColumnAligned) {
    const auto line = [](std::string hex, const char* text) { return hex.append(50 - hex.size(), ' ') + "|  " + text + " "; };
    const struct { std::string bytes; Texts lines; } rows[] = {
        {std::string("\0A\x7f \xffxyz", 8), {line("00 41 7F 20 FF 78 79 7A", ".A. .xyz")}},
        {"abcdefghi", {line("61 62 63 64 65 66 67 68  69", "abcdefghi")}},
        {"0123456789abcdefQ", {line("30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66", "0123456789abcdef"), line("51", "Q")}},
        {"", {}}};
    for (const auto& row : rows) {
        LogCapture capture(OBX_LOG_DEBUG);
        obx_log_hexdump(row.bytes.data(), row.bytes.size());
        obx_log_hexdump(nullptr, 4);
        EXPECT_EQ(capture.at(OBX_LOG_DEBUG), row.lines);
    }
}
