#include "utils/utf8.h"

#include <cstdint>

bool obx_utf8_is_valid(const char* text, size_t length)
{
    if (!text) return length == 0;
    const auto* bytes = reinterpret_cast<const uint8_t*>(text);
    size_t i = 0;
    while (i < length) {
        const uint8_t first = bytes[i];
        if (first < 0x80) {
            ++i;
            continue;
        }
        size_t count;
        uint32_t value;
        if (first >= 0xC2 && first <= 0xDF) {
            count = 2;
            value = first & 0x1F;
        } else if (first >= 0xE0 && first <= 0xEF) {
            count = 3;
            value = first & 0x0F;
        } else if (first >= 0xF0 && first <= 0xF4) {
            count = 4;
            value = first & 0x07;
        } else {
            return false;  // a continuation byte, 0xC0/0xC1 or above 0xF4
        }
        if (count > length - i) return false;
        for (size_t k = 1; k < count; ++k) {
            const uint8_t next = bytes[i + k];
            if (next < 0x80 || next > 0xBF) return false;
            value = (value << 6) | (next & 0x3F);
        }
        if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
        if ((count == 3 && value < 0x800) || (count == 4 && value < 0x10000)) return false;
        i += count;
    }
    return true;
}
