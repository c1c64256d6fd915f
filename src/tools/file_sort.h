// Ordering the input files by keys of their headers (-S).
#pragma once

#include <cstddef>
#include <cstdint>

#include "utils/name_table.h"

struct obx_file_entry_t {
    char source_id[64];   // always terminated: the last byte is forced to 0
    char source_tag[16];  // likewise
    uint64_t first_timestamp;
    char* path;           // owned copy of the input path
};

enum obx_sort_key_t : uint32_t {
    OBX_SORT_KEY_SOURCE_ID = 0,
    OBX_SORT_KEY_SOURCE_TAG = 1,
    OBX_SORT_KEY_FIRST_TIMESTAMP = 2,
};

#define OBX_SORT_MAX_KEYS 3u

struct obx_sort_spec_t {
    uint32_t keys[OBX_SORT_MAX_KEYS];
    uint32_t num_keys;
};

extern const obx_name_table_t obx_sort_key_names[];

// first_timestamp, source_id, source_tag.
void obx_sort_spec_set_default(obx_sort_spec_t* order);
// Comma-separated key names; blanks around them and empty tokens are dropped. At most
// three keys are read, later tokens are not looked at. True on success.
bool obx_sort_spec_parse(const char* text, obx_sort_spec_t* order);
// The sort keys for the -S argument: the parsed text, or the default (logged) when the text
// is missing, empty or invalid.
void obx_sort_spec_choose(const char* text, obx_sort_spec_t* order);
// True when `a` goes before `b`: the keys in order, all ascending.
bool obx_file_entry_before(const obx_file_entry_t& a, const obx_file_entry_t& b, const obx_sort_spec_t& order);
// Sorts in place (not stable: entries equal under every key may change places).
void obx_file_entries_sort(obx_file_entry_t* entries, size_t count, const obx_sort_spec_t* order);
