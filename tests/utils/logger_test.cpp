#include "utils/logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "fresh_process.h"
#include "stderr_capture.h"

using namespace obx_test;
using Texts = std::vector<std::string>;

// Sets `prefixed_name` and its bare form (the name behind "OBX_"); null unsets.
static void set_env(const char* prefixed_name, const char* prefixed, const char* bare) {
    prefixed ? setenv(prefixed_name, prefixed, 1) : unsetenv(prefixed_name);
    bare ? setenv(prefixed_name + 4, bare, 1) : unsetenv(prefixed_name + 4);
}

TEST(Logger, LevelFilterTagAndTimePrefix) {
    LogCapture restore;  // when it ends, the logger is back on stderr at its old level
    struct Row { uint32_t logger_level, message_level; const char* line; };  // nullptr: dropped
    const Row rows[] = {{7, 3, "[error] value 1"}, {7, 4, "[warning] value 1"}, {7, 6, "[info] value 1"}, {7, 7, "[debug] value 1"},
                        {7, 0, "value 1"}, {7, 2, "value 1"}, {5, 5, "value 1"},  // levels without a tag
                        {0, 3, nullptr}, {0, 0, "value 1"}, {3, 4, nullptr}, {6, 7, nullptr}, {7, 8, nullptr}};  // -v 0 silences errors
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.logger_level) + "/" + std::to_string(row.message_level));
        ASSERT_TRUE(obx_init_stderr_logger(row.logger_level));
        int evaluated = 0;
        StderrCapture capture;
        OBX_LOG(row.message_level, "value %d", ++evaluated);
        EXPECT_EQ(log_texts(capture.finish()), row.line ? Texts{row.line} : Texts{});
        EXPECT_EQ(evaluated, row.line ? 1 : 0);  // a dropped message's arguments are never evaluated
    }
}

