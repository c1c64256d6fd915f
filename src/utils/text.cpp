#include "utils/text.h"

#include <time.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "utils/logger.h"

bool obx_str_to_bool(const char* text) {
    // A missing value means the setting is on.
    if (!text) return true;
    return std::strcmp(text, "1") == 0 || std::strcmp(text, "True") == 0 || std::strcmp(text, "true") == 0;
}

const char* obx_bool_to_str(bool value) { return value ? "true" : "false"; }

char* obx_str_trim(char* text) {
    if (!text) return nullptr;
    while (std::isspace(static_cast<unsigned char>(*text))) ++text;
    char* end = text + std::strlen(text);
    while (end > text && std::isspace(static_cast<unsigned char>(end[-1]))) --end;
    *end = '\0';
    return text;
}

char* obx_string_format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* text = obx_string_vformat(format, args);
    va_end(args);
    return text;
}

char* obx_string_vformat(const char* format, va_list args) {
    if (!format) {
        OBX_LOG_ERR("Failed to calculate length of expanded string template");
        return nullptr;
    }
    va_list sizing;
    va_copy(sizing, args);
    const int size = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    if (size < 0) {
        OBX_LOG_ERR("Failed to calculate length of expanded string template");
        return nullptr;
    }
    char* text = static_cast<char*>(std::malloc(static_cast<size_t>(size) + 1));
    if (!text) {
        OBX_LOG_ERR("Failed to allocate buffer for expanded string of size %d: %s", size, std::strerror(errno));
        return nullptr;
    }
    const int written = std::vsnprintf(text, static_cast<size_t>(size) + 1, format, args);
    if (written != size) {
        OBX_LOG_ERR("Failed to expand file string template");
        std::free(text);
        return nullptr;
    }
    return text;
}

int obx_hex_digit_value(int character) {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

bool obx_hex_to_guid(const char* text, uint8_t out[16]) {
    if (!text || !out || text[0] == '\0') return false;
    uint8_t bytes[16];
    size_t count = 0;
    int high = -1;  // first digit of a pair still waiting for its second
    for (const char* p = text; *p; ++p) {
        if (*p == '-') continue;
        const int digit = obx_hex_digit_value(static_cast<unsigned char>(*p));
        if (digit < 0) return false;
        if (high < 0) {
            high = digit;
            continue;
        }
        if (count == sizeof(bytes)) return false;
        bytes[count++] = static_cast<uint8_t>((high << 4) | digit);
        high = -1;
    }
    if (high >= 0 || count != sizeof(bytes)) return false;
    std::memcpy(out, bytes, sizeof(bytes));
    return true;
}

char* string_concat(const char* first, const char* second) {
    if (!first || !second) {
        OBX_LOG_ERR("[%s] invalid input", __func__);
        return nullptr;
    }
    const size_t size = std::strlen(first) + std::strlen(second) + 1;
    char* text = static_cast<char*>(std::malloc(size));
    if (!text) {
        OBX_LOG_ERR("[%s] Failed in malloc", __func__);
        return nullptr;
    }
    std::snprintf(text, size, "%s%s", first, second);
    return text;
}

char* string_concat_comma_separated_token(const char* list, const char* token) {
    if (!token) {
        OBX_LOG_ERR("[%s] invalid input", __func__);
        return nullptr;
    }
    const bool empty_list = !list || list[0] == '\0';
    const size_t size = (empty_list ? 0 : std::strlen(list) + 1) + std::strlen(token) + 1;
    char* text = static_cast<char*>(std::malloc(size));
    if (!text) {
        OBX_LOG_ERR("[%s] Failed in malloc", __func__);
        return nullptr;
    }
    if (empty_list)
        std::snprintf(text, size, "%s", token);
    else
        std::snprintf(text, size, "%s,%s", list, token);
    return text;
}

bool find_ith_substr(const char* text, const char* pattern, size_t index, size_t* position_out) {
    // An empty pattern would match everywhere and never advance.
    if (!text || !pattern || !position_out || pattern[0] == '\0') {
        OBX_LOG_ERR("[%s] invalid input", __func__);
        return false;
    }
    size_t seen = 0;
    // Advancing one character past each hit lets overlapping hits count.
    for (const char* hit = std::strstr(text, pattern); hit; hit = std::strstr(hit + 1, pattern)) {
        if (seen == index) {
            *position_out = static_cast<size_t>(hit - text);
            return true;
        }
        ++seen;
    }
    return false;
}

char* obx_str_basename(const char* path) {
    if (!path || path[0] == '\0') return nullptr;
    const char* slash = std::strrchr(path, '/');
    return strdup(slash ? slash + 1 : path);
}

bool obx_str_ends_with(const char* text, const char* suffix) {
    if (!text || !suffix) return false;
    const size_t text_length = std::strlen(text);
    const size_t suffix_length = std::strlen(suffix);
    return suffix_length <= text_length && std::memcmp(text + text_length - suffix_length, suffix, suffix_length) == 0;
}

size_t obx_str_copy_bounded(char* destination, size_t destination_size, const char* source, size_t length) {
    if (!destination || destination_size == 0) return 0;
    if (!source) {
        destination[0] = '\0';
        return 0;
    }
    const size_t count = length < destination_size ? length : destination_size - 1;
    std::memcpy(destination, source, count);
    destination[count] = '\0';
    return count;
}

namespace {

bool is_visible(unsigned char byte) { return byte >= 0x20 && byte <= 0x7E; }

uint64_t realtime_micros() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// One message in ten seconds at most: a caller stuck in a loop must not flood the log.
bool may_log_now(uint64_t* last) {
    const uint64_t now = realtime_micros();
    if (now - *last <= 9999999u) return false;
    *last = now;
    return true;
}

uint64_t g_last_null_destination = 0;
uint64_t g_last_null_source = 0;
uint64_t g_last_zero_length = 0;

}  // namespace

char* strncpy_visible_ascii(char* destination, const char* source, size_t length) {
    if (!destination) {
        if (may_log_now(&g_last_null_destination)) OBX_LOG_ERR("%s: Destination buffer is NULL", __func__);
        return destination;
    }
    if (!source) {
        if (may_log_now(&g_last_null_source)) OBX_LOG_ERR("%s: Source string is NULL", __func__);
        return destination;
    }
    if (length == 0) {
        if (may_log_now(&g_last_zero_length)) OBX_LOG_ERR("%s: Length is 0", __func__);
        return destination;
    }
    const unsigned char first = static_cast<unsigned char>(source[0]);
    if (first != '\0' && !is_visible(first)) {
        std::strncpy(destination, "N/A", length);
        destination[length - 1] = '\0';  // keeps a short buffer terminated
        return destination;
    }
    std::memset(destination, 0, length);
    for (size_t i = 0; i + 1 < length && is_visible(static_cast<unsigned char>(source[i])); ++i)
        destination[i] = source[i];
    return destination;
}

void obx_print_counter_value(FILE* stream, int width, long long value) {
    if (!stream) return;
    if (value <= 999)
        std::fprintf(stream, " %*lld |", width, value);
    else
        std::fprintf(stream, " %*lld k |", width - 2, value / 1000);
}
