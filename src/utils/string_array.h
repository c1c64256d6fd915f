// The library's growing list of owned NUL-terminated texts, and name matching.
#pragma once

#include <cstddef>
#include <cstdint>

#include "utils/name_table.h"

struct obx_string_array_t {
    uint64_t count;
    char* strings[];  // `count` owned texts
};

enum obx_match_mode_t : int32_t {
    OBX_MATCH_EXACT = 0,
    OBX_MATCH_WILDCARD = 1,
    OBX_MATCH_CONTAINS = 3,
};

extern const obx_name_table_t obx_match_mode_names[];

obx_string_array_t* obx_string_array_create(void);
bool obx_string_array_append(obx_string_array_t** array, const char* text);
void obx_string_array_destroy(obx_string_array_t* array);
void obx_string_array_log(uint32_t level, const obx_string_array_t* array, const char* label);
bool obx_string_array_join(obx_string_array_t** array, const obx_string_array_t* other);
obx_string_array_t* obx_string_array_from_comma_list(const char* text, size_t length);
bool obx_string_array_remove_duplicates(obx_string_array_t** array, bool is_sorted);
bool obx_string_array_contains(const obx_string_array_t* array, const char* text);
bool obx_string_array_load_file(obx_string_array_t** array, const char* path, const char* label);
bool obx_string_array_match(const char* name, const obx_string_array_t* array, int32_t mode);
obx_string_array_t* obx_string_array_filter(const obx_string_array_t* names, const obx_string_array_t* patterns,
                                            int32_t mode, bool wanted);
obx_string_array_t* obx_string_array_match_names(const obx_string_array_t* names,
                                                 const obx_string_array_t* includes,
                                                 const obx_string_array_t* excludes,
                                                 const obx_string_array_t* mandatory, int32_t mode);
const char* obx_match_mode_to_string(int32_t value);
int32_t obx_match_mode_from_string(const char* text);

bool obx_name_is_enabled(const char* name, const obx_string_array_t* enable_list,
                         const obx_string_array_t* disable_list);
struct obx_name_config_t {
    const obx_string_array_t* enable_list;
    const obx_string_array_t* disable_list;
};
bool obx_name_is_enabled_by_config(const char* name, const obx_name_config_t* configuration);
bool obx_name_matches_component(const char* name, const obx_string_array_t* components);
