// Templates of file paths: keys in double braces, filled in stages, so that a key no stage
// knows stays in the path as written.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#define OBX_DEFAULT_PATH_TEMPLATE "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin"

using obx_template_keys_t = std::map<std::string, std::string>;

// `text` with every "{{key}}" of `keys` replaced by its value; unknown keys and an
// unmatched "{{" stay as they stand.
std::string obx_template_expand(const std::string& text, const obx_template_keys_t& keys);

// Replaces the first "{{hash<num>}}" of `text` by a folder number in 0..num-1: a source id
// "0x<hex>" taken as a number, any other by the sum of its bytes, modulo num. A missing
// number is logged and the key stays. num 0 cannot give a folder: the process ends there
// with an error line, as it always has.
void obx_template_apply_hash(const std::string& source_id, std::string& text);

// The date keys, the hash and the facet over the whole path: what stages 2 and 3 make of
// `text` for a file that starts at `first_timestamp` (microseconds). Unchanged when the
// time is 0 or not a regular time.
std::string obx_template_apply_time(const std::string& text, const std::string& source_id, uint64_t first_timestamp);
