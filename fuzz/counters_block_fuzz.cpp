// Renders arbitrary bytes as a counters block, in json, ndjson and txt, against two fixed
// counters schemas: an ordinary one (NODE, CPU and PACKAGE groups of every data type)
// and one whose layout stops at a zero-length STRING, so that a later counter keeps the
// offset its file gives, far beyond the values the schema asks for. Whatever the bytes,
// no value may be read past the block.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "counters/counter_data/counters_data.h"
#include "data/reader/block_dispatch.h"
#include "data/reader/reader_context.h"
#include "data/schema/type_system.h"
#include "tools/read_options.h"
#include "utils/logger.h"
#include "fuzz_support.h"

namespace {

const char kCounters[] = R"({
    "title": "Ombrix performance counters collector",
    "version": "1.5.0",
    "counter_groups": [
        {"granularity": "NODE", "name": "node", "num_counter_sets": 1, "num_counters": 5, "counters": [
            {"name": "u", "description": "", "units": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"},
            {"name": "f", "description": "", "units": "", "data_type": "FP64", "counting_type": "ABSOLUTE"},
            {"name": "b", "description": "", "units": "", "data_type": "BIT64", "counting_type": "ABSOLUTE"},
            {"name": "s", "description": "", "units": "", "data_type": "STRING", "length": 12,
             "counting_type": "ABSOLUTE"},
            {"name": "i", "description": "", "units": "", "data_type": "INT64", "counting_type": "RUNNING_SUM"}]},
        {"granularity": "CPU", "num_counter_sets": 4, "num_counters": 2, "counters": [
            {"name": "busy", "description": "", "units": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"},
            {"name": "idle", "description": "", "units": "", "data_type": "Undefined", "counting_type": "ABSOLUTE"}]},
        {"granularity": "PACKAGE", "name": "pkg", "num_counter_sets": 0, "num_counters": 1, "counters": [
            {"name": "e", "description": "", "units": "", "data_type": "FP64", "counting_type": "ABSOLUTE"}]}
    ]
})";

// The zero-length STRING ends the offset layout: "far" keeps offset 100000.
const char kHostile[] = R"({
    "version": "1.5.0",
    "counter_groups": [
        {"granularity": "CPU", "num_counter_sets": 3, "num_counters": 3, "counters": [
            {"name": "s", "description": "", "units": "", "data_type": "STRING", "counting_type": "ABSOLUTE"},
            {"name": "far", "description": "", "units": "", "data_type": "UINT64", "offset": 100000,
             "counting_type": "ABSOLUTE"},
            {"name": "wide", "description": "", "units": "", "data_type": "STRING", "length": 4000,
             "offset": 8, "counting_type": "ABSOLUTE"}]}
    ]
})";

struct Setup {
    obx_read_options_t options;
    obx_reader_context_t* context;
    obx_counters_schema_t* ordinary;
    obx_counters_schema_t* hostile;

    Setup() {
        obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);
        std::memset(&options, 0, sizeof(options));
        if (!obx_read_options_init(&options)) abort();
        obx_string_array_append(&options.include_counters, "*");
        // Zeroed like obx_reader_open makes it, so that obx_reader_close frees all it owns.
        context = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
        if (!context) abort();
        context->options = &options;
        context->path = "fuzz.bin";
        context->type_system = obx_type_system_create();
        ordinary = obx_counters_schema_from_string(kCounters);
        hostile = obx_counters_schema_from_string(kHostile);
        if (!context->type_system || !ordinary || !hostile) abort();
        obx_counters_schema_destroy(context->type_system->counters_schema);
        context->type_system->counters_schema = nullptr;
    }
    ~Setup() {
        context->type_system->counters_schema = nullptr;
        obx_reader_close(context);
        obx_counters_schema_destroy(ordinary);
        obx_counters_schema_destroy(hostile);
        obx_read_options_release(&options);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Setup setup;
    std::vector<uint8_t> exact(data, data + size);
    const uint8_t* block = exact.empty() ? nullptr : exact.data();

    const obx_fuzz::StdoutToNull quiet;

    for (obx_counters_schema_t* schema : {setup.ordinary, setup.hostile}) {
        setup.context->type_system->counters_schema = schema;
        for (const obx_output_format_t format :
             {OBX_OUTPUT_FORMAT_JSON, OBX_OUTPUT_FORMAT_NDJSON, OBX_OUTPUT_FORMAT_TXT}) {
            setup.options.format = format;
            setup.context->records_printed = 0;
            obx_reader_print_counters_block(setup.context, block, exact.size());
        }
        // The renderers on their own, without the dispatch's length check.
        const obx_counters_data_t counters = {block, exact.size()};
        json_decref(obx_counters_data_to_json(&counters, schema));
        obx_counters_data_print(stdout, &counters, schema);
    }
    setup.context->type_system->counters_schema = nullptr;
    return 0;
}