// In fresh processes, so that first use really comes first.
TEST(LoggerFirstUse, LevelAndThreadSafetyComeFromTheEnvironment) {
    struct Row { const char* level_prefixed; const char* level_bare; const char* safe_prefixed; const char* safe_bare; uint32_t level; bool mutex; };
    // The prefixed names win, and a difference between the level's two names is not reported. An empty
    // level is no number (0); an empty thread-safety value keeps it on. A level of -1 would read as "not set".
    const Row rows[] = {
        {"7", "3", nullptr, nullptr, 7, true}, {nullptr, "3", "", nullptr, 3, true}, {"abc", nullptr, "no", nullptr, 0, false},
        {"", "5", "False", nullptr, 0, false}, {"6x", nullptr, "Yes", nullptr, 6, true}, {"-1", nullptr, nullptr, "n", 0, false},
        {"7", nullptr, "y", "n", 7, true}, {"7", nullptr, "n", "y", 7, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        expect_in_fresh_process([&row]() -> std::string {
            set_env("OBX_API_LOG_LEVEL", row.level_prefixed, row.level_bare);
            set_env("OBX_LOG_THREAD_SAFE", row.safe_prefixed, row.safe_bare);
            StderrCapture capture;
            obx_log_enabled(OBX_LOG_ERROR);
            const std::string text = capture.finish();
            const Texts lines = log_texts(text), off = {
                "[debug] [logger] [obx_init_stderr_logger] Thread safety is disabled by environment variable OBX_LOG_THREAD_SAFE",
                "[debug] [logger] [obx_init_stderr_logger] Initialized logger without thread-safety"};
            const bool logged_off = std::search(lines.begin(), lines.end(), off.begin(), off.end()) != lines.end();
            const bool right = obx_log_current_level == row.level && obx_logger_has_mutex() == row.mutex &&
                               logged_off == (row.level == 7 && !row.mutex) && text.find("API_LOG_LEVEL=") == std::string::npos;
            return right ? "" : "level " + std::to_string(obx_log_current_level) + ", logged:\n" + text;
        });
    }
}

TEST(Logger, EachSinkInTurnAndTheFallbackToStderr) {
    TempDir dir;
    const std::string path = dir.file("log.txt");
    StderrCapture capture;
    LogCapture callback(OBX_LOG_WARNING);
    OBX_LOG_WARN("to the %s", "callback");
    OBX_LOG_INF("dropped");
    ASSERT_TRUE(obx_init_syslog_logger("obx_test", OBX_LOG_INFO));  // ends the callback's turn
    OBX_LOG_INF("to syslog");
    ASSERT_TRUE(obx_init_file_logger(path.c_str(), OBX_LOG_INFO));
    OBX_LOG_INF("to the file %d", 1);
    OBX_LOG_DBG("dropped");
    obx_close_logger();
    OBX_LOG_WARN("back on stderr");
    // A file that cannot be opened leaves the logger on stderr at the given level.
    EXPECT_FALSE(obx_init_file_logger(dir.file("missing/log.txt").c_str(), OBX_LOG_ERROR));
    OBX_LOG_WARN("dropped");
    OBX_LOG_ERR("still visible");
    EXPECT_EQ(log_texts(capture.finish()), (Texts{"[warning] back on stderr", "[error] still visible"}));
    EXPECT_EQ(callback.all(), "to the callback\n");
    std::ostringstream file_text;
    file_text << std::ifstream(path).rdbuf();
    EXPECT_EQ(log_texts(file_text.str()), Texts{"[info] to the file 1"});
}

// In a fresh process: registering this program's logger would last for good.
TEST(LoggerState, ForeignStateIsTakenOverAndInitialisersRefuse) {
    expect_in_fresh_process([]() -> std::string {
        LogCapture host(OBX_LOG_WARNING);  // its callback stands for a host program's
        const obx_log_callback_t host_callback = obx_log_get_callback();
        // Our own state exported and imported back, whatever the sink, is no foreign logger.
        for (bool callback : {true, false}) {
            if (!callback) obx_init_stderr_logger(OBX_LOG_INFO);
            obx_logger_state_t* state = obx_logger_state_export();
            const bool imported = obx_logger_state_import(state);
            free(state);
            if (!imported || obx_logger_is_registered()) return "own state taken as foreign";
        }
        obx_logger_state_t foreign = {OBX_LOG_SINK_STDERR, stderr, nullptr, OBX_LOG_DEBUG, nullptr};
        if (!obx_logger_state_import(&foreign) || obx_logger_state_import(nullptr) || !obx_logger_is_registered() ||
            obx_log_current_level != OBX_LOG_DEBUG || obx_logger_has_mutex())
            return "foreign state not taken over";
        TempDir dir;
        StderrCapture capture;
        if (obx_init_stderr_logger(3) || obx_init_file_logger(dir.file("never").c_str(), 3) || obx_init_syslog_logger("x", 3))
            return "an initialiser accepted";
        obx_close_logger();
        const std::string text = capture.finish(), tag = "[debug] [logger] [";
        const Texts expected = {tag + "obx_init_stderr_logger] registered logger cannot initialize logger",
                                tag + "obx_init_file_logger] registered logger cannot initialize logger",
                                tag + "obx_init_syslog_logger] registered logger cannot initialize logger",
                                tag + "obx_close_logger] tried closing a registered logger, skipping closure"};
        if (log_texts(text) != expected || obx_log_current_level != OBX_LOG_DEBUG) return "logged:\n" + text;
        foreign = {OBX_LOG_SINK_CALLBACK, nullptr, host_callback, OBX_LOG_WARNING, nullptr};
        obx_logger_state_import(&foreign);
        OBX_LOG_WARN("via %s", "host");
        foreign = {OBX_LOG_SINK_STDERR, nullptr, nullptr, OBX_LOG_INFO, nullptr};  // a stderr sink without a stream
        obx_logger_state_import(&foreign);
        StderrCapture after;
        OBX_LOG_ERR("still %d", 1);
        const bool used = log_texts(after.finish()) == Texts{"[error] still 1"} && host.at(OBX_LOG_WARNING) == Texts{"via host"};
        return used ? "" : "foreign callback or stream not used";
    });
}

TEST(LoggerHexdump, LinesKeepTheTextColumnAligned) {
    const auto line = [](std::string hex, const char* text) { return hex.append(50 - hex.size(), ' ') + "|  " + text + " "; };
    const struct { std::string bytes; Texts lines; } rows[] = {
        {std::string("\0A\x7f \xff", 5), {line("00 41 7F 20 FF", ".A. .")}},
        {"abcdefgh", {line("61 62 63 64 65 66 67 68", "abcdefgh")}},
        {"abcdefghi", {line("61 62 63 64 65 66 67 68  69", "abcdefghi")}},
        {"0123456789abcdefQ", {line("30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66", "0123456789abcdef"), line("51", "Q")}},
    };
    for (const auto& row : rows) {
        LogCapture capture(OBX_LOG_DEBUG);
        obx_log_hexdump(row.bytes.data(), row.bytes.size());
        EXPECT_EQ(capture.at(OBX_LOG_DEBUG), row.lines);
    }
    LogCapture capture(OBX_LOG_INFO);
    obx_log_hexdump("abcd", 4);  // below debug
    obx_log_set_level(OBX_LOG_DEBUG);
    obx_log_hexdump("abcd", 0);
    obx_log_hexdump(nullptr, 4);
    EXPECT_EQ(capture.all(), "");
}
