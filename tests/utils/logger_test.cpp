#include "utils/logger.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "fresh_process.h"
#include "stderr_capture.h"

using obx_test::expect_in_fresh_process;
using obx_test::LogCapture;
using obx_test::split_lines;
using obx_test::StderrCapture;
using obx_test::strip_log_prefix;

namespace {

void set_or_unset(const char* name, const char* value) {
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

void clear_logger_environment() {
    for (const char* name : {"OBX_API_LOG_LEVEL", "API_LOG_LEVEL", "OBX_LOG_THREAD_SAFE", "LOG_THREAD_SAFE"})
        unsetenv(name);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool contains_line(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines)
        if (strip_log_prefix(line) == text) return true;
    return false;
}

// Leaves the shared logger on stderr at the level it had before the test.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        obx_log_enabled(OBX_LOG_ERROR);  // first-use configuration, if still pending
        saved_level_ = obx_log_current_level;
    }
    void TearDown() override {
        obx_close_logger();
        obx_log_set_level(saved_level_);
        ASSERT_FALSE(obx_logger_is_registered());
    }
    uint32_t saved_level_ = OBX_LOG_INFO;
};

}  // namespace

TEST_F(LoggerTest, LineHasTimePrefixAndTagOfItsLevel) {
    struct Row {
        uint32_t level;
        const char* tag;
    };
    const Row rows[] = {
        {3, "[error] "}, {4, "[warning] "}, {6, "[info] "}, {7, "[debug] "},
        {0, ""},         {1, ""},           {2, ""},        {5, ""},
    };
    ASSERT_TRUE(obx_init_stderr_logger(7));
    for (const Row& row : rows) {
        StderrCapture capture;
        OBX_LOG(row.level, "value %d of %s", 42, "x");
        const std::vector<std::string> lines = split_lines(capture.finish());
        ASSERT_EQ(lines.size(), 1u) << "level " << row.level;
        EXPECT_EQ(strip_log_prefix(lines[0]), std::string(row.tag) + "value 42 of x") << "level " << row.level;
    }
}

TEST_F(LoggerTest, MessagesAboveTheLevelAreDroppedUnformatted) {
    struct Row {
        uint32_t logger_level;
        uint32_t message_level;
        bool written;
    };
    const Row rows[] = {
        {0, 3, false},  // -v 0 silences even errors
        {0, 0, true},  {3, 3, true}, {3, 4, false}, {5, 5, true},
        {5, 6, false}, {6, 7, false}, {7, 7, true}, {7, 8, false},
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(obx_init_stderr_logger(row.logger_level));
        int evaluated = 0;
        StderrCapture capture;
        OBX_LOG(row.message_level, "count %d", ++evaluated);
        const std::string text = capture.finish();
        EXPECT_EQ(!text.empty(), row.written) << row.logger_level << "/" << row.message_level;
        // The arguments of a dropped message are never evaluated.
        EXPECT_EQ(evaluated, row.written ? 1 : 0) << row.logger_level << "/" << row.message_level;
    }
    EXPECT_EQ(obx_log_set_level(OBX_LOG_WARNING), 7u);  // hands back the previous level
    EXPECT_EQ(obx_log_current_level, static_cast<uint32_t>(OBX_LOG_WARNING));
}

TEST(LoggerFirstUse, LevelComesFromTheEnvironment) {
    struct Row {
        const char* prefixed;
        const char* bare;
        uint32_t level;
    };
    const Row rows[] = {
        {"7", "3", 7},          // the prefixed name wins
        {nullptr, "3", 3},      {"5", nullptr, 5},  {"4", "4", 4},
        {"abc", nullptr, 0},    // not a number
        {nullptr, nullptr, 0},  // nothing prints until main sets the level
        {"", "5", 0},           // set but empty still wins, and is no number
        {"6x", nullptr, 6},     // sscanf reads the leading number
        {"-1", nullptr, 0},     // would otherwise read back as "not set"
    };
    for (const Row& row : rows) {
        expect_in_fresh_process([&row]() -> std::string {
            clear_logger_environment();
            set_or_unset("OBX_API_LOG_LEVEL", row.prefixed);
            set_or_unset("API_LOG_LEVEL", row.bare);
            if (obx_log_current_level != OBX_LOG_LEVEL_UNSET) return "logger configured before first use";
            StderrCapture capture;
            obx_log_enabled(OBX_LOG_ERROR);
            const std::string text = capture.finish();
            if (obx_log_current_level != row.level)
                return "level " + std::to_string(obx_log_current_level) + ", expected " + std::to_string(row.level);
            // Both names are read plainly: a difference between them is not reported.
            if (text.find("conflict") != std::string::npos) return "conflict reported: " + text;
            return "";
        });
    }
}

