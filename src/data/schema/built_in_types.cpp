#include "data/schema/built_in_types.h"

#include <cstring>

#include "data/schema/schema.h"
#include "utils/logger.h"

const obx_built_in_type_t obx_built_in_types[] = {
    {OBX_TYPE_BOOL, "bool", 1},
    {OBX_TYPE_CHAR, "char", 1},
    {OBX_TYPE_SHORT, "short", 2},
    {OBX_TYPE_INT, "int", 4},
    {OBX_TYPE_LONG, "long", 8},
    {OBX_TYPE_LONG_LONG, "long long", 8},
    {OBX_TYPE_UNSIGNED_CHAR, "unsigned char", 1},
    {OBX_TYPE_UNSIGNED_SHORT, "unsigned short", 2},
    {OBX_TYPE_UNSIGNED_INT, "unsigned int", 4},
    {OBX_TYPE_UNSIGNED_LONG, "unsigned long", 8},
    {OBX_TYPE_UNSIGNED_LONG_LONG, "unsigned long long", 8},
    {OBX_TYPE_FLOAT, "float", 4},
    {OBX_TYPE_DOUBLE, "double", 8},
    {OBX_TYPE_INT8, "int8_t", 1},
    {OBX_TYPE_INT16, "int16_t", 2},
    {OBX_TYPE_INT32, "int32_t", 4},
    {OBX_TYPE_INT64, "int64_t", 8},
    {OBX_TYPE_UINT8, "uint8_t", 1},
    {OBX_TYPE_UINT16, "uint16_t", 2},
    {OBX_TYPE_UINT32, "uint32_t", 4},
    {OBX_TYPE_UINT64, "uint64_t", 8},
    {OBX_TYPE_TIMESTAMP, "timestamp", 8},
    {OBX_TYPE_COMPOSITE, nullptr, 0},
};

static const obx_built_in_type_t* obx_built_in_row(uint32_t id) {
    if (id == OBX_TYPE_COMPOSITE) return nullptr;
    for (const obx_built_in_type_t* row = obx_built_in_types; row->id != 0; ++row)
        if (row->id == id) return row;
    return nullptr;
}

const char* obx_built_in_type_name(uint32_t id) {
    const obx_built_in_type_t* row = obx_built_in_row(id);
    return row ? row->name : nullptr;
}

uint64_t obx_built_in_type_size(uint32_t id) {
    const obx_built_in_type_t* row = obx_built_in_row(id);
    return row ? row->size : 0;
}

uint32_t obx_built_in_type_id(const char* name) {
    if (!name) return 0;
    for (const obx_built_in_type_t* row = obx_built_in_types; row->id != 0; ++row)
        if (std::strcmp(row->name, name) == 0) return row->id;
    return 0;
}

void obx_built_in_types_print(FILE* stream) {
    if (!stream) return;
    std::fprintf(stream, " %2s %-25s  %-8s\n", "Id", "Name", "Size");
    for (const obx_built_in_type_t* row = obx_built_in_types; row->id != 0; ++row)
        std::fprintf(stream, " %2d %-25s  %-8zu\n", static_cast<int>(row->id), row->name,
                     static_cast<size_t>(row->size));
}

bool obx_schema_register_built_in_types(obx_schema_t* schema) {
    if (!schema) return false;
    for (const obx_built_in_type_t* row = obx_built_in_types; row->id != 0; ++row) {
        if (schema->num_types > OBX_MAX_TYPES - 1) return false;
        obx_type_definition_t* type = obx_type_definition_create(row->name);
        if (!type) {
            OBX_LOG_ERR("[%s] cannot allocate built-in type '%s'", __func__, row->name);
            return false;
        }
        type->id = row->id;
        type->size = row->size;
        schema->types[schema->num_types++] = type;
    }
    return true;
}
