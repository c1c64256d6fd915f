#include "utils/number_parse.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// The whole text must be read: at least one character consumed and nothing left.
bool read_whole(const char* text, const char* end) { return end != text && *end == '\0'; }

bool parse_ull(const char* text, unsigned long long* out) {
    if (!text || !out) return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 0);
    const int error = errno;
    if (!read_whole(text, end)) return false;
    if (value == ULLONG_MAX && error == ERANGE) return false;
    if (error != 0 && value == 0) return false;
    *out = value;
    return true;
}

}  // namespace

bool obx_str_to_long(const char* text, long* out) {
    if (!text || !out) return false;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 0);
    const int error = errno;
    if (!read_whole(text, end)) return false;
    if ((value == LONG_MAX || value == LONG_MIN) && error == ERANGE) return false;
    if (error != 0 && value == 0) return false;
    *out = value;
    return true;
}

bool obx_str_to_ulong(const char* text, unsigned long* out) {
    if (!text || !out) return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 0);
    const int error = errno;
    if (!read_whole(text, end)) return false;
    if (value == ULONG_MAX && error == ERANGE) return false;
    if (error != 0 && value == 0) return false;
    *out = value;
    return true;
}

bool obx_str_to_longlong(const char* text, long long* out) {
    if (!text || !out) return false;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 0);
    const int error = errno;
    if (!read_whole(text, end)) return false;
    if ((value == LLONG_MAX || value == LLONG_MIN) && error == ERANGE) return false;
    if (error != 0 && value == 0) return false;
    *out = value;
    return true;
}

bool obx_str_to_ulonglong(const char* text, unsigned long long* out) { return parse_ull(text, out); }

bool obx_str_to_uint8(const char* text, uint8_t* out) {
    unsigned long long value = 0;
    if (!out || !parse_ull(text, &value) || value > UINT8_MAX) return false;
    *out = static_cast<uint8_t>(value);
    return true;
}

bool obx_str_to_uint16(const char* text, uint16_t* out) {
    unsigned long long value = 0;
    if (!out || !parse_ull(text, &value) || value > UINT16_MAX) return false;
    *out = static_cast<uint16_t>(value);
    return true;
}

bool obx_str_to_uint32(const char* text, uint32_t* out) {
    unsigned long long value = 0;
    if (!out || !parse_ull(text, &value) || value > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(value);
    return true;
}

bool obx_str_to_uint64(const char* text, uint64_t* out) {
    unsigned long long value = 0;
    if (!out || !parse_ull(text, &value)) return false;
    *out = static_cast<uint64_t>(value);
    return true;
}

bool obx_strn_to_int(const char* text, size_t length, int* out) {
    if (!text || !out) return false;
    // Any int fits in far fewer characters; a longer field is not a number we take.
    char copy[64];
    const size_t used = strnlen(text, length);
    if (used >= sizeof(copy)) return false;
    std::memcpy(copy, text, used);
    copy[used] = '\0';
    long value = 0;
    if (!obx_str_to_long(copy, &value) || value < INT_MIN || value > INT_MAX) return false;
    *out = static_cast<int>(value);
    return true;
}
