// Renders arbitrary bytes as a counter block of a fixed counters schema, by the value
// path and by the direct writer, and stops at the first byte where the two disagree.
//
// Input: byte 0 picks the slash setting and the form; the rest is the block, head
// included, taken at exactly its length (so values beyond it are left out).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "counters/counter_data/counters_data.h"
#include "counters/counter_group/counters_schema.h"
#include "serializers/counters_text_writer.h"
#include "utils/json.h"
#include "utils/logger.h"

namespace {

// Every data type, a text, repeated names, sets that repeat and an unknown granularity.
const char* const kSchema = R"({
    "title": "Ombrix performance counters collector",
    "version": "1.5.0",
    "counter_groups": [
        {"granularity": "NODE", "name": "node", "num_counter_sets": 1, "num_counters": 6, "counters": [
            {"name": "a", "description": "", "units": "", "data_type": "FP64", "counting_type": "ABSOLUTE"},
            {"name": "s", "description": "", "units": "", "data_type": "STRING", "length": 5,
             "counting_type": "ABSOLUTE"},
            {"name": "u", "description": "", "units": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"},
            {"name": "a", "description": "", "units": "", "data_type": "INT64", "counting_type": "ABSOLUTE"},
            {"name": "b/x", "description": "", "units": "", "data_type": "BIT64", "counting_type": "ABSOLUTE"},
            {"name": "z", "description": "", "units": "", "data_type": "Undefined", "counting_type": "ABSOLUTE"}]},
        {"granularity": "CPU", "name": "cpu", "num_counter_sets": 3, "num_counters": 2, "counters": [
            {"name": "c", "description": "", "units": "", "data_type": "FP64", "counting_type": "ABSOLUTE"},
            {"name": "t", "description": "", "units": "", "data_type": "STRING", "length": 2,
             "counting_type": "ABSOLUTE"}]},
        {"granularity": "OTHER", "num_counter_sets": 0, "num_counters": 1, "counters": [
            {"name": "p", "description": "", "units": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"}]}
    ]
})";

struct State {
    obx_counters_schema_t* schema = nullptr;
    obx_counters_text_writer_t* writer = nullptr;
    State()
    {
        obx_log_set_level(0);
        schema = obx_counters_schema_from_string(kSchema);
        writer = obx_counters_text_writer_create();
        if (!schema || !writer) std::abort();
    }
};

State& state()
{
    static State instance;
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    State& s = state();
    if (size < 1) return 0;
    obx_json_set_escape_slashes(data[0] & 1);
    const bool pretty = (data[0] & 2) != 0;
    // An exact copy, so that a read past the block's end is caught.
    const std::vector<uint8_t> bytes(data + 1, data + size);
    const obx_counters_data_t block = {bytes.empty() ? nullptr : bytes.data(), bytes.size()};

    json_t* value = obx_counters_data_to_json(&block, s.schema);
    std::string expected = "<none>";
    if (value) {
        char* text = pretty ? obx_json_serialize_to_string_pretty(value) : obx_json_serialize_to_string(value);
        if (!text) std::abort();
        expected = text;
        obx_json_free_serialized_string(text);
        json_decref(value);
    }
    obx_counters_text_writer_clear(s.writer);
    const bool ok = obx_counters_text_writer_append(s.writer, pretty, &block, s.schema);
    const std::string got =
        ok ? std::string(obx_counters_text_writer_data(s.writer), obx_counters_text_writer_size(s.writer)) : "<none>";
    if (got != expected) std::abort();
    return 0;
}
