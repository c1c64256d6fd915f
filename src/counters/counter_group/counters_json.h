// Helpers shared by the decoders of counters schemas, groups and counters.
#pragma once

#include <cstdint>

#include "utils/json.h"

// True when `value` has every key of `template_text` with the template's JSON type.
// Logs at error level when the template cannot be parsed or the value does not match.
bool obx_counters_json_matches(const json_t* value, const char* template_text);

// A number member as unsigned 32 bits: absent, negative or fractional parts truncate
// towards 0, and values past the top of the range stay at the top.
uint32_t obx_counters_json_get_u32(const json_t* object, const char* key);
