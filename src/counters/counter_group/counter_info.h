// One counter of a counters schema: its name, data type and place in the run of values.
#pragma once

#include <cstdint>

#include "utils/json.h"

struct obx_counter_info_t {
    uint32_t id;              // set by whoever builds the counter; 0 after decoding
    char* name;
    char* description;
    char* units;
    int32_t data_type;        // obx_counter_data_type_t, or -1 when unknown
    int32_t counting_type;    // obx_counter_counting_type_t, or -1 when unknown
    uint32_t offset;          // byte offset of the value from the start of the values
    uint32_t length;          // size of a STRING value in bytes
    uint32_t reserved;
    uint8_t hidden;           // carried through JSON only
    uint8_t mandatory;        // carried through JSON only
};

// Deep copy on the heap; `hidden` is deliberately not carried over. nullptr on failure.
obx_counter_info_t* obx_counter_info_copy(const obx_counter_info_t* counter);
// Frees the three texts and empties them; the caller frees the record itself.
void obx_counter_info_destroy(obx_counter_info_t* counter);

// The counter's JSON object, keys in file order; nullptr when the object cannot be made.
// A text that JSON cannot hold (an unknown data type, say) leaves its key out.
json_t* obx_counter_info_to_json(const obx_counter_info_t* counter);
// A new heap counter from its JSON object; nullptr when the object does not qualify.
// `offset` is taken as written; the schema computes it anew.
obx_counter_info_t* obx_counter_info_from_json(const json_t* value);
