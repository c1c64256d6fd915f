// The JSON form of schemas, types and fields, with validation on reading, the version
// gate of event schema files, and schema ids (MD5 digests) in binary and text.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>

#include "data/schema/schema.h"

// Version written into and required from schema texts.
#define OBX_SCHEMA_JSON_VERSION_TEXT "1.5.0"
#define OBX_SCHEMA_JSON_VERSION_WORD 0x0501u  // 1281
// Oldest type system / schema writer text that is still understood.
#define OBX_SCHEMA_MIN_VERSION_TEXT "1.4.0"
#define OBX_SCHEMA_MIN_VERSION_WORD 0x0401u  // 1025

#define OBX_SCHEMA_ID_BYTES 16
#define OBX_SCHEMA_ID_TEXT_SIZE 33  // 32 hexadecimal digits and a zero

// Encoders: a new value for the caller to free, or nullptr. obx_type_to_json does not
// write "type_index"; obx_schema_to_json does, and gives nullptr for a schema with no types.
json_t* obx_schema_to_json(const obx_schema_t* schema);
json_t* obx_type_to_json(const obx_type_definition_t* type);
json_t* obx_field_to_json(const obx_type_field_definition_t* field);

// Decoders: validate against their templates and build a new object, or log why not
// and give nullptr with nothing left allocated. `value` stays the caller's. Field
// `type` pointers are left unset (see obx_schema_adjust_type_fields); the schema's
// digest stays zero.
obx_schema_t* obx_schema_from_json(const json_t* value);
obx_type_definition_t* obx_type_from_json(const json_t* value);
obx_type_field_definition_t* obx_field_from_json(const json_t* value);

// Digest of the schema encoded anew; false for a schema with no types (digest untouched).
bool obx_schema_fill_md5(const obx_schema_t* schema, uint8_t digest[16]);
// MD5 of `size` bytes; false when the digest cannot be computed.
bool obx_md5_compute(const void* data, size_t size, uint8_t digest[16]);

// 32 lower-case hexadecimal digits: new 33-byte text (free()), or into the caller's 33 bytes.
char* obx_md5_to_hex(const uint8_t digest[16]);
void obx_md5_to_hex_into(const uint8_t digest[16], char text[33]);
// Reads 16 pairs of hexadecimal digits; false at the first pair that does not parse.
// A missing text is true and writes nothing.
bool obx_hex_to_md5(const char* text, uint8_t digest[16]);
bool obx_md5_is_zero(const uint8_t digest[16]);
