#include "utils/logger.h"

#include <syslog.h>
#include <time.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/env.h"

uint32_t obx_log_current_level = OBX_LOG_LEVEL_UNSET;

namespace {

uint32_t g_sink = OBX_LOG_SINK_STDERR;
FILE* g_stream = nullptr;
obx_log_callback_t g_callback = nullptr;
pthread_mutex_t* g_mutex = nullptr;
bool g_registered = false;
bool g_exit_handler_set = false;
pthread_mutex_t g_static_mutex;

const char* level_tag(uint32_t level) {
    switch (level) {
        case OBX_LOG_ERROR: return "[error] ";
        case OBX_LOG_WARNING: return "[warning] ";
        case OBX_LOG_INFO: return "[info] ";
        case OBX_LOG_DEBUG: return "[debug] ";
        default: return "";
    }
}

void destroy_mutex_at_exit() {
    if (g_registered) return;
    if (g_mutex) {
        pthread_mutex_destroy(g_mutex);
        g_mutex = nullptr;
    }
}

bool init_logger_mutex(const char* caller) {
    const char* value = obx_getenv("LOG_THREAD_SAFE");
    if (value && value[0] != '\0' && !obx_env_value_is_true(value)) {
        OBX_LOG_DBG("[logger] [%s] Thread safety is disabled by environment variable OBX_LOG_THREAD_SAFE", caller);
        return false;
    }
    if (g_registered || g_mutex) return true;
    g_mutex = &g_static_mutex;
    if (pthread_mutex_init(g_mutex, nullptr) != 0) {
        g_mutex = nullptr;
        OBX_LOG_ERR("[logger] [%s] failed to initialize logger mutex", caller);
        return false;
    }
    if (!g_exit_handler_set) {
        std::atexit(destroy_mutex_at_exit);
        g_exit_handler_set = true;
    }
    return true;
}

}  // namespace

void obx_log_write(uint32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (g_sink == OBX_LOG_SINK_SYSLOG) {
        vsyslog(static_cast<int>(level), format, args);
        va_end(args);
        return;
    }
    if (!g_stream) obx_init_stderr_logger(obx_log_current_level);
    // A registered logger refuses the start above; its lines still go somewhere.
    FILE* stream = g_stream ? g_stream : stderr;
    if (g_mutex) pthread_mutex_lock(g_mutex);

    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    long millis = now.tv_nsec / 1000000;
    if (millis > 999) {
        now.tv_sec += 1;
        millis -= 1000;
    }
    struct tm local;
    char stamp[26] = "";
    if (localtime_r(&now.tv_sec, &local)) strftime(stamp, sizeof(stamp), "[%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(stream, "%s.%03d] ", stamp, static_cast<int>(millis));
    std::fputs(level_tag(level), stream);
    std::vfprintf(stream, format, args);
    std::fputc('\n', stream);
    std::fflush(stream);

    if (g_mutex) pthread_mutex_unlock(g_mutex);
    va_end(args);
}

void obx_log_init_from_env(void) {
    const char* text = std::getenv("OBX_API_LOG_LEVEL");
    if (!text) text = std::getenv("API_LOG_LEVEL");
    int level = 0;
    if (text && std::sscanf(text, "%d", &level) != 1) level = 0;
    // A negative number is taken as it is: as an unsigned level it lets every message
    // through (and -1, the not-set marker, comes back here on each call).
    obx_init_stderr_logger(static_cast<uint32_t>(level));
}

bool obx_init_stderr_logger(uint32_t level) {
    if (g_registered) {
        OBX_LOG_DBG("[logger] [%s] registered logger cannot initialize logger", __func__);
        return false;
    }
    g_sink = OBX_LOG_SINK_STDERR;
    obx_log_current_level = level;
    g_stream = stderr;
    if (!init_logger_mutex(__func__))
        OBX_LOG_DBG("[logger] [%s] Initialized logger without thread-safety", __func__);
    return true;
}

bool obx_init_syslog_logger(const char* ident, uint32_t level) {
    if (g_registered) {
        OBX_LOG_DBG("[logger] [%s] registered logger cannot initialize logger", __func__);
        return false;
    }
    openlog(ident, LOG_PID | LOG_CONS, LOG_DAEMON);
    g_sink = OBX_LOG_SINK_SYSLOG;
    obx_log_current_level = level;
    if (!init_logger_mutex(__func__))
        OBX_LOG_DBG("[logger] [%s] Initialized logger without thread-safety", __func__);
    return true;
}

static void close_current_sink() {
    if (g_sink == OBX_LOG_SINK_SYSLOG) closelog();
    if (g_sink == OBX_LOG_SINK_FILE && g_stream && g_stream != stderr) std::fclose(g_stream);
    if (g_sink == OBX_LOG_SINK_FILE) g_stream = nullptr;
}

