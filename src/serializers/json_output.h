// How records of the json and ndjson formats reach a stream, and the label list shape
// shared by the metrics output.
#pragma once

#include <jansson.h>

#include <cstdio>
#include <string>
#include <unordered_map>

// json: the pretty text, with ",\n" before it unless it is the file's first record and
// no newline behind it. The value is not consumed. A value without text costs a warning
// and writes nothing, not even the separator.
void obx_json_print_record(const json_t* value, FILE* stream, bool is_first_record);

// ndjson: the plain text and one newline.
void obx_json_print_line(const json_t* value, FILE* stream);

// A new array of one-member objects {name: value}, in the map's own order; nullptr when
// an element cannot be made (logged) or the array itself cannot (silent).
json_t* obx_labels_to_json_array(const std::unordered_map<std::string, std::string>& labels);

// {key: value} as a new object; takes `value` in every case. nullptr when the value is
// missing, the key is not UTF-8 or holds a zero byte, or memory runs out.
json_t* obx_json_one_member_object(const std::string& key, json_t* value);
json_t* obx_json_one_member_object(const std::string& key, const std::string& text);
