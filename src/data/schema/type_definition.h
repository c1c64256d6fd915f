// Record types of the schema model: a composite type and its fields, the counting mode
// of a field, and how far a record's rendering reads.
#pragma once

#include <cstddef>
#include <cstdint>

#include "utils/name_table.h"

// How a field's value behaves over time; kept and written back, never interpreted.
enum obx_counting_mode_t : int32_t {
    OBX_COUNTING_MODE_UNKNOWN = -1,  // the text in the schema file was not recognised
    OBX_COUNTING_MODE_ABSOLUTE = 0,
    OBX_COUNTING_MODE_RUNNING_SUM = 1,
};

// "ABSOLUTE" and "RUNNING_SUM"; shared with the counters schema, which uses the same words.
extern const obx_name_table_t obx_counting_mode_names[];

struct obx_type_definition_t;

// One field of a composite type, owned by its type.
struct obx_type_field_definition_t {
    char* field_name;
    char* description;
    char* type_name;
    uint64_t type_size;      // size of one element
    int32_t counting_mode;   // obx_counting_mode_t
    uint16_t array_length;   // 1 for a scalar
    uint64_t offset;         // from the start of the record
    // Resolved type, not owned; set by registration or obx_schema_adjust_type_fields and
    // read without a check by the renderers.
    obx_type_definition_t* type;
    uint16_t index;          // 0: not indexed, otherwise the 1-based place in the index
};

// One type, owned by its schema. Built-ins have an id and no fields; composites id 0.
struct obx_type_definition_t {
    char* name;
    uint32_t id;
    uint16_t num_fields;
    obx_type_field_definition_t** fields;  // num_fields pointers, in record order
    uint64_t size;                         // one record in bytes
};

// What a caller gives for one field of a new type; the texts are copied.
struct obx_type_field_info_t {
    const char* field_name;
    const char* description;
    const char* type_name;
    int32_t counting_mode;
    uint16_t array_length;  // at least 1
};

// A zeroed type with a copy of `name` (which may be absent); nullptr when out of memory.
obx_type_definition_t* obx_type_definition_create(const char* name);
// Frees the fields (their three texts too), the array, the name and the type.
void obx_type_definition_destroy(obx_type_definition_t* type);

// A zeroed field definition; nullptr when out of memory.
obx_type_field_definition_t* obx_type_field_definition_create(void);
void obx_type_field_definition_destroy(obx_type_field_definition_t* field);

// Layouts read from schema files are trusted as they are: a field may lie past its record's
// `size` and reach into the bytes behind it. This is how far from a record's start its
// rendering reads (nested types and arrays included; an unresolved field reads nothing),
// so a walker can check it against the bytes really in its buffer. UINT64_MAX when it
// cannot be bounded (a type that contains itself, or sums past 64 bits).
uint64_t obx_type_definition_reach(const obx_type_definition_t* type);