TEST(LoggerFirstUse, ThreadSafetyFollowsTheEnvironment) {
    struct Row {
        const char* prefixed;
        const char* bare;
        bool mutex;
        bool conflict;
    };
    const Row rows[] = {
        {nullptr, nullptr, true, false}, {"no", nullptr, false, false},  {"", nullptr, true, false},
        {"0", nullptr, false, false},    {"False", nullptr, false, false}, {"Yes", nullptr, true, false},
        {"1", nullptr, true, false},     {"true", nullptr, true, false},  {nullptr, "n", false, false},
        {nullptr, "", true, false},      {"y", "n", true, true},          {"n", "y", false, true},
    };
    for (const Row& row : rows) {
        expect_in_fresh_process([&row]() -> std::string {
            clear_logger_environment();
            set_or_unset("OBX_LOG_THREAD_SAFE", row.prefixed);
            set_or_unset("LOG_THREAD_SAFE", row.bare);
            StderrCapture capture;
            if (!obx_init_stderr_logger(OBX_LOG_DEBUG)) return "stderr start failed";
            const std::vector<std::string> lines = split_lines(capture.finish());
            if (obx_logger_has_mutex() != row.mutex) return std::string("mutex ") + (row.mutex ? "missing" : "set");
            const bool disabled_line = contains_line(
                lines, "[debug] [logger] [obx_init_stderr_logger] Thread safety is disabled by environment variable "
                       "OBX_LOG_THREAD_SAFE");
            const bool without_line =
                contains_line(lines, "[debug] [logger] [obx_init_stderr_logger] Initialized logger without thread-safety");
            if (disabled_line == row.mutex || without_line == row.mutex) return "debug lines do not match the mutex";
            const std::string conflict = std::string("[warning] [obx_getenv] Environment variables conflict - ") +
                                         "OBX_LOG_THREAD_SAFE=" + (row.prefixed ? row.prefixed : "") +
                                         " and LOG_THREAD_SAFE=" + (row.bare ? row.bare : "") +
                                         ". Using OBX_LOG_THREAD_SAFE";
            if (contains_line(lines, conflict) != row.conflict) return "conflict warning wrong";
            return "";
        });
    }
}

TEST_F(LoggerTest, FileSinkWritesTheFileAndCloseReturnsToStderr) {
    obx_test::TempDir dir;
    const std::string path = dir.file("log.txt");
    {
        StderrCapture capture;
        ASSERT_TRUE(obx_init_file_logger(path.c_str(), OBX_LOG_INFO));
        OBX_LOG_INF("to the file %d", 1);
        OBX_LOG_DBG("dropped");
        EXPECT_EQ(capture.finish(), "");
    }
    obx_close_logger();
    const std::vector<std::string> lines = split_lines(read_file(path));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(strip_log_prefix(lines[0]), "[info] to the file 1");

    StderrCapture capture;
    OBX_LOG_WARN("back on stderr");
    const std::vector<std::string> after = split_lines(capture.finish());
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(strip_log_prefix(after[0]), "[warning] back on stderr");
    EXPECT_EQ(split_lines(read_file(path)).size(), 1u);
}

