// The schemas a reader has in hand while it walks one data file: the built-in types, up
// to 255 event schemas addressed by position (schema_index) and one counters schema.
#pragma once

#include <cstddef>
#include <cstdint>

#include "counters/counter_group/counters_schema.h"
#include "data/schema/schema.h"
#include "utils/json.h"

#define OBX_MAX_SCHEMAS 255
// out_index of obx_type_system_add_schema when the text was a counters schema.
#define OBX_COUNTERS_SCHEMA_INDEX 255
#define OBX_BUILT_IN_SCHEMA_NAME "<built-in>"
#define OBX_BUILT_IN_SCHEMA_VERSION 1281u  // 1.5.0
#define OBX_TYPE_SYSTEM_NAME "Ombrix type system"

struct obx_type_system_t {
    obx_schema_t* built_in_schema;                  // owned; base schema of every event schema
    obx_schema_t* schemas[OBX_MAX_SCHEMAS];         // owned; position is the schema_index
    uint8_t num_schemas;
    obx_counters_schema_t* counters_schema;         // owned; may be nullptr
    uint8_t counters_md5_digest[16];                // filled on demand; all zero until then
};

// A new system with the built-in types and an empty counters schema; nullptr on failure.
obx_type_system_t* obx_type_system_create(void);
// Accepts nullptr.
void obx_type_system_destroy(obx_type_system_t* system);

// Reads one event schema file, resolves and checks it, and stores it at the next
// position. The schema's digest stays zero. nullptr on failure, the system unchanged.
obx_schema_t* obx_type_system_load_schema_file(obx_type_system_t* system, const char* path);
// Takes text that is an event schema or a counters schema. A counters schema replaces
// the current one and gives out_index OBX_COUNTERS_SCHEMA_INDEX; an event schema whose
// text was added before keeps its first position. 0 on success, -1 on failure.
int obx_type_system_add_schema(obx_type_system_t* system, const char* json_text, uint8_t* out_index);
// Appends an empty schema; nullptr at the limit or when out of memory.
obx_schema_t* obx_type_system_new_schema(obx_type_system_t* system, const char* name, uint32_t version,
                                         uint8_t* out_index);
// Moves all event schemas of `other` behind those of `system`, re-resolved against this
// system's built-ins; `other` is left without schemas. out_index gets the position of
// the first one moved. 0, or -1 (nothing moved) when they do not all fit.
int obx_type_system_add_schemas_of(obx_type_system_t* system, obx_type_system_t* other, uint8_t* out_index);
// Points the schema at the built-ins, resolves every field's type and checks that every
// field lies within its record. True, or false at the first failure.
bool obx_type_system_adjust_schema(obx_type_system_t* system, obx_schema_t* schema);
void obx_type_system_remove_last_schema(obx_type_system_t* system);
// Looks `md5_text` up among the schemas' md5_digest_str.
// The type an event block names: the schema's place among the loaded schemas and the
// low byte of type_index (the high byte is carried in the block but indexes nothing).
// nullptr when either is not there.
const obx_type_definition_t* obx_type_system_event_type(const obx_type_system_t* system, uint8_t schema_index,
                                                        uint16_t type_index);
bool obx_type_system_find_schema(const obx_type_system_t* system, const char* md5_text, uint8_t* out_index);
// Fills every schema's digest and its text anew from the schema encoded anew.
void obx_type_system_recalculate_md5(obx_type_system_t* system);
// Largest record of any event type, capped at the 32-bit range.
uint32_t obx_type_system_max_event_size(const obx_type_system_t* system);
// The larger of the largest event and the counters schema's size of counters.
uint32_t obx_type_system_max_record_size(const obx_type_system_t* system);
// Copies the counters schema's digest (computed on first use) into `digest`. False, with
// `digest` untouched, when there is no counters schema or it cannot be encoded.
bool obx_type_system_counters_md5(obx_type_system_t* system, uint8_t digest[16]);

// The type system text: a new value (json_decref) or text (obx_json_free_serialized_string).
json_t* obx_type_system_to_json(const obx_type_system_t* system);
char* obx_type_system_to_json_string(const obx_type_system_t* system, int pretty);
// A new system from a type system text or a bare counters schema; nullptr on failure.
obx_type_system_t* obx_type_system_from_json(const json_t* value);
obx_type_system_t* obx_type_system_from_json_string(const char* text);
