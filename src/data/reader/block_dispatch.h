// Rendering one buffer (a whole uncompressed chunk or one decompressed page) by the
// type of its first block: a counters block, a run of event and schemas blocks, or a
// CNTX block. Holds the type filter, the time window of counters blocks and the table
// of what each output format does with a block or an event.
#pragma once

#include <cstddef>
#include <cstdint>

struct obx_reader_context_t;
struct obx_type_definition_t;

// True on success; false ends the file.
bool obx_reader_dispatch(obx_reader_context_t* context, const uint8_t* data, size_t size, bool in_compressed);

// One counters block of `size` bytes. True when it was printed, refused by format or
// skipped by the time window; false when it could not be rendered.
bool obx_reader_print_counters_block(obx_reader_context_t* context, const uint8_t* block, size_t size);

// A run of event and schemas blocks packed back to back. Ends quietly at the first block
// of another type (a zero-filled tail). True on success.
bool obx_reader_walk_event_blocks(obx_reader_context_t* context, const uint8_t* data, size_t size);

// The events of the event block at `block`, of which `remaining` bytes are in the buffer.
// Returns the bytes consumed (at least the 16-byte head), 0 on failure.
size_t obx_reader_print_events(obx_reader_context_t* context, const uint8_t* block, size_t remaining);

// One event record of `type` (at least type->size bytes at `event`) in the context's
// format. True on success, also when the format refuses events.
bool obx_reader_print_event(obx_reader_context_t* context, const obx_type_definition_t* type, const uint8_t* event);

// The -i / -e filter: the type's name matches an include pattern and no exclude pattern.
bool obx_reader_type_selected(const obx_reader_context_t* context, const obx_type_definition_t* type);

// Replaces the type system by the schemas a schemas block lists. Returns the block's own
// size, 0 when the block is bad or a schema fails to load.
size_t obx_reader_load_schemas_block(obx_reader_context_t* context, const uint8_t* block, size_t size);

// As obx_reader_load_schemas_block, but a block that names the same schemas as the
// schemas block that made the current type system leaves it as it is; `reloaded` tells
// which happened. For the companion tools, which meet one such block in every buffer;
// obx_read itself loads each block.
size_t obx_reader_load_schemas_block_if_new(obx_reader_context_t* context, const uint8_t* block, size_t size,
                                            bool* reloaded);