TEST_F(LoggerTest, FileThatCannotBeOpenedFallsBackToStderrAtTheGivenLevel) {
    obx_test::TempDir dir;
    const std::string path = dir.file("missing/folder/log.txt");
    ASSERT_FALSE(obx_init_file_logger(path.c_str(), OBX_LOG_WARNING));
    EXPECT_EQ(obx_log_current_level, static_cast<uint32_t>(OBX_LOG_WARNING));
    StderrCapture capture;
    OBX_LOG_WARN("still visible");
    const std::vector<std::string> lines = split_lines(capture.finish());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(strip_log_prefix(lines[0]), "[warning] still visible");
}

TEST_F(LoggerTest, LinesFromManyThreadsStayWhole) {
    obx_test::TempDir dir;
    const std::string path = dir.file("threads.txt");
    ASSERT_TRUE(obx_init_file_logger(path.c_str(), OBX_LOG_INFO));
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t]() {
            for (int i = 0; i < kLines; ++i) OBX_LOG_INF("thread %d line %d", t, i);
        });
    for (std::thread& thread : threads) thread.join();
    obx_close_logger();
    const std::vector<std::string> lines = split_lines(read_file(path));
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    int next[kThreads] = {};
    for (const std::string& line : lines) {
        int t = -1;
        int i = -1;
        const std::string text = strip_log_prefix(line);
        ASSERT_EQ(std::sscanf(text.c_str(), "[info] thread %d line %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_EQ(i, next[t]++) << line;
    }
}

namespace {
std::vector<std::pair<uint32_t, std::string>> g_callback_lines;

void record_callback(uint32_t level, const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    g_callback_lines.emplace_back(level, text);
}
}  // namespace

TEST_F(LoggerTest, CallbackSinkTakesMessagesUntilAnotherSinkStarts) {
    g_callback_lines.clear();
    obx_log_set_callback(record_callback, OBX_LOG_WARNING);
    EXPECT_EQ(obx_log_get_callback(), &record_callback);
    StderrCapture capture;
    OBX_LOG_ERR("first %s", "error");
    OBX_LOG_WARN("a warning");
    OBX_LOG_INF("dropped");
    // Starting the stderr sink ends the callback's turn.
    ASSERT_TRUE(obx_init_stderr_logger(OBX_LOG_INFO));
    EXPECT_EQ(obx_log_get_callback(), nullptr);
    OBX_LOG_INF("on stderr");
    const std::vector<std::string> lines = split_lines(capture.finish());

    const std::vector<std::pair<uint32_t, std::string>> expected = {{3, "first error"}, {4, "a warning"}};
    EXPECT_EQ(g_callback_lines, expected);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(strip_log_prefix(lines[0]), "[info] on stderr");
}

TEST_F(LoggerTest, ExportDescribesTheCurrentSink) {
    ASSERT_TRUE(obx_init_stderr_logger(OBX_LOG_WARNING));
    obx_logger_state_t* state = obx_logger_state_export();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->sink, static_cast<uint32_t>(OBX_LOG_SINK_STDERR));
    EXPECT_EQ(state->stream, stderr);
    EXPECT_EQ(state->callback, nullptr);
    EXPECT_EQ(state->level, static_cast<uint32_t>(OBX_LOG_WARNING));
    EXPECT_EQ(state->mutex != nullptr, obx_logger_has_mutex());
    free(state);

    obx_log_set_callback(record_callback, OBX_LOG_ERROR);
    state = obx_logger_state_export();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->sink, static_cast<uint32_t>(OBX_LOG_SINK_CALLBACK));
    EXPECT_EQ(state->stream, nullptr);
    EXPECT_EQ(state->callback, &record_callback);
    EXPECT_EQ(state->level, static_cast<uint32_t>(OBX_LOG_ERROR));
    free(state);
}

