#include "utils/version.h"

#include <cstdio>

const char* obx_version_get_string(void) { return OBX_VERSION_TEXT; }

uint32_t obx_version_get(void) { return OBX_VERSION_WORD; }

const char* obx_version_to_string(uint32_t word) {
    static char buffer[16];
    std::snprintf(buffer, sizeof(buffer), "%u.%u.%u", static_cast<unsigned>(obx_version_major(word)),
                  static_cast<unsigned>(obx_version_minor(word)), static_cast<unsigned>(obx_version_patch(word)));
    return buffer;
}

uint32_t obx_version_from_string(const char* text) {
    if (!text) return 0;
    unsigned char major = 0;
    unsigned char minor = 0;
    unsigned short patch = 0;
    // The blank before the second dot lets "1.5 .2" through; major and minor are required.
    if (std::sscanf(text, "%hhu.%hhu .%hu", &major, &minor, &patch) < 2) return 0;
    return obx_version_make(major, minor, patch);
}

int obx_version_compare(uint32_t first, uint32_t second) {
    const int major = static_cast<int>(obx_version_major(first)) - static_cast<int>(obx_version_major(second));
    if (major != 0) return major;
    return static_cast<int>(obx_version_minor(first)) - static_cast<int>(obx_version_minor(second));
}

bool obx_version_is_compatible(uint32_t data, uint32_t reader) {
    return obx_version_major(data) == obx_version_major(reader) && obx_version_minor(data) <= obx_version_minor(reader);
}

bool obx_version_string_is_compatible(const char* data_text, const char* reader_text) {
    const uint32_t data = obx_version_from_string(data_text);
    const uint32_t reader = obx_version_from_string(reader_text);
    if (data == 0 || reader == 0) return false;
    return obx_version_is_compatible(data, reader);
}
