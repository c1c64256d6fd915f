// A counter block (16-byte head, then the flat run of counter values) and how it is
// rendered: a JSON object for the json and ndjson outputs, text tables for txt, and the
// printers of a block's head and of a group's definition.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counters_schema.h"

// Width of one cell in the text tables, and of one value slot in the table grid.
#define OBX_COUNTER_CELL_WIDTH 20
#define OBX_COUNTER_SLOT_SIZE 8u

// A counter block as the bytes that hold it. The block is never cast to a record: the
// head is read through the little-endian helpers, and every value is checked against
// `size` before it is read, whatever the counters schema claims.
struct obx_counters_data_t {
    const uint8_t* bytes;  // magic, padding, timestamp, values
    size_t size;           // bytes available from `bytes` on
};

// Values start 16 bytes into the block; a block shorter than that has no values.
uint64_t obx_counters_data_timestamp(const obx_counters_data_t* block);
const uint8_t* obx_counters_data_values(const obx_counters_data_t* block);
size_t obx_counters_data_values_size(const obx_counters_data_t* block);
// False, with the error line, for a block without a whole 16-byte head.
bool obx_counters_data_has_head(const obx_counters_data_t* block);
// Bytes of `counter`'s value at its offset, or nullptr (with a debug line) when the value
// does not lie wholly within the `available` bytes of values. Offsets come from schema
// files and the offset rule differs from the size rule, so the schema alone is not trusted.
const uint8_t* obx_counters_data_counter_value(const obx_counter_info_t* counter, const uint8_t* values,
                                               size_t available);

// A new object {"timestamp", "@timestamp", "groups"} (json_decref), or nullptr when the
// block has no whole head or a value cannot be made. A counter whose value lies beyond
// the block, or that JSON cannot hold (a NaN, a STRING that is not UTF-8), leaves its
// key out. `schema` may be empty only in the sense of having no groups.
json_t* obx_counters_data_to_json(const obx_counters_data_t* block, const obx_counters_schema_t* schema);

// "Data collected at ..." and one table per group. Every table reads the grid of 8-byte
// slots from the start of the values; a slot beyond the block prints as an empty cell.
void obx_counters_data_print(FILE* stream, const obx_counters_data_t* block, const obx_counters_schema_t* schema);

// Writes the head of a new block of `size` bytes: "OBXD", zero padding and the current
// real time in microseconds. False when `size` cannot hold the head.
bool obx_counters_data_init(uint8_t* block, size_t size);
// "Data block", the magic and the timestamp; nothing for a block without a whole head.
void obx_counters_data_print_head(FILE* stream, const obx_counters_data_t* block);
// Field table of the block head on standard output.
void obx_counters_data_print_layout(void);

// Zeroes num_counter_sets * num_counters 8-byte values at `values`.
void obx_counter_group_values_clear(const obx_counter_group_t* group, void* values);
// The group's definition: granularity, number of sets and one line per counter.
void obx_counter_group_print(const obx_counter_group_t* group, FILE* stream);
// "| name | description |" of one counter.
void obx_counter_info_print(const obx_counter_info_t* counter, FILE* stream);
