// The constant table of built-in scalar types. Ids are stable: data files and the
// renderers depend on them.
#pragma once

#include <cstdint>
#include <cstdio>

struct obx_schema_t;

enum obx_built_in_type_id_t : uint32_t {
    OBX_TYPE_COMPOSITE = 0,  // ends the table; in a type definition: a composite type
    OBX_TYPE_BOOL = 1,
    OBX_TYPE_CHAR = 2,
    OBX_TYPE_SHORT = 3,
    OBX_TYPE_INT = 4,
    OBX_TYPE_LONG = 5,
    OBX_TYPE_LONG_LONG = 6,
    OBX_TYPE_UNSIGNED_CHAR = 7,
    OBX_TYPE_UNSIGNED_SHORT = 8,
    OBX_TYPE_UNSIGNED_INT = 9,
    OBX_TYPE_UNSIGNED_LONG = 10,
    OBX_TYPE_UNSIGNED_LONG_LONG = 11,
    OBX_TYPE_FLOAT = 12,
    OBX_TYPE_DOUBLE = 13,
    OBX_TYPE_INT8 = 14,
    OBX_TYPE_INT16 = 15,
    OBX_TYPE_INT32 = 16,
    OBX_TYPE_INT64 = 17,
    OBX_TYPE_UINT8 = 18,
    OBX_TYPE_UINT16 = 19,
    OBX_TYPE_UINT32 = 20,
    OBX_TYPE_UINT64 = 21,
    OBX_TYPE_TIMESTAMP = 22,  // unsigned 64-bit microseconds since the epoch
};

#define OBX_BUILT_IN_TYPE_COUNT 22

struct obx_built_in_type_t {
    uint32_t id;
    const char* name;
    uint64_t size;
};

// OBX_BUILT_IN_TYPE_COUNT rows in id order, then a row of id 0 and no name.
extern const obx_built_in_type_t obx_built_in_types[];

// Name of the row, or nullptr for id 0 and ids outside the table.
const char* obx_built_in_type_name(uint32_t id);
// Size of the row, or 0 for id 0 and ids outside the table.
uint64_t obx_built_in_type_size(uint32_t id);
// Id of the row with exactly that name, or 0.
uint32_t obx_built_in_type_id(const char* name);
// Header line and one line per row, in table order.
void obx_built_in_types_print(FILE* stream);

// Appends one type definition per row (name, id, size, no fields) to the schema's types.
// False when out of memory or when the schema has no room for another row.
bool obx_schema_register_built_in_types(obx_schema_t* schema);
