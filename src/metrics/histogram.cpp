#include "metrics/histogram.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <ctime>

#include "data/format/data_file_format.h"
#include "metrics/labels_block.h"
#include "utils/logger.h"

namespace obx {
namespace metrics {

uint64_t histogram_time_now()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

namespace {

// The fields before the labels block are read only where the bytes are there.
void need(const uint8_t* at, size_t bytes, const uint8_t* end)
{
    if (at > end || static_cast<size_t>(end - at) < bytes)
        throw std::runtime_error("HIST record runs past the end of the block");
}

}  // namespace

const uint8_t* Histogram::parse(const uint8_t* record, const uint8_t* data_end,
                                const std::vector<std::string>& label_values_table)
{
    need(record, OBX_HIST_NAME, data_end);
    timestamp = obx_le_u64(record + OBX_HIST_TIMESTAMP);
    const size_t name_length = record[OBX_HIST_NAME_LENGTH];
    need(record + OBX_HIST_NAME, name_length + 1, data_end);
    name.assign(reinterpret_cast<const char*>(record + OBX_HIST_NAME), name_length);
    const uint8_t* at = record + OBX_HIST_NAME + name_length;
    const size_t bucket_count = *at++;
    need(at, bucket_count * OBX_HIST_BUCKET_SIZE + 16, data_end);
    buckets.resize(bucket_count);
    for (HistogramBucket& bucket : buckets) {
        bucket.upper_bound = obx_le_f64(at);
        bucket.count = obx_le_u64(at + 8);
        at += OBX_HIST_BUCKET_SIZE;
    }
    sum = obx_le_f64(at);
    count = obx_le_u64(at + 8);
    at += 16;
    std::vector<EncodedLabel> labels;
    const size_t behind = parse_labels_block(record, data_end, static_cast<size_t>(at - record), label_set_id, labels,
                                             "Histogram::parse");
    label_values = decode_label_values(labels, label_values_table);
    return record + behind + 4;
}

size_t Histogram::serialized_size(size_t labels_block_size) const
{
    return OBX_HIST_FIXED_SIZE + name.size() + OBX_HIST_BUCKET_SIZE * buckets.size() + labels_block_size;
}

void Histogram::serialize(const std::vector<uint8_t>& labels_block, PreallocatedVector& out) const
{
    out.insert(OBX_HIST_MAGIC, 4);
    out.push_back(timestamp);
    const uint8_t name_length = static_cast<uint8_t>(name.size());  // the low 8 bits, as stored
    out.push_back(name_length);
    out.insert(name.data(), name_length);
    out.push_back(static_cast<uint8_t>(buckets.size()));
    for (const HistogramBucket& bucket : buckets) {
        out.push_back(bucket.upper_bound);
        out.push_back(bucket.count);
    }
    out.push_back(sum);
    out.push_back(count);
    out.append(labels_block);
    out.insert(OBX_HIST_END_MAGIC, 4);
}

void Histogram::set_timestamp(uint64_t time)
{
    if (time == UINT64_MAX) return;
    timestamp = time == 0 ? histogram_time_now() : time;
    // Written after the change: what reads as the old time is the new one.
    OBX_LOG_DBG("[obx metrics histograms] Histogram '%s' timestamp changed from %lu to %lu", name.c_str(),
                static_cast<unsigned long>(timestamp), static_cast<unsigned long>(time));
}

bool Histogram::is_due() const
{
    if (report_interval == 0 || label_values.empty()) return false;
    return histogram_time_now() - last_report >= report_interval * 1000;
}

void Histogram::reset()
{
    for (HistogramBucket& bucket : buckets) bucket.count = 0;
    sum = 0;
    count = 0;
    last_report = 0;
}

uint64_t HistogramSet::next_id() const
{
    uint64_t largest = 0;
    for (const auto& entry : histograms) largest = std::max(largest, entry.first);
    return histograms.empty() ? 0 : largest + 1;
}

uint64_t HistogramSet::add(uint64_t timestamp, const std::string& name, const TimeseriesId& series,
                           const std::vector<double>& upper_bounds, uint64_t label_set_id,
                           const std::vector<std::string>& label_values)
{
    for (size_t i = 1; i < upper_bounds.size(); ++i) {
        if (upper_bounds[i - 1] > upper_bounds[i]) {
            OBX_LOG_ERR("[obx metrics histograms] Histogram buckets must be monotonically increasing");
            throw std::runtime_error("Histogram buckets must be monotonically increasing");
        }
    }
    const auto known = ids.find(series);
    if (known != ids.end()) {
        OBX_LOG_DBG("[obx metrics histograms] Histogram with timeseries_id for '%s' already exists with id %lu",
                    name.c_str(), static_cast<unsigned long>(known->second));
        return known->second;
    }
    const uint64_t id = next_id();
    Histogram histogram;
    histogram.name = name;
    for (double bound : upper_bounds) histogram.buckets.push_back({bound, 0});
    histogram.timestamp = timestamp;
    histogram.label_set_id = label_set_id;
    histogram.label_values = label_values;
    histograms.emplace(id, std::move(histogram));
    ids.emplace(series, id);
    OBX_LOG_DBG("[obx metrics histograms] Added new histogram with id %lu for '%s'", static_cast<unsigned long>(id),
                name.c_str());
    return id;
}

void HistogramSet::observe(uint64_t id, double value)
{
    const auto found = histograms.find(id);
    if (found == histograms.end()) {
        OBX_LOG_ERR("[obx metrics histograms] Histogram id: %lu does not exist", static_cast<unsigned long>(id));
        throw std::runtime_error("Histogram id does not exist");
    }
    Histogram& histogram = found->second;
    histogram.sum += value;
    histogram.count += 1;
    for (auto bucket = histogram.buckets.rbegin(); bucket != histogram.buckets.rend(); ++bucket) {
        if (!(bucket->upper_bound >= value)) break;  // a NaN stops at once
        bucket->count += 1;
    }
}

bool HistogramSet::serialize(uint64_t id, const std::vector<uint8_t>& labels_block, PreallocatedVector& out) const
{
    const Histogram* histogram = find(id);
    if (!histogram) return false;
    histogram->serialize(labels_block, out);
    return true;
}

bool HistogramSet::set_interval(uint64_t id, uint64_t interval_ms)
{
    const auto found = histograms.find(id);
    if (found == histograms.end()) return false;
    found->second.report_interval = interval_ms;
    found->second.last_report = histogram_time_now();
    return true;
}

bool HistogramSet::set_interval_all(uint64_t interval_ms)
{
    for (auto& entry : histograms) set_interval(entry.first, interval_ms);
    return true;
}

bool HistogramSet::is_due(uint64_t id) const
{
    const Histogram* histogram = find(id);
    return histogram && histogram->is_due();
}

void HistogramSet::reset(uint64_t id)
{
    const auto found = histograms.find(id);
    if (found != histograms.end()) found->second.reset();
}

bool HistogramSet::remove(uint64_t id)
{
    if (histograms.erase(id) == 0) return false;
    for (auto entry = ids.begin(); entry != ids.end(); ++entry) {
        if (entry->second == id) {
            ids.erase(entry);
            break;
        }
    }
    return true;
}

const Histogram* HistogramSet::find(uint64_t id) const
{
    const auto found = histograms.find(id);
    return found == histograms.end() ? nullptr : &found->second;
}

uint64_t HistogramSet::insert_parsed(Histogram histogram)
{
    const uint64_t id = next_id();
    histograms.emplace(id, std::move(histogram));
    return id;
}

void parse_histograms(const uint8_t* position, const uint8_t* end, const std::vector<std::string>& label_values,
                      HistogramSet& set)
{
    static const uint8_t magic[4] = {'H', 'I', 'S', 'T'};
    while (position && position < end) {
        const uint8_t* record = std::search(position, end, magic, magic + 4);
        if (record == end) return;
        Histogram histogram;
        const uint8_t* behind = histogram.parse(record, end, label_values);
        set.insert_parsed(std::move(histogram));
        if (behind >= end) return;
        position = behind;
    }
}

}  // namespace metrics
}  // namespace obx
