// Microseconds since the epoch as local time text with milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>

// "%04d-%02d-%02d %02d:%02d:%02d.%03d" in a new allocation (caller frees); nullptr on failure.
char* obx_time_to_string(uint64_t timestamp);
// The same into the caller's buffer of at least 32 bytes; false on failure.
bool obx_time_to_string_into(uint64_t timestamp, char* out, size_t size);
