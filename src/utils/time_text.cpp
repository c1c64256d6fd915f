#include "utils/time_text.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>

namespace {
constexpr size_t kTimeTextSize = 32;
}

bool obx_time_to_string_into(uint64_t timestamp, char* out, size_t size) {
    if (!out || size == 0) return false;
    const uint64_t seconds = timestamp / 1000000u;
    // Milliseconds are cut from the microseconds, never rounded up into the next second.
    const int millis = static_cast<int>((timestamp % 1000000u) / 1000u);
    const time_t when = static_cast<time_t>(seconds);
    struct tm local;
    if (!localtime_r(&when, &local)) return false;
    const int written = std::snprintf(out, size, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                                      millis);
    return written > 0 && static_cast<size_t>(written) < size;
}

char* obx_time_to_string(uint64_t timestamp) {
    char* text = static_cast<char*>(std::malloc(kTimeTextSize));
    if (!text) return nullptr;
    if (!obx_time_to_string_into(timestamp, text, kTimeTextSize)) {
        std::free(text);
        return nullptr;
    }
    return text;
}
