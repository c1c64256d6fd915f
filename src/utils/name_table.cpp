#include "utils/name_table.h"

#include <cstring>

const char* obx_enum_to_string(const obx_name_table_t* table, int32_t value) {
    if (!table) return nullptr;
    for (const obx_name_table_t* row = table; row->name; ++row)
        if (row->value == value) return row->name;
    return nullptr;
}

int32_t obx_enum_from_string(const obx_name_table_t* table, const char* text) {
    if (!table || !text) return -1;
    for (const obx_name_table_t* row = table; row->name; ++row)
        if (std::strcmp(row->name, text) == 0) return row->value;
    return -1;
}
