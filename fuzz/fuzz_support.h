// Shared by the fuzz targets.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "utils/logger.h"

namespace obx_fuzz {

// Log callback that formats every message, so the log arguments are exercised, and drops it.
inline void discard_log(uint32_t, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
}

// Formats and drops every log line from the first call on, once per process.
inline void quiet_log() {
    static const bool done = (obx_log_set_callback(discard_log, OBX_LOG_DEBUG), true);
    (void)done;
}

// Sends standard output to /dev/null while it lives; pending output is flushed on both edges.
class StdoutToNull {
public:
    StdoutToNull() : saved_((std::fflush(stdout), dup(STDOUT_FILENO))), null_(open("/dev/null", O_WRONLY)) {
        if (saved_ >= 0 && null_ >= 0) dup2(null_, STDOUT_FILENO);
    }
    ~StdoutToNull() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
        if (null_ >= 0) close(null_);
    }
    StdoutToNull(const StdoutToNull&) = delete;
    StdoutToNull& operator=(const StdoutToNull&) = delete;

private:
    int saved_;
    int null_;
};

}  // namespace obx_fuzz
