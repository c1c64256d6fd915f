// Direct export of counter blocks: the JSON text of one block written straight into a
// reused buffer, with the same bytes as printing obx_counters_data_to_json's value
// (pretty or plain), without building the value. The layout of each counters schema is
// worked out once (a plan) and kept until the schemas are forgotten; the counter sets of
// a group, which all show the same values, are rendered once and copied.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct obx_counters_data_t;
struct obx_counters_schema_t;

struct obx_counters_text_writer_t;

obx_counters_text_writer_t* obx_counters_text_writer_create(void);
// Accepts nullptr.
void obx_counters_text_writer_destroy(obx_counters_text_writer_t* writer);

// Drops every plan; call before the schemas they were made for are freed. Accepts nullptr.
void obx_counters_text_writer_forget_schemas(obx_counters_text_writer_t* writer);

// Number of schemas that have a plan.
size_t obx_counters_text_writer_plan_count(const obx_counters_text_writer_t* writer);

void obx_counters_text_writer_clear(obx_counters_text_writer_t* writer);
const char* obx_counters_text_writer_data(const obx_counters_text_writer_t* writer);
size_t obx_counters_text_writer_size(const obx_counters_text_writer_t* writer);

// Appends the pretty or plain text of the block. False, with the buffer as it was, when
// the value path gives no value (a block without its whole head, no memory).
bool obx_counters_text_writer_append(obx_counters_text_writer_t* writer, bool pretty,
                                     const obx_counters_data_t* block, const obx_counters_schema_t* schema);

// The block as the export frames it, with one fwrite: pretty text preceded by ",\n"
// unless `is_first_record`, or plain text and a newline. False, nothing written, when
// the block gives no text.
bool obx_counters_text_writer_print(obx_counters_text_writer_t* writer, bool pretty, bool is_first_record,
                                    const obx_counters_data_t* block, const obx_counters_schema_t* schema,
                                    FILE* stream);
