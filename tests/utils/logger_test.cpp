#include "utils/logger.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

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

// The file sink writes whole lines and falls back to stderr when the file cannot be made;
// closing always ends on stderr.
TEST(Logger, FileSinkAndClose) {
    LogCapture restore;
    TempDir dir;
    const std::string path = dir.file("log.txt");
    ASSERT_TRUE(obx_init_file_logger(path.c_str(), OBX_LOG_WARNING));
    OBX_LOG_WARN("to the file %d", 1);
    OBX_LOG_INF("dropped");
    obx_close_logger();
    EXPECT_EQ(without_times(read_file_bytes(path)), "[warning] to the file 1\n");
    testing::internal::CaptureStderr();
    OBX_LOG_ERR("after close");
    EXPECT_FALSE(obx_init_file_logger(dir.file("no/such/folder/log.txt").c_str(), OBX_LOG_ERROR));
    OBX_LOG_ERR("on stderr again");
    EXPECT_EQ(without_times(testing::internal::GetCapturedStderr()), "[error] after close\n[error] on stderr again\n");
}

namespace {

std::vector<std::string> g_called;
void remember(uint32_t level, const char* format, ...) {
    char text[128];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    g_called.push_back(std::to_string(level) + " " + text);
}

}  // namespace

// A callback takes every message up to its level; the state goes out and comes back, and a
// taken-over state (registered) refuses to be started again or closed, for good: each case
// runs in a process of its own.
TEST(Logger, CallbackStateExchangeAndRegistration) {
    const auto exchanged = [] {
        obx_log_set_callback(remember, OBX_LOG_INFO);
        OBX_LOG_INF("a %s", "b");
        OBX_LOG_DBG("dropped");
        obx_logger_state_t* state = obx_logger_state_export();
        const bool exported = state && state->sink == 3 && state->callback == remember && state->level == OBX_LOG_INFO && !state->stream;
        const bool same = obx_logger_state_import(state) && obx_init_stderr_logger(OBX_LOG_ERROR);  // identical: not registered
        std::free(state);
        const std::vector<std::string> expected = {"6 a b"};
        std::exit(g_called == expected && exported && same && !obx_logger_state_import(nullptr) ? 0 : 1);
    };
    const auto taken_over = [] {
        obx_init_stderr_logger(OBX_LOG_ERROR);
        obx_logger_state_t other = {3, nullptr, remember, OBX_LOG_DEBUG, nullptr};
        const bool taken = obx_logger_state_import(&other);
        OBX_LOG_DBG("through %s", "the callback");
        const bool refused = !obx_init_stderr_logger(OBX_LOG_ERROR) && !obx_init_file_logger("/tmp/x", OBX_LOG_ERROR);
        obx_close_logger();  // skipped: still the callback
        OBX_LOG_ERR("still");
        const std::vector<std::string> expected = {
            "7 through the callback", "7 [logger] [obx_init_stderr_logger] registered logger cannot initialize logger",
            "7 [logger] [obx_init_file_logger] registered logger cannot initialize logger",
            "7 [logger] [obx_close_logger] tried closing a registered logger, skipping closure", "3 still"};
        std::exit(taken && refused && g_called == expected ? 0 : 1);
    };
    EXPECT_EXIT(exchanged(), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(taken_over(), testing::ExitedWithCode(0), "");
}

// Thread safety is on unless OBX_LOG_THREAD_SAFE (or LOG_THREAD_SAFE) starts with something
// other than 1, t or y; an empty value keeps it on.
TEST(Logger, ThreadSafetySwitch) {
    const struct { const char* value; bool mutex; } rows[] = {{nullptr, true}, {"", true}, {"Yes", true}, {"1", true}, {"no", false}, {"0", false}};
    // A mutex once made stays: each row starts a process anew, not a copy of this one.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& row : rows) {
        const auto mutex_as_set = [&row] {
            row.value ? setenv("OBX_LOG_THREAD_SAFE", row.value, 1) : unsetenv("OBX_LOG_THREAD_SAFE");
            unsetenv("LOG_THREAD_SAFE");
            obx_init_stderr_logger(OBX_LOG_ERROR);
            std::exit(obx_logger_has_mutex() == row.mutex ? 0 : 1);
        };
        EXPECT_EXIT(mutex_as_set(), testing::ExitedWithCode(0), "") << (row.value ? row.value : "<unset>");
    }
    GTEST_FLAG_SET(death_test_style, "fast");
}
