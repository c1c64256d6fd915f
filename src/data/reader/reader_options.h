// The options of a reading run: the output formats and the record that the command line
// fills and the reader follows. The command line itself lives with the tools.
#pragma once

#include <cstddef>
#include <cstdint>

#include "utils/name_table.h"
#include "utils/string_array.h"

enum obx_output_format_t : uint32_t {
    OBX_OUTPUT_FORMAT_JSON = 0,
    OBX_OUTPUT_FORMAT_NDJSON = 1,
    OBX_OUTPUT_FORMAT_TXT = 2,
    OBX_OUTPUT_FORMAT_CSV = 3,
    OBX_OUTPUT_FORMAT_INFLUX = 4,
    OBX_OUTPUT_FORMAT_BIN = 5,
};

extern const obx_name_table_t obx_output_format_names[];

// Name of a format, or nullptr for a value outside the table.
const char* obx_output_format_to_string(int32_t format);
// Format of an exact name, or -1.
int32_t obx_output_format_from_string(const char* text);

struct obx_read_options_t {
    uint32_t verbosity;
    obx_output_format_t format;
    char* schema_path;
    char* output_dir;
    obx_string_array_t* data_files;
    uint64_t timestamp_gt;
    uint64_t timestamp_lt;
    obx_string_array_t* include_counters;
    obx_string_array_t* exclude_counters;
    bool print_headers;
    char* data_dir;
    bool sort_files;
    char* sort_order;
};

#define OBX_READ_DEFAULT_VERBOSITY 6u
#define OBX_READ_MAX_VERBOSITY 7
#define OBX_READ_SCHEMA_FOLDER "schema"
#define OBX_READ_SCHEMA_SEARCH_LEVELS 5

// Sets the defaults on a zero-filled record; false if a list cannot be made.
bool obx_read_options_init(obx_read_options_t* options);
// Frees what the record owns and zeroes it (the program itself leaves this to exit).
void obx_read_options_release(obx_read_options_t* options);
