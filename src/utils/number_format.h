// Number printers that give exactly the bytes of glibc's printf for the formats the
// exports use, without going through printf for the common values. Each writes at
// `out` (room for OBX_NUMBER_TEXT_MAX bytes unless said otherwise), puts a terminating
// zero behind the text and returns the text's length.
#pragma once

#include <cstddef>
#include <cstdint>

// Longest text of obx_format_g17 and the integer printers, with its zero.
#define OBX_NUMBER_TEXT_MAX 32u
// Longest text of obx_format_fixed6 ("%f" of -DBL_MAX), with its zero.
#define OBX_FIXED6_TEXT_MAX 320u

// "%lu" and "%ld".
size_t obx_format_u64(char* out, uint64_t value);
size_t obx_format_i64(char* out, int64_t value);

// "%1.17g": 17 significant digits, correctly rounded (ties to even), trailing zeros
// dropped, exponent form below 1e-4 and from 1e17 on.
size_t obx_format_g17(char* out, double value);

// "%f": six decimals, correctly rounded (ties to even). `out` needs OBX_FIXED6_TEXT_MAX bytes.
size_t obx_format_fixed6(char* out, double value);
