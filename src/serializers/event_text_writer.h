// Direct export of event records: the text of one record is written straight into a
// reused buffer, with the same bytes as printing obx_event_to_json's value (pretty or
// plain) or as obx_influx_serialize_event, but without building values, serializers or
// per-field texts. What each type needs is worked out once per type (a plan) and kept
// until the types are forgotten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct obx_type_definition_t;

enum obx_event_text_form_t : uint32_t {
    OBX_EVENT_TEXT_JSON_PRETTY = 0,  // obx_json_serialize_to_string_pretty of the event's value
    OBX_EVENT_TEXT_JSON_PLAIN = 1,   // obx_json_serialize_to_string of it
    OBX_EVENT_TEXT_INFLUX = 2,       // obx_influx_serialize_event
    OBX_EVENT_TEXT_INFLUX_FAITHFUL = 3,  // the field set of obx::data::InfluxSerializer with `faithful` on
};

struct obx_event_text_writer_t;

obx_event_text_writer_t* obx_event_text_writer_create(void);
// Accepts nullptr.
void obx_event_text_writer_destroy(obx_event_text_writer_t* writer);

// Drops every plan. Plans point into type definitions: call this before the types they
// were made for are freed (a type system replaced). Accepts nullptr.
void obx_event_text_writer_forget_types(obx_event_text_writer_t* writer);

// Number of types that have a plan (nested types count too).
size_t obx_event_text_writer_plan_count(const obx_event_text_writer_t* writer);

// The buffer: emptied by clear, its storage kept for the next record.
void obx_event_text_writer_clear(obx_event_text_writer_t* writer);
const char* obx_event_text_writer_data(const obx_event_text_writer_t* writer);
size_t obx_event_text_writer_size(const obx_event_text_writer_t* writer);
// Appends raw bytes (separators). False when memory ran out.
bool obx_event_text_writer_append_bytes(obx_event_text_writer_t* writer, const char* bytes, size_t length);

// Appends the text of one record in `form`. On failure (a NaN or infinite float, a text
// that is not UTF-8, an unusable type, no memory) the buffer is left as it was and the
// result is false; text fields that fail log as the value path does.
bool obx_event_text_writer_append_event(obx_event_text_writer_t* writer, obx_event_text_form_t form,
                                        const obx_type_definition_t* type, const uint8_t* record);

// One event as the export frames it, written with a single fwrite: pretty JSON preceded
// by ",\n" unless `is_first_record`; plain JSON and a newline; Influx fields and a
// newline. False, with nothing written, when the record cannot be rendered.
bool obx_event_text_writer_print(obx_event_text_writer_t* writer, obx_event_text_form_t form, bool is_first_record,
                                 const obx_type_definition_t* type, const uint8_t* record, FILE* stream);
