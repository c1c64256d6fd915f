#include "data/reader/reader_options.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

const obx_name_table_t obx_output_format_names[] = {
    {OBX_OUTPUT_FORMAT_JSON, "json"},     {OBX_OUTPUT_FORMAT_NDJSON, "ndjson"},
    {OBX_OUTPUT_FORMAT_TXT, "txt"},       {OBX_OUTPUT_FORMAT_CSV, "csv"},
    {OBX_OUTPUT_FORMAT_INFLUX, "influx"}, {OBX_OUTPUT_FORMAT_BIN, "bin"},
    {0, nullptr},
};

const char* obx_output_format_to_string(int32_t format)
{
    return obx_enum_to_string(obx_output_format_names, format);
}

int32_t obx_output_format_from_string(const char* text)
{
    return obx_enum_from_string(obx_output_format_names, text);
}

bool obx_read_options_init(obx_read_options_t* options)
{
    options->verbosity = OBX_READ_DEFAULT_VERBOSITY;
    options->format = OBX_OUTPUT_FORMAT_JSON;
    options->schema_path = strdup(OBX_READ_SCHEMA_FOLDER);
    options->output_dir = strdup("output");
    options->data_files = obx_string_array_create();
    options->timestamp_gt = 0;
    options->timestamp_lt = UINT64_MAX;
    options->include_counters = obx_string_array_create();
    options->exclude_counters = obx_string_array_create();
    options->print_headers = false;
    options->data_dir = nullptr;
    options->sort_files = false;
    options->sort_order = nullptr;
    return options->schema_path && options->output_dir && options->data_files && options->include_counters &&
           options->exclude_counters;
}

void obx_read_options_release(obx_read_options_t* options)
{
    if (!options) return;
    free(options->schema_path);
    free(options->output_dir);
    free(options->data_dir);
    free(options->sort_order);
    obx_string_array_destroy(options->data_files);
    obx_string_array_destroy(options->include_counters);
    obx_string_array_destroy(options->exclude_counters);
    std::memset(options, 0, sizeof(*options));
}