TEST(LoggerState, ImportOfTheOwnStateChangesNothing) {
    // In a fresh process: a wrong answer here would register this program's logger for good.
    expect_in_fresh_process([]() -> std::string {
        clear_logger_environment();
        if (obx_logger_state_import(nullptr)) return "null state accepted";
        // Each setup is exported and imported back; none may count as a foreign logger.
        const std::vector<void (*)()> setups = {
            [] { obx_init_stderr_logger(OBX_LOG_INFO); },
            [] { obx_log_set_callback(record_callback, OBX_LOG_WARNING); },
            // A callback left behind by an earlier sink is no part of the stderr state.
            [] {
                obx_log_set_callback(record_callback, OBX_LOG_WARNING);
                obx_init_stderr_logger(OBX_LOG_ERROR);
            },
        };
        for (size_t i = 0; i < setups.size(); ++i) {
            setups[i]();
            obx_logger_state_t* state = obx_logger_state_export();
            if (!state) return "export failed";
            const bool imported = obx_logger_state_import(state);
            free(state);
            if (!imported) return "import failed for setup " + std::to_string(i);
            if (obx_logger_is_registered()) return "registered by setup " + std::to_string(i);
        }
        return "";
    });
}

TEST(LoggerRegistered, ForeignStateIsTakenOverAndInitialisersRefuse) {
    expect_in_fresh_process([]() -> std::string {
        clear_logger_environment();
        obx_test::TempDir dir;
        const std::string path = dir.file("never.txt");
        obx_init_stderr_logger(OBX_LOG_INFO);
        obx_logger_state_t foreign = {};
        foreign.sink = OBX_LOG_SINK_STDERR;
        foreign.stream = stderr;
        foreign.level = OBX_LOG_DEBUG;
        if (!obx_logger_state_import(&foreign)) return "import failed";
        if (!obx_logger_is_registered()) return "not registered";
        if (obx_log_current_level != OBX_LOG_DEBUG) return "level not taken over";
        if (obx_logger_has_mutex()) return "mutex not taken over";

        StderrCapture capture;
        const bool stderr_started = obx_init_stderr_logger(OBX_LOG_ERROR);
        const bool file_started = obx_init_file_logger(path.c_str(), OBX_LOG_ERROR);
        const bool syslog_started = obx_init_syslog_logger("obx_test", OBX_LOG_ERROR);
        obx_close_logger();
        const std::vector<std::string> lines = split_lines(capture.finish());
        if (stderr_started || file_started || syslog_started) return "an initialiser accepted";
        if (access(path.c_str(), F_OK) == 0) return "file logger opened its file";
        if (obx_log_current_level != OBX_LOG_DEBUG) return "level changed";
        const char* const expected[] = {
            "[debug] [logger] [obx_init_stderr_logger] registered logger cannot initialize logger",
            "[debug] [logger] [obx_init_file_logger] registered logger cannot initialize logger",
            "[debug] [logger] [obx_init_syslog_logger] registered logger cannot initialize logger",
            "[debug] [logger] [obx_close_logger] tried closing a registered logger, skipping closure",
        };
        if (lines.size() != 4) return "expected 4 lines, got " + std::to_string(lines.size());
        for (size_t i = 0; i < 4; ++i)
            if (strip_log_prefix(lines[i]) != expected[i]) return "line " + std::to_string(i) + ": " + lines[i];
        // An identical import afterwards leaves it registered.
        obx_logger_state_t* state = obx_logger_state_export();
        obx_logger_state_import(state);
        free(state);
        return obx_logger_is_registered() ? "" : "registration undone";
    });
}

TEST(LoggerRegistered, ImportedCallbackReceivesTheMessages) {
    expect_in_fresh_process([]() -> std::string {
        clear_logger_environment();
        g_callback_lines.clear();
        obx_init_stderr_logger(OBX_LOG_INFO);
        obx_logger_state_t foreign = {};
        foreign.sink = OBX_LOG_SINK_CALLBACK;
        foreign.callback = record_callback;
        foreign.level = OBX_LOG_WARNING;
        if (!obx_logger_state_import(&foreign)) return "import failed";
        StderrCapture capture;
        OBX_LOG_WARN("via %s", "host");
        OBX_LOG_INF("dropped");
        if (!capture.finish().empty()) return "message went to stderr";
        if (g_callback_lines.size() != 1 || g_callback_lines[0].second != "via host") return "callback not used";
        return "";
    });
}

