// Shared by the fuzz targets.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace obx_fuzz {

// Log callback that formats every message, so the log arguments are exercised, and drops it.
inline void discard_log(uint32_t, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
}

}  // namespace obx_fuzz
