// JSON values, parsing, template validation and text, with the results the schema
// files and the export depend on: member order kept, every number a double printed
// with "%1.17g", pretty text with four blanks a level, slash escaping switchable.
// Values are Jansson's json_t; this layer is the only place that prints or parses them.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <string>

// Parsing: strict JSON (a bare scalar is a value too), integers read as doubles,
// duplicate keys and numbers that overflow a double refused; a leading UTF-8 byte order
// mark is skipped. Strings may hold \u0000, keys may not. Nothing is logged; callers
// report in their own words. The result is new (json_decref), nullptr on failure.
json_t* obx_json_parse_string(const char* text);
json_t* obx_json_parse_buffer(const char* text, size_t length);
// Files are read only when regular and at most OBX_JSON_MAX_FILE_SIZE bytes; otherwise
// nullptr with errno EISDIR, EINVAL (a FIFO, a device) or EFBIG.
#define OBX_JSON_MAX_FILE_SIZE (64 * 1024 * 1024)
json_t* obx_json_parse_file(const char* path);

// Text of a value, newly allocated (free with obx_json_free_serialized_string);
// nullptr for a missing value or one nested too deep (or looping back on itself).
char* obx_json_serialize_to_string(const json_t* value);
char* obx_json_serialize_to_string_pretty(const json_t* value);
void obx_json_free_serialized_string(char* text);

// Slash escaping is on by default; obx_read turns it off at its start.
void obx_json_set_escape_slashes(int escape);
bool obx_json_escape_slashes(void);

// A value passes when it has every template key with the template's JSON type
// (see the .cpp for the whole rule set). A missing template or value fails.
bool obx_json_validate(const json_t* json_template, const json_t* value);

// Makers: nullptr for a non-finite number, a missing text or text that is not UTF-8.
json_t* obx_json_number(double number);
json_t* obx_json_string(const char* text);
json_t* obx_json_stringn(const char* text, size_t length);

// Setters take ownership of `value` in every case (it is freed when the set fails).
// Setting an existing key replaces its value in place; new keys go to the end.
bool obx_json_object_set(json_t* object, const char* key, json_t* value);
bool obx_json_object_set_string(json_t* object, const char* key, const char* text);
bool obx_json_object_set_number(json_t* object, const char* key, double number);
bool obx_json_array_append(json_t* array, json_t* value);

// Dotted set: "a.b.c" creates missing inner objects; refuses, changing nothing, when an
// existing inner member is not an object.
bool obx_json_object_dotset_value(json_t* object, const char* dotted_name, json_t* value);
bool obx_json_object_dotset_string(json_t* object, const char* dotted_name, const char* text);

// Getters in the manner of the schema readers: a missing key or a key of another type
// gives nullptr, or 0 for numbers.
const char* obx_json_object_get_string(const json_t* object, const char* key);
double obx_json_object_get_number(const json_t* object, const char* key);
json_t* obx_json_object_get_array(const json_t* object, const char* key);

// MD5 of the value's pretty text, without a terminating zero: the schema id.
bool obx_json_md5(unsigned char digest[16], const json_t* value);
// The same as 32 lower-case hexadecimal digits and a zero.
bool obx_json_md5_hex(char text[33], const json_t* value);

// Shared printers of numbers and strings, used by the value printer above and by the
// direct export path so that both give the same bytes.
// Writes `number` as "%1.17g" does into `out` (at least 32 bytes); returns the length.
size_t obx_json_format_number(char* out, double number);
// The text obx_json_format_number gives for the double nearest to `number`, without
// going through a double where the integer is exact (below 2^53 in magnitude).
size_t obx_json_format_int64(char* out, int64_t number);
size_t obx_json_format_uint64(char* out, uint64_t number);
// Appends the quoted, escaped form of `length` bytes of `text`.
void obx_json_append_string(std::string& out, const char* text, size_t length);
// The same written at `out`, which has room for obx_json_string_max_size(length) bytes;
// returns the end of what was written (no terminating zero).
char* obx_json_write_string(char* out, const char* text, size_t length);
static inline size_t obx_json_string_max_size(size_t length) { return 6 * length + 2; }
void obx_json_append_number(std::string& out, double number);
// Appends the plain (pretty = false) or pretty text of a value whose opening bracket
// stands at indent level `depth` (inner lines get depth + 1). On failure `out` is
// left as it was.
bool obx_json_append_value(std::string& out, const json_t* value, bool pretty, int depth);
