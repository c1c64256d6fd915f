#include "metrics/cntx_store.h"

#include <boost/functional/hash.hpp>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "data/format/data_file_format.h"
#include "metrics/labels_block.h"
#include "utils/logger.h"

#define PARSER_LOG "[obx metrics parser] "

using obx::data::metrics::MetricFilter;
using obx::data::metrics::MetricSeries;
using obx::data::metrics::MetricStore;

namespace {

constexpr size_t kMagicSize = 4;
constexpr size_t kBlockHeadSize = 8;                 // "CNTX" and total_size
constexpr uint32_t kLargestBlock = 1073741824u;      // what the count path accepts as total_size
constexpr size_t kRecordFixedSize = ObxMetricsParser::kRecordFixedSize;
constexpr size_t kSampleSize = ObxMetricsParser::kSampleSize;

const uint8_t* find_magic(const uint8_t* begin, const uint8_t* end, const char* magic)
{
    if (!begin || !end || begin >= end) return nullptr;
    return static_cast<const uint8_t*>(memmem(begin, static_cast<size_t>(end - begin), magic, kMagicSize));
}

size_t bytes_between(const uint8_t* from, const uint8_t* to)
{
    return to > from ? static_cast<size_t>(to - from) : 0;
}

// The end of a block: its total_size from the magic, but not past the range.
const uint8_t* block_end(const uint8_t* magic, const uint8_t* end, uint32_t total_size)
{
    return magic + std::min<size_t>(total_size, bytes_between(magic, end));
}

// A labels block may reach blocksize bytes from its record's start, never past the block.
const uint8_t* labels_end(const uint8_t* record, const uint8_t* block_end, uint32_t blocksize)
{
    return record + std::min<size_t>(blocksize, bytes_between(record, block_end));
}

// The kind letters a record may name; everything unknown is 'U'.
char kind_letter(uint8_t type)
{
    switch (type) {
    case 0x43: return 'C';
    case 0x47: return 'G';
    case 0x48: return 'H';
    default: return 'U';
    }
}

double as_double(uint64_t bits)
{
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// One sample into its series, unless the filter keeps changes only and the value repeats
// the newest one. Doubles compare as numbers (a NaN never repeats), the rest bit for bit.
void push_sample(MetricSeries& series, const MetricFilter* filter, uint64_t timestamp, uint64_t value, bool is_double)
{
    if (filter && filter->change_only && series.values.size() > 0) {
        const uint64_t newest = series.values.newest();
        if (is_double ? as_double(newest) == as_double(value) : newest == value) return;
    }
    series.push(timestamp, value);
}

// False when the value type cannot be stored (strings); throws what the store throws.
bool store_typed_value(MetricStore& store, const MetricFilter* filter, uint64_t symbol, uint64_t label_set,
                       char kind, uint8_t value_type, uint64_t timestamp, uint64_t value, const std::string& name)
{
    using namespace obx::data::metrics;
    MetricSeries* series = nullptr;
    switch (value_type) {
    case OBX_METRIC_DOUBLE:
        series = &store.get_double_series(symbol, label_set);
        series->kind = static_cast<uint32_t>(kind);
        OBX_LOG_DBG(PARSER_LOG "Storing double metric %s: %f", name.c_str(), as_double(value));
        push_sample(*series, filter, timestamp, value, true);
        return true;
    case OBX_METRIC_BIT64:
        series = &store.get_bit64_series(symbol, label_set);
        series->kind = static_cast<uint32_t>(kind);
        OBX_LOG_DBG(PARSER_LOG "Storing bit64 metric %s: 0x%lx", name.c_str(), static_cast<unsigned long>(value));
        break;
    case OBX_METRIC_INT64:
        series = &store.get_int64_series(symbol, label_set);
        series->kind = static_cast<uint32_t>(kind);
        OBX_LOG_DBG(PARSER_LOG "Storing int64 metric %s: %ld", name.c_str(), static_cast<long>(value));
        break;
    case 5:
        OBX_LOG_WARN(PARSER_LOG "String value type in numeric metrics path for metric %s", name.c_str());
        return false;
    default:
        if (value_type != OBX_METRIC_UINT64)
            OBX_LOG_WARN(PARSER_LOG "Unknown/unsupported value type %d for metric %s, falling back to UInt64",
                         value_type, name.c_str());
        series = &store.get_uint64_series(symbol, label_set);
        series->kind = static_cast<uint32_t>(kind);
        OBX_LOG_DBG(PARSER_LOG "Storing uint64 metric %s: %lu", name.c_str(), static_cast<unsigned long>(value));
        break;
    }
    push_sample(*series, filter, timestamp, value, false);
    return true;
}

void store_sample(const obx::metrics::CntxBlockContext& context, MetricStore& store, MetricFilter* filter,
                  const ObxBatchRecordHead& head, char kind, uint64_t label_set, const obx::metrics::MetricSample& sample)
{
    const uint64_t metric_id = sample.metric_id;
    const uint64_t value = sample.value;
    // Tested before the name is taken: a bad id fails the block.
    if (metric_id >= context.metric_names.size()) {
        OBX_LOG_ERR(PARSER_LOG "invalid metric id: %lu, total metric names size: %lu",
                    static_cast<unsigned long>(metric_id), static_cast<unsigned long>(context.metric_names.size()));
        throw std::runtime_error("invalid metric id");
    }
    const std::string& name = context.metric_names[metric_id];
    const uint64_t symbol = store.symbols().intern(name);
    // A metric already in the store passed the filter before.
    if (filter && !store.holds_metric(symbol) && !obx::metrics::metric_filter_selects(*filter, name)) return;

    bool stored = false;
    try {
        stored = store_typed_value(store, filter, symbol, label_set, kind, head.value_type, head.timestamp, value, name);
    } catch (const std::exception& e) {
        OBX_LOG_ERR(PARSER_LOG "Failed to store typed value for metric %s (type=%d, value=%lu): %s", name.c_str(),
                    head.value_type, static_cast<unsigned long>(value), e.what());
    } catch (...) {
        OBX_LOG_ERR(PARSER_LOG "Unknown exception while storing typed value for metric %s (type=%d, value=%lu)",
                    name.c_str(), head.value_type, static_cast<unsigned long>(value));
    }
    if (!stored)
        OBX_LOG_WARN(PARSER_LOG "Failed to store metric %s (id=%lu, value=%lu) - continuing with next metrics",
                     name.c_str(), static_cast<unsigned long>(metric_id), static_cast<unsigned long>(value));
    OBX_LOG_DBG(PARSER_LOG "metric id: %lu, ts: %lu, name: %s, value: %lu", static_cast<unsigned long>(metric_id),
                static_cast<unsigned long>(head.timestamp), name.c_str(), static_cast<unsigned long>(value));
}

// The histograms of a block into the store, under their names; a later one of the same
// name replaces an earlier one.
void store_histograms(const obx::metrics::CntxBlockContext& context, MetricStore& store)
{
    const uint64_t count = context.histograms.next_id();
    for (uint64_t id = 0; id < count; ++id) {
        const obx::metrics::Histogram* histogram = context.histograms.find(id);
        if (!histogram) continue;
        const uint64_t label_set =
            store.intern_labels(context.label_map(histogram->label_set_id, histogram->label_values, false));
        const uint64_t symbol = store.symbols().intern(histogram->name);
        obx::data::metrics::HistogramRecord& record = store.histograms()[symbol];
        record.name = histogram->name;
        record.buckets.clear();
        for (const auto& bucket : histogram->buckets) record.buckets.emplace_back(bucket.upper_bound, bucket.count);
        record.sum = histogram->sum;
        record.count = histogram->count;
        record.timestamp = histogram->timestamp;
        record.label_set_id = label_set;
    }
}

// Counts the samples of one block; false when the block is passed over (no CNTD, bad end
// marks, no room for blocksize), true when its records were walked.
bool count_block(const uint8_t* begin, const uint8_t* end, ObxMetricCounts& counts)
{
    obx::metrics::CntxBlockContext context;
    context.build(begin, end);
    const uint8_t* cntd = find_magic(begin, end, "CNTD");
    if (!cntd) {
        OBX_LOG_DBG(PARSER_LOG "No CNTD section found in CNTX block, skipping");
        return false;
    }
    if (bytes_between(cntd, end) < 8 || std::memcmp(end - 8, "cntdcntx", 8) != 0) {
        OBX_LOG_WARN(PARSER_LOG "Invalid magic numbers in CNTX block");
        return false;
    }
    const uint8_t* base = cntd + kMagicSize;
    const uint8_t* records_end = end - 8;
    if (bytes_between(base, records_end) < 4) {
        OBX_LOG_WARN(PARSER_LOG "Insufficient data for blocksize in CNTX block");
        return false;
    }
    const uint32_t blocksize = obx_le_u32(base);
    const size_t data_end = bytes_between(base, records_end);
    const std::vector<std::string>& names = context.metric_names;
    uint64_t label_set_id = 0;
    std::vector<EncodedLabel> labels;
    size_t offset = 4;
    while (offset < data_end && data_end - offset >= kRecordFixedSize) {
        const uint8_t* record = base + offset;
        const size_t num_samples = ObxMetricsParser::read_record_head(record).num_samples;
        if (num_samples == 0) {
            OBX_LOG_DBG(PARSER_LOG "Empty metrics batch, skipping");
            break;
        }
        const size_t max = ObxMetricsParser::samples_that_fit(record, records_end);
        if (num_samples > max) {
            OBX_LOG_WARN(PARSER_LOG "num_samples %zu exceeds available data (max: %zu)", num_samples, max);
            break;
        }
        for (size_t i = 0; i < num_samples; ++i) {
            const size_t metric_id = ObxMetricsParser::read_sample(record, i).metric_id;
            if (metric_id >= names.size())
                OBX_LOG_WARN(PARSER_LOG "Invalid metric_id %zu (max: %zu), skipping", metric_id, names.size());
            else
                ++counts[names[metric_id]];
        }
        size_t next = 0;
        try {
            next = parse_labels_block(record, labels_end(record, end, blocksize),
                                      kRecordFixedSize + kSampleSize * num_samples, label_set_id, labels,
                                      "ObxMetricsParser::count_metrics_from_cntx_blocks");
        } catch (const std::exception& e) {
            OBX_LOG_WARN(PARSER_LOG "Failed to parse labels block for counting: %s", e.what());
            break;
        }
        offset += next;
    }
    return true;
}

}  // namespace

namespace obx {
namespace metrics {

void CntxBlockContext::build(const uint8_t* begin, const uint8_t* end)
{
    const uint8_t* position = ObxMetricsParser::parse_label_names(begin, end, label_names);
    for (const auto& set : label_names) label_name_hashes[set.first] = boost::hash<std::vector<std::string>>()(set.second);
    position = ObxMetricsParser::parse_label_values(position, end, label_values);
    position = ObxMetricsParser::parse_metric_names(position, end, metric_names);
    try {
        parse_histograms(position, end, label_values, histograms);
    } catch (const std::exception& e) {
        OBX_LOG_ERR(PARSER_LOG "Error parsing histograms: %s", e.what());
    }
    constant_labels = ObxMetricsParser::parse_constant_labels(begin, end);
}

const std::vector<std::string>& CntxBlockContext::names_of_set(uint64_t set) const
{
    const auto found = label_names.find(set);
    return found == label_names.end() ? no_names : found->second;
}

std::unordered_map<std::string, std::string> CntxBlockContext::label_map(uint64_t set,
                                                                         const std::vector<std::string>& values,
                                                                         bool with_constant_labels) const
{
    std::unordered_map<std::string, std::string> labels;
    if (with_constant_labels) labels.insert(constant_labels.begin(), constant_labels.end());
    const std::vector<std::string>& names = names_of_set(set);
    const size_t paired = std::min(names.size(), values.size());
    for (size_t i = 0; i < paired; ++i) labels[names[i]] = values[i];
    return labels;
}

bool metric_filter_selects(obx::data::metrics::MetricFilter& filter, const std::string& name)
{
    std::lock_guard<std::mutex> hold(filter.lock);
    if (filter.exact_names.count(name)) return true;
    if (!filter.patterns_on) return false;
    for (const auto& rule : filter.rules) {
        const std::string& text = rule.first;
        switch (rule.second) {
        case 0:
            if (name == text) return true;
            break;
        case 1:
            if (name.compare(0, text.size(), text) == 0) return true;
            break;
        case 2:
            if (name.size() >= text.size() && name.compare(name.size() - text.size(), text.size(), text) == 0)
                return true;
            break;
        case 3:
            if (name.find(text) != std::string::npos) return true;
            break;
        default: break;  // a kind of no meaning matches nothing
        }
    }
    return false;
}

void parse_cntx_block_into_store(const uint8_t* begin, const uint8_t* end, MetricFilter* filter, MetricStore& store)
{
    CntxBlockContext context;
    context.build(begin, end);
    store_histograms(context, store);

    const ObxCntdSection section = ObxMetricsParser::find_records(begin, end, true);
    if (section.data_end < 5) return;
    const uint8_t* records_end = section.base + section.data_end;
    std::vector<EncodedLabel> labels;
    uint64_t offset = 4;
    while (offset < section.data_end) {
        OBX_LOG_DBG(PARSER_LOG "offset=%lu end=%lu", static_cast<unsigned long>(offset),
                    static_cast<unsigned long>(section.data_end));
        const uint8_t* record = section.base + offset;
        if (bytes_between(record, records_end) < kRecordFixedSize)
            throw std::runtime_error("Invalid binary data format: batch record runs past the end of the block");
        const ObxBatchRecordHead head = ObxMetricsParser::read_record_head(record);
        if (head.timestamp == 0) OBX_LOG_ERR(PARSER_LOG "invalid timestamp in the metrics batch");
        const char kind = kind_letter(head.type);
        if (kind != 'C' && kind != 'G') throw std::runtime_error("invalid metric type");
        if (head.num_samples == 0) OBX_LOG_WARN(PARSER_LOG "no samples in the metrics batch");
        if (ObxMetricsParser::samples_that_fit(record, records_end) < head.num_samples)
            throw std::runtime_error("Invalid binary data format: batch samples run past the end of the block");

        uint64_t label_set_id = 0;
        const size_t next = parse_labels_block(record, labels_end(record, end, section.blocksize),
                                               kRecordFixedSize + kSampleSize * head.num_samples, label_set_id, labels);
        const std::vector<std::string> values = decode_label_values(labels, context.label_values);
        const uint64_t label_set = store.intern_labels(context.label_map(label_set_id, values, true));
        for (size_t i = 0; i < head.num_samples; ++i)
            store_sample(context, store, filter, head, kind, label_set, ObxMetricsParser::read_sample(record, i));
        offset += next;
    }
}

const uint8_t* parse_cntx_blocks(const uint8_t* begin, const uint8_t* end, MetricFilter* filter, MetricStore& store)
{
    const uint8_t* position = begin;
    size_t good = 0;
    while (position && position < end) {
        const uint8_t* magic = find_magic(position, end, "CNTX");
        if (!magic || bytes_between(magic, end) < kBlockHeadSize) break;
        const uint32_t total_size = obx_le_u32(magic + 4);
        if (total_size == 0) {
            // Taken as it stands this size would hold the walk in place for ever.
            OBX_LOG_WARN(PARSER_LOG "CNTX block with a total_size of 0 passed over");
            position = magic + kBlockHeadSize;
            continue;
        }
        const uint8_t* next = block_end(magic, end, total_size);
        position = next;
        try {
            parse_cntx_block_into_store(magic, next, filter, store);
            ++good;
        } catch (const std::exception& e) {
            OBX_LOG_WARN(PARSER_LOG "Failed to parse CNTX block %zu: %s", good + 1, e.what());
        }
    }
    OBX_LOG_DBG(PARSER_LOG "Processed %zu CNTX blocks", good);
    return position;
}

}  // namespace metrics
}  // namespace obx

bool ObxMetricsParser::count_metrics_from_cntx_blocks(const uint8_t* begin, const uint8_t* end,
                                                      ObxMetricCounts& counts)
{
    const ObxMetricCounts saved = counts;
    size_t blocks = 0;
    try {
        const uint8_t* position = begin;
        while (position && position < end) {
            const uint8_t* magic = find_magic(position, end, "CNTX");
            if (!magic) break;
            if (bytes_between(magic, end) < kBlockHeadSize) {
                OBX_LOG_WARN(PARSER_LOG "Insufficient data for CNTX block header");
                break;
            }
            const uint32_t total_size = obx_le_u32(magic + 4);
            if (total_size == 0 || total_size > kLargestBlock) {
                OBX_LOG_WARN(PARSER_LOG "Invalid block size %u in CNTX block", total_size);
                position = magic + kBlockHeadSize;
                continue;
            }
            const uint8_t* next = block_end(magic, end, total_size);
            position = next;
            try {
                if (count_block(magic, next, counts)) {
                    ++blocks;
                    OBX_LOG_DBG(PARSER_LOG "Counted metrics from CNTX block %zu", blocks);
                }
            } catch (const std::exception& e) {
                OBX_LOG_WARN(PARSER_LOG "Failed to count metrics from CNTX block %zu: %s", blocks + 1, e.what());
            }
        }
        OBX_LOG_DBG(PARSER_LOG "Counted metrics from %zu CNTX blocks, found %zu unique metrics", blocks, counts.size());
    } catch (const std::exception& e) {
        OBX_LOG_ERR(PARSER_LOG "Failed to count metrics from CNTX blocks: %s", e.what());
        counts = saved;
        return false;
    }
    return blocks > 0;
}
