// Small text helpers: booleans, trim, template expansion, hexadecimal, concatenation,
// substrings, bounded and printable copies. A result that must be freed says so.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

bool obx_str_to_bool(const char* text);
const char* obx_bool_to_str(bool value);

// Trims in place; returns a pointer inside `text`.
char* obx_str_trim(char* text);

// printf-style text in a new allocation (caller frees); nullptr on failure.
char* obx_string_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
char* obx_string_vformat(const char* format, va_list args);

int obx_hex_digit_value(int character);
bool obx_hex_to_guid(const char* text, uint8_t out[16]);

// New texts (caller frees).
char* string_concat(const char* first, const char* second);
char* string_concat_comma_separated_token(const char* list, const char* token);
char* obx_str_basename(const char* path);

bool find_ith_substr(const char* text, const char* pattern, size_t index, size_t* position_out);
bool obx_str_ends_with(const char* text, const char* suffix);
size_t obx_str_copy_bounded(char* destination, size_t destination_size, const char* source, size_t length);
char* strncpy_visible_ascii(char* destination, const char* source, size_t length);

// " %*lld |" up to 999, else " %*lld k |" with width - 2 and value / 1000.
void obx_print_counter_value(FILE* stream, int width, long long value);
