// CNTX blocks from arbitrary bytes, through the same steps as the tool's metrics path.
// Log lines are formatted into a scratch buffer; inputs of odd size run at debug level,
// where the parse also dumps and decodes every record.
#include <jansson.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "metrics/cntx_parser.h"
#include "metrics/metrics_output.h"
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
        json_decref(value);
    } catch (const std::exception&) {
    }
    return 0;
}
