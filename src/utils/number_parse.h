// Strict number parsing: base 0, the whole text must be a number, overflow fails.
#pragma once

#include <cstddef>
#include <cstdint>

bool obx_str_to_long(const char* text, long* out);
bool obx_str_to_ulong(const char* text, unsigned long* out);
bool obx_str_to_longlong(const char* text, long long* out);
bool obx_str_to_ulonglong(const char* text, unsigned long long* out);
bool obx_str_to_uint8(const char* text, uint8_t* out);
bool obx_str_to_uint16(const char* text, uint16_t* out);
bool obx_str_to_uint32(const char* text, uint32_t* out);
bool obx_str_to_uint64(const char* text, uint64_t* out);
bool obx_strn_to_int(const char* text, size_t length, int* out);
