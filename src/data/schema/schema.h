// A schema: a named, versioned set of up to OBX_MAX_TYPES packed record types, with
// registration of new composite types, lookup by name along the base-schema chain,
// field indexes, type resolution and loading of one schema file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/schema/type_definition.h"

#define OBX_MAX_TYPES 254

// Results of obx_schema_add_type and obx_schema_set_field_indexes.
enum obx_schema_result_t : int {
    OBX_SCHEMA_OK = 0,
    OBX_SCHEMA_NO_MEMORY = 1,
    OBX_SCHEMA_NAME_TAKEN = 2,
    OBX_SCHEMA_BAD_ARGUMENT = 3,  // also: a field names an unknown type
    OBX_SCHEMA_MAX_TYPES_REACHED = 5,
};

// One heap object of a fixed size: `types[type_index]` is a single array access.
struct obx_schema_t {
    uint32_t version;  // packed version word of the provider
    char* name;        // provider name; may be absent
    obx_type_definition_t* types[OBX_MAX_TYPES];
    uint8_t num_types;
    const obx_schema_t* base_schema;  // lookups continue here; not owned
    uint8_t md5_digest[16];
    char md5_digest_str[33];
};

// Zeroed schema with a copy of `name` (if given); nullptr when out of memory.
obx_schema_t* obx_schema_create(const char* name, uint32_t version);
// Accepts nullptr. Destroys the types, the name and the schema; not the base schema.
void obx_schema_destroy(obx_schema_t* schema);

// First type of that exact name in the schema, then along base_schema; nullptr if none.
obx_type_definition_t* obx_schema_find_type(const obx_schema_t* schema, const char* name);
// Size of the found type, or 0.
uint64_t obx_schema_get_type_size(const obx_schema_t* schema, const char* name);

// Registers a packed composite type built from `count` field infos (count at least 1).
// Returns an obx_schema_result_t code; `type_index`, if given, receives the new position.
int obx_schema_add_type(obx_schema_t* schema, const char* type_name, const obx_type_field_info_t* fields_info,
                        size_t count, uint8_t* type_index);

// Numbers the fields named in `names` 1, 2, ... in the given order and clears all other
// indexes of the type. Returns OBX_SCHEMA_OK or OBX_SCHEMA_BAD_ARGUMENT.
int obx_schema_set_field_indexes(obx_schema_t* schema, uint32_t type_index, const char* const* names,
                                 size_t count);

// New array (free() it) of the borrowed names of the indexed fields, in record order;
// nullptr on failure. *out_count is set to 0 first, then to the number of names.
const char** obx_schema_get_indexed_field_names(const obx_schema_t* schema, uint32_t type_index,
                                                size_t* out_count);

// Resolves each field's `type` by name in `schema`; false at the first unknown one.
bool obx_schema_adjust_type_fields(const obx_schema_t* schema, obx_type_definition_t* type);

// No composite type contains itself through its fields (rendering would never end).
// Sizes and offsets are not compared: walkers bound their reads by obx_type_definition_reach.
// Logs what is wrong and gives false.
bool obx_schema_validate_layout(const obx_schema_t* schema);

// The named type in its JSON form as new text (free with obx_json_free_serialized_string);
// plain when `pretty` is 0. nullptr if the type is unknown or has no JSON form.
char* obx_schema_type_to_json_string(const obx_schema_t* schema, const char* name, int pretty);

// Reads, decodes, resolves against `base_schema` and checks one event schema file, then
// fills its digest from the schema encoded anew. nullptr on any failure.
obx_schema_t* obx_schema_load_file(const char* path, const obx_schema_t* base_schema);
