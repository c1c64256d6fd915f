// The counters schema: groups of counters whose values lie in one flat run in a counter
// block, its JSON form and how offsets and sizes are settled.
#pragma once

#include <cstdint>
#include <cstdio>

#include "counters/counter_group/counter_group.h"
#include "utils/json.h"

#define OBX_COUNTERS_SCHEMA_TITLE "Ombrix performance counters collector"
#define OBX_COUNTERS_SCHEMA_VERSION "1.5.0"
// Most counter sets a group of a schema file may have: far above any machine's CPUs or
// ports; a file that asks for more is refused when loaded.
#define OBX_MAX_COUNTER_SETS 65536u

struct obx_counters_schema_t {
    uint32_t size_of_counters;  // see obx_counters_schema_size_of_counters
    uint32_t num_groups;
    obx_counter_group_t** groups;
};

obx_counters_schema_t* obx_counters_schema_create(void);
// Destroys each group through its provider if it has one. Accepts nullptr.
void obx_counters_schema_destroy(obx_counters_schema_t* schema);
bool obx_counters_schema_add_group(obx_counters_schema_t* schema, obx_counter_group_t* group);

// Decoders: a new schema with offsets and size settled, or nullptr. A version other than
// the current one is logged and read all the same.
obx_counters_schema_t* obx_counters_schema_from_json(const json_t* value);
obx_counters_schema_t* obx_counters_schema_from_string(const char* text);
obx_counters_schema_t* obx_counters_schema_from_file(const char* path);
// "<folder>/schema_<hex digest>.json"; nullptr for a missing or all-zero digest.
obx_counters_schema_t* obx_counters_schema_load_by_id(const uint8_t* digest, const char* folder);

// A new JSON value (caller frees with json_decref), or nullptr.
json_t* obx_counters_schema_jsonify(const obx_counters_schema_t* schema);
// Pretty text; free with obx_json_free_serialized_string. nullptr on failure.
char* obx_counters_schema_to_json_string(const obx_counters_schema_t* schema);
// The pretty text, a newline and a flush.
void obx_counters_schema_print(const obx_counters_schema_t* schema, FILE* stream);

// Lays the counters of all groups out one after the other from offset 0, each taking its
// `length`, or 8 when that is 0. A STRING of length 0 stops the layout at that counter.
void obx_counters_schema_update_counter_offsets(obx_counters_schema_t* schema);
// Sum of `length` over STRING counters and 8 over all others.
uint32_t obx_counters_schema_size_of_counters(const obx_counters_schema_t* schema);
// Sum of num_counters over groups; 0 (and an error line) if a group has more than one set.
uint32_t obx_counters_schema_number_of_counters(const obx_counters_schema_t* schema);
// Sum over groups of num_counter_sets * num_counters.
uint64_t obx_counters_schema_total_values(const obx_counters_schema_t* schema);
// First counter of that exact name, groups and counters in order; nullptr if none.
obx_counter_info_t* obx_counters_schema_find_counter(const obx_counters_schema_t* schema, const char* name);