TEST(LoggerRegistered, ImportedStateWithoutStreamStillWritesToStderr) {
    expect_in_fresh_process([]() -> std::string {
        clear_logger_environment();
        obx_logger_state_t foreign = {};  // stderr sink of a module that never started its logger
        foreign.sink = OBX_LOG_SINK_STDERR;
        foreign.level = OBX_LOG_INFO;
        if (!obx_logger_state_import(&foreign)) return "import failed";
        StderrCapture capture;
        OBX_LOG_ERR("still %d", 1);
        const std::vector<std::string> lines = split_lines(capture.finish());
        if (lines.size() != 1 || strip_log_prefix(lines[0]) != "[error] still 1") return "line lost";
        return "";
    });
}

TEST(LoggerSyslog, SyslogSinkKeepsStderrQuietUntilClosed) {
    expect_in_fresh_process([]() -> std::string {
        clear_logger_environment();
        StderrCapture capture;
        if (!obx_init_syslog_logger("obx_test", OBX_LOG_INFO)) return "syslog start failed";
        OBX_LOG_INF("to syslog");
        const std::string quiet = capture.finish();
        if (!quiet.empty()) return "stderr got: " + quiet;
        obx_close_logger();
        StderrCapture after;
        OBX_LOG_INF("to stderr");
        const std::vector<std::string> lines = split_lines(after.finish());
        if (lines.size() != 1 || strip_log_prefix(lines[0]) != "[info] to stderr") return "close did not return to stderr";
        return "";
    });
}

TEST(LoggerHexdump, LinesKeepTheTextColumnAligned) {
    struct Line {
        const char* hex;  // hex column without its trailing blanks
        const char* text;
    };
    struct Row {
        std::vector<uint8_t> bytes;
        std::vector<Line> lines;
    };
    std::vector<uint8_t> sixteen(16);
    for (size_t i = 0; i < 16; ++i) sixteen[i] = static_cast<uint8_t>("0123456789abcdef"[i]);
    std::vector<uint8_t> seventeen = sixteen;
    seventeen.push_back('Q');
    const Row rows[] = {
        {{0x41}, {{"41", "A"}}},
        {{0x00, 0x41, 0x7F, 0x20, 0xFF}, {{"00 41 7F 20 FF", ".A. ."}}},
        {{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}, {{"61 62 63 64 65 66 67 68", "abcdefgh"}}},
        {{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i'}, {{"61 62 63 64 65 66 67 68  69", "abcdefghi"}}},
        {sixteen, {{"30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66", "0123456789abcdef"}}},
        {seventeen,
         {{"30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66", "0123456789abcdef"}, {"51", "Q"}}},
    };
    constexpr size_t kTextColumn = 50;
    for (const Row& row : rows) {
        LogCapture capture(OBX_LOG_DEBUG);
        obx_log_hexdump(row.bytes.data(), row.bytes.size());
        const std::vector<std::string> lines = capture.at(OBX_LOG_DEBUG);
        ASSERT_EQ(lines.size(), row.lines.size()) << capture.all();
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string& line = lines[i];
            ASSERT_GE(line.size(), kTextColumn) << line;
            std::string hex = line.substr(0, kTextColumn);
            hex.erase(hex.find_last_not_of(' ') + 1);
            EXPECT_EQ(hex, row.lines[i].hex) << line;
            EXPECT_EQ(line.substr(kTextColumn), std::string("|  ") + row.lines[i].text + " ") << line;
        }
    }
}

TEST(LoggerHexdump, NothingBelowDebugOrForNoBytes) {
    const uint8_t bytes[4] = {1, 2, 3, 4};
    {
        LogCapture capture(OBX_LOG_INFO);
        obx_log_hexdump(bytes, sizeof(bytes));
        EXPECT_TRUE(capture.lines().empty()) << capture.all();
    }
    {
        LogCapture capture(OBX_LOG_DEBUG);
        obx_log_hexdump(bytes, 0);
        obx_log_hexdump(nullptr, 4);
        EXPECT_TRUE(capture.lines().empty()) << capture.all();
    }
}
