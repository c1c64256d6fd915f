// One batch record of a CNTD section, decoded but for its labels.
#pragma once

#include <cstdint>
#include <vector>

#include "metrics/labels_block.h"
#include "metrics/metrics_batch.h"

struct MetricsBatchRecord {
    uint64_t timestamp = 0;
    obx::metrics::MetricsBatch batch;
    std::vector<EncodedLabel> labels;  // still encoded; decode against the LBLV table
    uint64_t label_set_id = 0;
};
