// Tables of value and name, ended by a row whose name is nullptr.
#pragma once

#include <cstdint>

struct obx_name_table_t {
    int32_t value;
    const char* name;
};

// Name of the first row with `value`, or nullptr.
const char* obx_enum_to_string(const obx_name_table_t* table, int32_t value);
// Value of the first row whose name equals `text` (strcmp), or -1.
int32_t obx_enum_from_string(const obx_name_table_t* table, const char* text);
