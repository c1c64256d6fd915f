// The tool's end of the metrics path: one CNTX block in, at most one JSON value out.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "metrics/cntx_parser.h"

struct obx_reader_context_t;

// Parses the CNTX block at `data` (no more than `size` bytes) and prints it in the
// context's format. 1 when the run may go on (also after a refusal by format), 0 when the
// block failed. Nothing of a failed block is printed.
int obx_metrics_block_process(obx_reader_context_t* context, const uint8_t* data, size_t size);

// All records are written into one object, each replacing the keys of the one before,
// so the result shows the block's last record. A new value, or nullptr (logged).
json_t* obx_metrics_block_to_json(const ObxLabelNames& label_names, const ObxConstantLabels& constant_labels,
                                  const std::vector<std::string>& label_values,
                                  const std::vector<std::string>& metric_names,
                                  const std::vector<MetricsBatchRecord>& batches);
