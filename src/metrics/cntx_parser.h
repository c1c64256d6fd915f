// Reading of a CNTX block on the tool's path: its label sets, label values, metric names,
// constant labels and batch records, each found by searching for its section magic.
// Every length and count is checked against the bytes of the range; bad input raises
// std::runtime_error (or Boost's bad cast), never a read past the range.
#pragma once

#include <boost/any.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/metrics_batch_record.h"

// Label set number (order of the LBLN sections) to the names of that set.
using ObxLabelNames = std::map<uint64_t, std::vector<std::string>>;
// Constant label name to value.
using ObxConstantLabels = std::unordered_map<std::string, std::string>;
// Fixed fields of a batch record: "length" uint16_t, "timestamp" and "num_samples"
// uint64_t, "metrics" obx::metrics::MetricsBatch, "type" one-character std::string.
using ObxBatchHeader = std::map<std::string, boost::any>;

class ObxMetricsParser {
public:
    // Head and end marks of a block: "CNTX", total_size, "cntd", "cntx".
    static constexpr size_t kBlockFrameSize = 16;

    // total_size of the first "CNTX" in the range whose size field is whole; 0 when none.
    static uint64_t get_total_size(const uint8_t* begin, const uint8_t* end);

    // One block, [begin, end). The four tables are replaced. Throws on bad input.
    static void parse_full_block(const uint8_t* begin, const uint8_t* end, ObxLabelNames& label_names,
                                 std::vector<std::string>& label_values, std::vector<std::string>& metric_names,
                                 std::vector<MetricsBatchRecord>& batches);

    // All LBLN sections; returns the position behind the last one's trailer, or begin + 4
    // (at most end) when there is none.
    static const uint8_t* parse_label_names(const uint8_t* begin, const uint8_t* end, ObxLabelNames& label_names);

    // prefix, 16-bit count, short strings, suffix. The suffix is compared only when the
    // range ends before it; otherwise it is stepped over. Returns the position behind it,
    // or `end` (with `out` cleared) when the range is empty or has no prefix.
    static const uint8_t* parse_prefixed_strings(const uint8_t* begin, const uint8_t* end, const char* prefix,
                                                 const char* suffix, std::vector<std::string>& out);
    static const uint8_t* parse_label_values(const uint8_t* position, const uint8_t* end,
                                             std::vector<std::string>& label_values);
    static const uint8_t* parse_metric_names(const uint8_t* position, const uint8_t* end,
                                             std::vector<std::string>& metric_names);

    // The batch records of the CNTD section found in [position, end).
    static std::vector<MetricsBatchRecord> parse_metrics(const uint8_t* position, const uint8_t* end);

    // The fixed part and samples of the record at `record`; none of it may reach `end`.
    static ObxBatchHeader parse_batch_header(const uint8_t* record, const uint8_t* end);

    // CLBL strings taken as name, value pairs; a later name wins, a name without a value
    // is dropped.
    static ObxConstantLabels parse_constant_labels(const uint8_t* begin, const uint8_t* end);

    // Debug dump of the records with their decoded labels; does nothing below debug level.
    // Decoding may throw, as it would when the records are printed.
    static void print_metrics_batches(const std::vector<MetricsBatchRecord>& batches,
                                      const std::vector<std::string>& label_values);
};
