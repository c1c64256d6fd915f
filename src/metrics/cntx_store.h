// Two more readings of CNTX blocks besides the tool's: the store path walks a range of
// blocks into a long-lived MetricStore, typed and filtered, and the count path
// (ObxMetricsParser::count_metrics_from_cntx_blocks, declared with the parser) counts the
// samples of each metric name. Both read the block's tables and its histograms through a
// CntxBlockContext, and both refuse a block whose last 8 bytes are not "cntdcntx".
//
// Where the format leaves the reader exposed, these paths stay safe:
// - a sample's metric_id is tested against the names before its name is taken;
// - a record with more label values than its set has names labels only those names;
// - a block with a total_size of 0 would leave the walk where it stands; the store path
//   logs a warning and searches on behind its size field, as the count path does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "metrics/cntx_parser.h"
#include "metrics/histogram.h"
#include "metrics/metric_store.h"

namespace obx {
namespace metrics {

// What the store and count paths read of one block, in this order.
struct CntxBlockContext {
    ObxLabelNames label_names;
    std::vector<std::string> no_names;             // the names of an unknown set; stays empty
    std::map<uint64_t, size_t> label_name_hashes;  // set number to the hash of its names; unread
    std::vector<std::string> label_values;
    std::vector<std::string> metric_names;
    HistogramSet histograms;
    ObxConstantLabels constant_labels;

    // Reads the tables of the block [begin, end). A bad histogram is logged and the ones
    // read before it are kept; any other bad section throws.
    void build(const uint8_t* begin, const uint8_t* end);
    const std::vector<std::string>& names_of_set(uint64_t set) const;
    // The constant labels, then the set's names paired with `values` by position, up to the
    // end of whichever list is shorter.
    std::unordered_map<std::string, std::string> label_map(uint64_t set, const std::vector<std::string>& values,
                                                           bool with_constant_labels) const;
};

// True when `name` is one of the filter's exact names or, with its patterns on, matches one
// of its rules: kind 0 equals, 1 begins with, 2 ends with, 3 contains the rule text.
bool metric_filter_selects(obx::data::metrics::MetricFilter& filter, const std::string& name);

// Every CNTX block from `begin` on into `store`; a bad block is logged and skipped. Returns
// the position reached: the end of the last block tried.
const uint8_t* parse_cntx_blocks(const uint8_t* begin, const uint8_t* end, obx::data::metrics::MetricFilter* filter,
                                 obx::data::metrics::MetricStore& store);

// One block, [begin, end), into `store`. Throws std::runtime_error on bad input; what the
// block's earlier records stored stays.
void parse_cntx_block_into_store(const uint8_t* begin, const uint8_t* end, obx::data::metrics::MetricFilter* filter,
                                 obx::data::metrics::MetricStore& store);

}  // namespace metrics
}  // namespace obx
