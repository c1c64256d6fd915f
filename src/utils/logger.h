// Process-wide leveled logger: stderr by default, or a file, syslog or a host callback.
// A log call tests the level first and formats nothing for a dropped message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <pthread.h>

enum obx_log_level_t : uint32_t {
    OBX_LOG_ERROR = 3,
    OBX_LOG_WARNING = 4,
    OBX_LOG_INFO = 6,
    OBX_LOG_DEBUG = 7,
};

enum obx_log_sink_t : uint32_t {
    OBX_LOG_SINK_STDERR = 0,
    OBX_LOG_SINK_SYSLOG = 1,
    OBX_LOG_SINK_FILE = 2,
    OBX_LOG_SINK_CALLBACK = 3,
};

#define OBX_LOG_LEVEL_UNSET 0xFFFFFFFFu

typedef void (*obx_log_callback_t)(uint32_t level, const char* format, ...);

struct obx_logger_state_t {
    uint32_t sink;
    FILE* stream;
    obx_log_callback_t callback;
    uint32_t level;
    pthread_mutex_t* mutex;
};

// The level as stored; OBX_LOG_LEVEL_UNSET until first use or an initialiser.
extern uint32_t obx_log_current_level;

void obx_log_write(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void obx_log_init_from_env(void);
bool obx_init_stderr_logger(uint32_t level);
bool obx_init_syslog_logger(const char* ident, uint32_t level);
bool obx_init_file_logger(const char* path, uint32_t level);
void obx_close_logger(void);
uint32_t obx_log_set_level(uint32_t level);
void obx_log_set_callback(obx_log_callback_t callback, uint32_t level);
obx_log_callback_t obx_log_get_callback(void);
obx_logger_state_t* obx_logger_state_export(void);
bool obx_logger_state_import(const obx_logger_state_t* state);
bool obx_logger_has_mutex(void);
void obx_log_hexdump(const void* data, size_t size);

// True when a message of `level` would be written; configures the logger on first use.
static inline bool obx_log_enabled(uint32_t level) {
    if (obx_log_current_level == OBX_LOG_LEVEL_UNSET) obx_log_init_from_env();
    return level <= obx_log_current_level;
}

#define OBX_LOG(level, ...)                                          \
    do {                                                             \
        if (obx_log_enabled(level)) {                                \
            obx_log_callback_t obx_log_cb_ = obx_log_get_callback(); \
            if (obx_log_cb_)                                         \
                obx_log_cb_((level), __VA_ARGS__);                   \
            else                                                     \
                obx_log_write((level), __VA_ARGS__);                 \
        }                                                            \
    } while (0)

#define OBX_LOG_ERR(...) OBX_LOG(OBX_LOG_ERROR, __VA_ARGS__)
#define OBX_LOG_WARN(...) OBX_LOG(OBX_LOG_WARNING, __VA_ARGS__)
#define OBX_LOG_INF(...) OBX_LOG(OBX_LOG_INFO, __VA_ARGS__)
#define OBX_LOG_DBG(...) OBX_LOG(OBX_LOG_DEBUG, __VA_ARGS__)
