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

// Fixed part of a batch record, in file order.
struct ObxBatchRecordHead {
    uint16_t length;
    uint64_t timestamp;
    uint8_t type;        // metric kind letter
    uint8_t value_type;  // how the sample values are to be taken
    uint16_t num_samples;
};

// Where the records of a CNTD section lie: `base` is its blocksize field, the records run
// from base + 4 to base + data_end, which is where the end marks start.
struct ObxCntdSection {
    const uint8_t* base;
    uint32_t blocksize;
    uint64_t data_end;
};

// Map from metric name to the number of its samples.
using ObxMetricCounts = std::unordered_map<std::string, uint64_t>;

class ObxMetricsParser {
public:
    // Head and end marks of a block: "CNTX", total_size, "cntd", "cntx".
    static constexpr size_t kBlockFrameSize = 16;
    // Batch record: length u16, timestamp u64, kind letter u8, value type u8,
    // num_samples u16, then samples of metric_id u16 and value u64, then a labels block.
    static constexpr size_t kRecordFixedSize = 14;
    static constexpr size_t kSampleSize = 10;

    // The fixed part of the record at `record`; kRecordFixedSize bytes must be there.
    static ObxBatchRecordHead read_record_head(const uint8_t* record);
    // Sample `index` of the record at `record`; its bytes must be there.
    static obx::metrics::MetricSample read_sample(const uint8_t* record, size_t index);
    // The whole number of samples that fit behind a record's fixed part before `end`.
    static size_t samples_that_fit(const uint8_t* record, const uint8_t* end);

    // The CNTD section of [position, end), whose end marks must be "cntd", and "cntx" too
    // when `both_end_marks`. Throws when it is missing or its end marks are wrong.
    static ObxCntdSection find_records(const uint8_t* position, const uint8_t* end, bool both_end_marks);

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

    // Counts the samples of every CNTX block in [begin, end) by metric name into `counts`
    // (defined with the store path, in cntx_store.cpp). True when at least one block was
    // counted; when the walk itself fails, `counts` is put back as it was.
    static bool count_metrics_from_cntx_blocks(const uint8_t* begin, const uint8_t* end, ObxMetricCounts& counts);

    // Debug dump of the records with their decoded labels; does nothing below debug level.
    // Decoding may throw, as it would when the records are printed.
    static void print_metrics_batches(const std::vector<MetricsBatchRecord>& batches,
                                      const std::vector<std::string>& label_values);
};