bool obx_init_file_logger(const char* path, uint32_t level) {
    if (g_registered) {
        OBX_LOG_DBG("[logger] [%s] registered logger cannot initialize logger", __func__);
        return false;
    }
    close_current_sink();
    FILE* file = path ? std::fopen(path, "w") : nullptr;
    if (!file) {
        obx_init_stderr_logger(level);
        return false;
    }
    g_sink = OBX_LOG_SINK_FILE;
    g_stream = file;
    obx_log_current_level = level;
    if (!init_logger_mutex(__func__))
        OBX_LOG_DBG("[logger] [%s] Initialized logger without thread-safety", __func__);
    return true;
}

void obx_close_logger(void) {
    if (g_registered) {
        OBX_LOG_DBG("[logger] [%s] tried closing a registered logger, skipping closure", __func__);
        return;
    }
    close_current_sink();
    g_callback = nullptr;
    obx_init_stderr_logger(obx_log_current_level);
}

uint32_t obx_log_set_level(uint32_t level) {
    const uint32_t old = obx_log_current_level;
    obx_log_current_level = level;
    return old;
}

void obx_log_set_callback(obx_log_callback_t callback, uint32_t level) {
    g_callback = callback;
    g_sink = OBX_LOG_SINK_CALLBACK;
    obx_log_current_level = level;
}

// Only the callback sink routes through the callback; another initialiser takes over.
obx_log_callback_t obx_log_get_callback(void) { return g_sink == OBX_LOG_SINK_CALLBACK ? g_callback : nullptr; }

static void fill_state(obx_logger_state_t* state) {
    *state = obx_logger_state_t{};
    state->sink = g_sink;
    if (g_sink == OBX_LOG_SINK_CALLBACK) state->callback = g_callback;
    if (g_sink == OBX_LOG_SINK_STDERR || g_sink == OBX_LOG_SINK_FILE) state->stream = g_stream;
    state->level = obx_log_current_level;
    state->mutex = g_mutex;
}

obx_logger_state_t* obx_logger_state_export(void) {
    auto* state = static_cast<obx_logger_state_t*>(std::calloc(1, sizeof(obx_logger_state_t)));
    if (!state) return nullptr;
    fill_state(state);
    return state;
}

bool obx_logger_state_import(const obx_logger_state_t* state) {
    if (!state) return false;
    // Compared as an export would see it, so our own snapshot never counts as foreign.
    obx_logger_state_t current;
    fill_state(&current);
    if (state->sink == current.sink && state->level == current.level && state->mutex == current.mutex &&
        state->callback == current.callback && state->stream == current.stream)
        return true;
    g_mutex = state->mutex;
    obx_log_current_level = state->level;
    g_sink = state->sink;
    g_registered = true;
    if (state->sink == OBX_LOG_SINK_CALLBACK) g_callback = state->callback;
    if (state->sink == OBX_LOG_SINK_STDERR || state->sink == OBX_LOG_SINK_FILE) g_stream = state->stream;
    return true;
}

bool obx_logger_has_mutex(void) { return g_mutex != nullptr; }

void obx_log_hexdump(const void* data, size_t size) {
    if (!obx_log_enabled(OBX_LOG_DEBUG) || size == 0 || !data) return;
    const auto* bytes = static_cast<const unsigned char*>(data);
    // Hex column: "XX " a byte and a blank after every eighth. A short last line gets one
    // blank if it holds fewer than 9 bytes, then three per missing byte, so it can end up
    // a blank narrower than a full line.
    char line[64];
    char text[17];
    for (size_t start = 0; start < size; start += 16) {
        line[0] = '\0';
        const size_t count = size - start < 16 ? size - start : 16;
        for (size_t i = 0; i < count; ++i) {
            const unsigned char byte = bytes[start + i];
            char piece[8];
            std::snprintf(piece, sizeof(piece), "%02X ", byte);
            std::strncat(line, piece, sizeof(line) - 1 - std::strlen(line));
            if ((i + 1) % 8 == 0) std::strncat(line, " ", sizeof(line) - 1 - std::strlen(line));
            text[i] = (byte >= 0x20 && byte <= 0x7E) ? static_cast<char>(byte) : '.';
        }
        text[count] = '\0';
        if (count < 16) {
            if (count < 9) std::strncat(line, " ", sizeof(line) - 1 - std::strlen(line));
            for (size_t i = count; i < 16; ++i) std::strncat(line, "   ", sizeof(line) - 1 - std::strlen(line));
        }
        char full[sizeof(line) + sizeof(text) + 4];
        std::snprintf(full, sizeof(full), "%s|  %s ", line, text);
        OBX_LOG_DBG("%s", full);
    }
}
