// Counters schema text, as found in schema files, through decoding and encoding; what
// decodes must encode, and the encoding must read back to the same layout.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "counters/counter_group/counters_schema.h"
#include "utils/logger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = (obx_log_set_level(0), true);
    (void)quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    obx_counters_schema_t* schema = obx_counters_schema_from_string(text.c_str());
    if (schema) {
        // What the encoder writes reads back to the same layout.
        json_t* value = obx_counters_schema_jsonify(schema);
        if (!value) std::abort();
        obx_counters_schema_t* again = obx_counters_schema_from_json(value);
        if (again && (again->size_of_counters != schema->size_of_counters ||
                      obx_counters_schema_total_values(again) != obx_counters_schema_total_values(schema)))
            std::abort();
        obx_counters_schema_destroy(again);
        json_decref(value);
        obx_counters_schema_total_values(schema);
        obx_counters_schema_number_of_counters(schema);
        obx_counters_schema_destroy(schema);
    }
    return 0;
}
