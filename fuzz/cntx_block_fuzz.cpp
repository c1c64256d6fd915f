// CNTX blocks from arbitrary bytes, through the same steps as the tool's metrics path.
// The JSON value made of a block prints as text that parses back to the same text.
// Log lines are formatted into a scratch buffer; inputs of odd size run at debug level,
// where the parse also dumps and decodes every record.
#include <jansson.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "metrics/cntx_parser.h"
#include "metrics/metrics_output.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_log_set_callback(obx_fuzz::discard_log, size % 2 ? OBX_LOG_DEBUG : OBX_LOG_WARNING);

    const uint8_t* end = data ? data + size : data;
    const uint64_t total_size = ObxMetricsParser::get_total_size(data, end);
    // Same limit as the tool: a block never reaches past its buffer.
    const uint8_t* block_end = data ? data + std::min<uint64_t>(total_size, size) : data;
    ObxLabelNames label_names;
    std::vector<std::string> label_values;
    std::vector<std::string> metric_names;
    std::vector<MetricsBatchRecord> batches;
    try {
        ObxMetricsParser::parse_full_block(data, block_end, label_names, label_values, metric_names, batches);
    } catch (const std::exception&) {
        return 0;
    }
    try {
        const ObxConstantLabels constant_labels = ObxMetricsParser::parse_constant_labels(data, block_end);
        json_t* value = obx_metrics_block_to_json(label_names, constant_labels, label_values, metric_names, batches);
        if (value) {
            char* text = obx_json_serialize_to_string(value);
            json_t* again = text ? obx_json_parse_string(text) : nullptr;
            char* text_again = again ? obx_json_serialize_to_string(again) : nullptr;
            if (!text_again || std::strcmp(text, text_again) != 0) std::abort();
            obx_json_free_serialized_string(text);
            obx_json_free_serialized_string(text_again);
            json_decref(again);
        }
        json_decref(value);
    } catch (const std::exception&) {
    }
    return 0;
}
