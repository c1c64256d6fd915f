// The three enumerations of the counters schema and their texts. Lookups by text are
// exact; an unknown value or text gives nullptr or -1.
#pragma once

#include <cstdint>

#include "utils/name_table.h"

enum obx_counter_data_type_t : int32_t {
    OBX_COUNTER_DATA_TYPE_UNDEFINED = 0,
    OBX_COUNTER_DATA_TYPE_UINT64 = 1,
    OBX_COUNTER_DATA_TYPE_FP64 = 2,
    OBX_COUNTER_DATA_TYPE_BIT64 = 3,
    OBX_COUNTER_DATA_TYPE_INT64 = 4,
    OBX_COUNTER_DATA_TYPE_STRING = 5,
};

// What one counter set of a group stands for.
enum obx_counter_granularity_t : int32_t {
    OBX_COUNTER_GRANULARITY_NODE = 0,
    OBX_COUNTER_GRANULARITY_CPU = 1,
    OBX_COUNTER_GRANULARITY_PACKAGE = 2,
};

enum obx_counter_counting_type_t : int32_t {
    OBX_COUNTER_COUNTING_TYPE_ABSOLUTE = 0,
    OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM = 1,
};

extern const obx_name_table_t obx_counter_data_type_names[];
extern const obx_name_table_t obx_counter_granularity_names[];
extern const obx_name_table_t obx_counter_counting_type_names[];

const char* obx_counter_data_type_to_string(int32_t data_type);
int32_t obx_counter_data_type_from_string(const char* text);
const char* obx_counter_granularity_to_string(int32_t granularity);
int32_t obx_counter_granularity_from_string(const char* text);
const char* obx_counter_counting_type_to_string(int32_t counting_type);
int32_t obx_counter_counting_type_from_string(const char* text);

// Bytes one value takes in a counter block: `length` for a STRING, 8 for every other type.
uint32_t obx_counter_data_type_size(int32_t data_type, uint32_t length);
