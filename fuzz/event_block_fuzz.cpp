// Walks arbitrary bytes as a run of event and schemas blocks against a fixed type system
// (built-in scalars, text fields, a nested type and arrays of it), in the json, ndjson and
// influx formats with standard output thrown away. No event may be read past the buffer,
// whatever the block heads claim.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "data/reader/block_dispatch.h"
#include "data/reader/reader_context.h"
#include "data/schema/type_system.h"
#include "serializers/event_text_writer.h"
#include "tools/read_options.h"
#include "utils/logger.h"
#include "fuzz_support.h"

namespace {

// Types 0 "inner" (4 bytes), 1 "event" (50 bytes), 2 "flat" (12 bytes).
const char kSchema[] = R"({
    "title": "Ombrix schema",
    "obx_version": "1.5.0",
    "provider_name": "fuzz",
    "provider_version": "1.0.0",
    "types": [
        {"name": "inner", "size": 4, "fields": [
            {"field_name": "lo", "description": "", "type_name": "uint16_t", "counting_mode": "ABSOLUTE",
             "offset": 0, "type_size": 2},
            {"field_name": "hi", "description": "", "type_name": "uint16_t", "counting_mode": "ABSOLUTE",
             "offset": 2, "type_size": 2}]},
        {"name": "event", "size": 50, "fields": [
            {"field_name": "t", "description": "", "type_name": "timestamp", "counting_mode": "ABSOLUTE",
             "offset": 0, "type_size": 8},
            {"field_name": "s", "description": "", "type_name": "char", "counting_mode": "ABSOLUTE",
             "array_length": 8, "offset": 8, "type_size": 1},
            {"field_name": "p", "description": "", "type_name": "inner", "counting_mode": "ABSOLUTE",
             "array_length": 4, "offset": 16, "type_size": 4},
            {"field_name": "b", "description": "", "type_name": "bool", "counting_mode": "ABSOLUTE",
             "offset": 32, "type_size": 1},
            {"field_name": "d", "description": "", "type_name": "double", "counting_mode": "ABSOLUTE",
             "offset": 33, "type_size": 8},
            {"field_name": "f", "description": "", "type_name": "float", "counting_mode": "ABSOLUTE",
             "offset": 41, "type_size": 4},
            {"field_name": "n", "description": "", "type_name": "int8_t", "counting_mode": "ABSOLUTE",
             "array_length": 3, "offset": 45, "type_size": 1},
            {"field_name": "u", "description": "", "type_name": "unsigned char", "counting_mode": "ABSOLUTE",
             "array_length": 2, "offset": 48, "type_size": 1}]},
        {"name": "flat", "size": 12, "fields": [
            {"field_name": "x", "description": "", "type_name": "uint64_t", "counting_mode": "RUNNING_SUM",
             "offset": 0, "type_size": 8},
            {"field_name": "y", "description": "", "type_name": "int", "counting_mode": "ABSOLUTE",
             "offset": 8, "type_size": 4}]}
    ]
})";

struct Setup {
    obx_read_options_t options;
    obx_reader_context_t* context;

    Setup() {
        std::memset(&options, 0, sizeof(options));
        if (!obx_read_options_init(&options)) abort();
        obx_string_array_append(&options.include_counters, "*");
        obx_string_array_append(&options.exclude_counters, "fla?");
        free(options.schema_path);
        // No schema files: a schemas block naming any id fails to load, one naming none
        // empties the type system.
        options.schema_path = strdup("/nonexistent/obx-fuzz-schemas");
        // Zeroed like obx_reader_open makes it, so that obx_reader_close frees all it owns.
        context = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
        if (!context) abort();
        context->options = &options;
        context->path = "fuzz.bin";
        obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);
    }
    ~Setup() {
        obx_reader_close(context);
        obx_read_options_release(&options);
    }
};

obx_type_system_t* fixed_type_system()
{
    obx_type_system_t* system = obx_type_system_create();
    if (!system || obx_type_system_add_schema(system, kSchema, nullptr) != 0 || system->num_schemas != 1) abort();
    return system;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Setup setup;
    // A copy of exactly the input's size, so that a read past it is caught.
    std::vector<uint8_t> exact(data, data + size);

    const obx_fuzz::StdoutToNull quiet;

    for (const obx_output_format_t format :
         {OBX_OUTPUT_FORMAT_JSON, OBX_OUTPUT_FORMAT_NDJSON, OBX_OUTPUT_FORMAT_INFLUX}) {
        setup.options.format = format;
        // Event headers are printed in one format, so that their printer sees every head too.
        setup.options.print_headers = format == OBX_OUTPUT_FORMAT_JSON;
        setup.context->records_printed = 0;
        setup.context->type_system = fixed_type_system();
        obx_reader_walk_event_blocks(setup.context, exact.empty() ? nullptr : exact.data(), exact.size());
        // The writer's plans point into the types about to be freed.
        obx_event_text_writer_forget_types(setup.context->event_writer);
        obx_type_system_destroy(setup.context->type_system);
        setup.context->type_system = nullptr;
    }
    return 0;
}
