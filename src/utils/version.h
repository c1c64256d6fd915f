// Version words: byte 0 major, byte 1 minor, bytes 2-3 patch.
#pragma once

#include <cstdint>

#define OBX_VERSION_MAJOR 1
#define OBX_VERSION_MINOR 22
#define OBX_VERSION_PATCH 1
#define OBX_VERSION_TEXT "1.22.1"
#define OBX_VERSION_WORD 0x11601u
#define OBX_FORMAT_VERSION_WORD 0x0701u  // data file format 1.7.0

static inline uint32_t obx_version_make(uint8_t major, uint8_t minor, uint16_t patch) {
    return static_cast<uint32_t>(major) | (static_cast<uint32_t>(minor) << 8) | (static_cast<uint32_t>(patch) << 16);
}
static inline uint8_t obx_version_major(uint32_t word) { return static_cast<uint8_t>(word & 0xFF); }
static inline uint8_t obx_version_minor(uint32_t word) { return static_cast<uint8_t>((word >> 8) & 0xFF); }
static inline uint16_t obx_version_patch(uint32_t word) { return static_cast<uint16_t>(word >> 16); }

const char* obx_version_get_string(void);
uint32_t obx_version_get(void);
// "%u.%u.%u" in one static buffer, overwritten by the next call.
const char* obx_version_to_string(uint32_t word);
// sscanf "%hhu.%hhu .%hu"; 0 when fewer than two numbers are read.
uint32_t obx_version_from_string(const char* text);
int obx_version_compare(uint32_t first, uint32_t second);
// Same major, and the reader's minor at least the data's.
bool obx_version_is_compatible(uint32_t data, uint32_t reader);
bool obx_version_string_is_compatible(const char* data_text, const char* reader_text);
