// Loading the schemas a data file names into the reader context's type system.
#pragma once

#include <cstddef>
#include <cstdint>

struct obx_reader_context_t;

// Replaces the context's type system by a new one and loads, in order, every non-zero id of
// `ids` as an event schema (a zero id takes no position), then the counters schema
// named by the context's file header. On failure the context keeps what was loaded so far,
// for obx_reader_close to free. True on success.
bool obx_reader_load_type_system(obx_reader_context_t* context, const uint8_t (*ids)[16], size_t count);

// "<schema_path>/schema_<hex id>.json", newly allocated; nullptr on failure.
char* obx_reader_schema_file_name(const obx_reader_context_t* context, const uint8_t id[16]);
