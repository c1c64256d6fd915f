// Feeds arbitrary bytes to the text parsers that read command-line values, list files,
// sysfs texts and version strings, and checks what each promises about its result.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/logger.h"
#include "utils/number_parse.h"
#include "utils/string_array.h"
#include "utils/text.h"
#include "utils/version.h"

namespace {

void check_comma_list(const uint8_t* data, size_t size) {
    obx_string_array_t* list = obx_string_array_from_comma_list(reinterpret_cast<const char*>(data), size);
    if (!list) return;  // an over-long element is refused
    size_t total = 0;
    for (uint64_t i = 0; i < list->count; ++i) {
        const size_t length = std::strlen(list->strings[i]);
        // An element may be empty only when its token began with a zero byte.
        if (std::strchr(list->strings[i], ',') || (length == 0 && !std::memchr(data, 0, size))) std::abort();
        total += length;
    }
    if (total > size) std::abort();
    obx_string_array_t* sorted = nullptr;
    if (!obx_string_array_join(&sorted, list)) std::abort();
    obx_string_array_remove_duplicates(&sorted, true);
    obx_string_array_destroy(sorted);
    obx_string_array_destroy(list);
}

void check_numbers(const char* text) {
    unsigned long long wide = 0;
    const bool wide_ok = obx_str_to_ulonglong(text, &wide);
    uint32_t narrow = 0;
    if (obx_str_to_uint32(text, &narrow) && (!wide_ok || wide != narrow)) std::abort();
    uint8_t byte = 0;
    if (obx_str_to_uint8(text, &byte) && (!wide_ok || wide != byte)) std::abort();
    long value = 0;
    obx_str_to_long(text, &value);
    long long long_value = 0;
    obx_str_to_longlong(text, &long_value);
}

void check_version(const char* text) {
    const uint32_t word = obx_version_from_string(text);
    if (word == 0) return;
    // A parsed version prints to a text that parses back to the same word.
    if (obx_version_from_string(obx_version_to_string(word)) != word) std::abort();
    obx_version_string_is_compatible(text, OBX_VERSION_TEXT);
}

void check_text_helpers(const std::string& text) {
    uint8_t guid[16];
    if (obx_hex_to_guid(text.c_str(), guid)) {
        size_t digits = 0;
        for (char c : text)
            if (obx_hex_digit_value(static_cast<unsigned char>(c)) >= 0) ++digits;
        if (digits != 32) std::abort();
    }

    char visible[17];
    strncpy_visible_ascii(visible, text.c_str(), sizeof(visible));
    if (std::strlen(visible) >= sizeof(visible)) std::abort();
    for (const char* p = visible; *p; ++p)
        if (*p < 0x20 || *p > 0x7E) std::abort();

    std::string copy = text;
    const char* trimmed = obx_str_trim(&copy[0]);
    const size_t length = std::strlen(trimmed);
    if (length > 0 && (std::isspace(static_cast<unsigned char>(trimmed[0])) ||
                       std::isspace(static_cast<unsigned char>(trimmed[length - 1]))))
        std::abort();

    // The text before the first newline is a pattern, the rest a name.
    const size_t newline = text.find('\n');
    if (newline != std::string::npos) {
        const std::string pattern = text.substr(0, newline);
        const std::string name = text.substr(newline + 1);
        obx_string_array_t* patterns = nullptr;
        if (!obx_string_array_append(&patterns, pattern.c_str())) std::abort();
        for (int32_t mode = 0; mode < 4; ++mode) obx_string_array_match(name.c_str(), patterns, mode);
        obx_name_matches_component(name.c_str(), patterns);
        size_t position = 0;
        if (!pattern.empty() && find_ith_substr(name.c_str(), pattern.c_str(), 1, &position) &&
            std::strncmp(name.c_str() + position, pattern.c_str(), pattern.size()) != 0)
            std::abort();
        obx_string_array_destroy(patterns);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = obx_init_stderr_logger(0);
    (void)quiet;

    check_comma_list(data, size);
    int counted = 0;
    obx_strn_to_int(reinterpret_cast<const char*>(data), size, &counted);

    // The other parsers take terminated text; stop at the first NUL as a caller would.
    const std::string text(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    check_numbers(text.c_str());
    check_version(text.c_str());
    check_text_helpers(text);
    return 0;
}
