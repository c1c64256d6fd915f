// JSON value of one event record, built by walking its type definition: fields in
// record order, nested composites, arrays, char arrays as text. This is the library's
// value-building API; the export path writes the same text directly
// (serializers/event_text_writer.h).
#pragma once

#include <jansson.h>

#include <cstdint>

struct obx_type_definition_t;
struct obx_type_field_definition_t;

// A new object (json_decref) of the record's fields, or nullptr when any field fails.
// `record` must hold obx_type_definition_reach(type) bytes (type->size for a layout that
// keeps within its records); the walk itself checks no bounds.
json_t* obx_event_to_json(const obx_type_definition_t* type, const uint8_t* record);

// The whole field at `data`: one element, a text (char and unsigned char arrays) or an
// array. nullptr on failure.
json_t* obx_field_value_to_json(const obx_type_field_definition_t* field, const uint8_t* data);

// One element of the field at `data`: a nested object or a number. nullptr on failure.
json_t* obx_element_to_json(const obx_type_field_definition_t* field, const uint8_t* data);

// A built-in scalar as a JSON number; nullptr for an unknown id or a non-finite value.
json_t* obx_built_in_value_to_json(uint32_t id, const uint8_t* data);

