// Parses arbitrary bytes as JSON; whatever parses must print both ways, read back to
// the same text, validate against itself and hash without trouble.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    json_t* value = obx_json_parse_buffer(reinterpret_cast<const char*>(data), size);
    if (!value) return 0;

    // The first byte picks the slash setting, so both printers' branches are reached.
    obx_json_set_escape_slashes(size > 0 && (data[0] & 1));
    std::string plain;
    std::string pretty;
    if (!obx_json_append_value(plain, value, false, 0) || !obx_json_append_value(pretty, value, true, 0))
        std::abort();  // a parsed value always has a text

    // Printed text reads back to a value with the same text (numbers keep 17 digits).
    for (const std::string* text : {&plain, &pretty}) {
        json_t* reread = obx_json_parse_buffer(text->data(), text->size());
        if (!reread) std::abort();
        std::string again;
        if (!obx_json_append_value(again, reread, false, 0) || again != plain) std::abort();
        json_decref(reread);
    }

    obx_json_validate(value, value);
    char hex[33];
    if (!obx_json_md5_hex(hex, value) || std::strlen(hex) != 32) std::abort();
    obx_json_set_escape_slashes(1);
    json_decref(value);
    return 0;
}
