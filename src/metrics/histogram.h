// Histograms of a CNTX block: the HIST record (layout below, in one place), Histogram and
// HistogramSet, and PreallocatedVector, the caller's fixed buffer a record is written to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// HIST record: "HIST", timestamp u64, name length u8, name, bucket count u8, buckets of
// (upper bound f64, count u64), sum f64, count u64, a labels block, "hist".
#define OBX_HIST_MAGIC "HIST"
#define OBX_HIST_END_MAGIC "hist"
#define OBX_HIST_TIMESTAMP 4u
#define OBX_HIST_NAME_LENGTH 12u
#define OBX_HIST_NAME 13u
#define OBX_HIST_BUCKET_SIZE 16u
// Bytes of a record besides its name, buckets and labels block.
#define OBX_HIST_FIXED_SIZE 34u

namespace obx {
namespace metrics {

// A view of a buffer the caller owns; it never grows, and running out of room throws
// std::out_of_range with the operation's name, leaving the size as it was.
class PreallocatedVector {
public:
    PreallocatedVector(uint8_t* data, size_t capacity) : data_(data), capacity_(capacity) {}

    template <typename T>
    void push_back(const T& value) {
        if (size_ + sizeof(T) > capacity_) throw std::out_of_range("PreallocatedVector::push_back");
        std::memcpy(data_ + size_, &value, sizeof(T));
        size_ += sizeof(T);
    }
    void insert(const void* bytes, size_t length) {
        if (size_ + length > capacity_) throw std::out_of_range("PreallocatedVector::insert");
        if (length) std::memcpy(data_ + size_, bytes, length);
        size_ += length;
    }
    void append(const std::vector<uint8_t>& bytes) {
        if (bytes.size() > capacity_ - size_) throw std::out_of_range("PreallocatedVector::append");
        insert(bytes.data(), bytes.size());
    }
    size_t size() const { return size_; }
    size_t capacity() const { return capacity_; }
    const uint8_t* data() const { return data_; }

private:
    uint8_t* data_;
    size_t capacity_;
    size_t size_ = 0;
};

struct HistogramBucket {
    double upper_bound = 0;
    uint64_t count = 0;
};

// Microseconds since the epoch from the real-time clock.
uint64_t histogram_time_now();

struct Histogram {
    std::string name;
    std::vector<HistogramBucket> buckets;  // ascending by upper bound; counts are cumulative
    double sum = 0;
    uint64_t count = 0;
    uint64_t timestamp = 0;
    uint64_t label_set_id = 0;
    uint64_t last_report = 0;
    uint64_t report_interval = 0;  // milliseconds; 0: never due
    std::vector<std::string> label_values;

    // Reads the record at `record` (its "HIST"), never past `data_end`; throws
    // std::runtime_error on a record that runs past it or a bad labels block. Returns the
    // first byte behind the record's trailing magic, which is not compared.
    const uint8_t* parse(const uint8_t* record, const uint8_t* data_end, const std::vector<std::string>& label_values_table);
    // Writes the record with `labels_block` as its labels; allocates nothing.
    void serialize(const std::vector<uint8_t>& labels_block, PreallocatedVector& out) const;
    size_t serialized_size(size_t labels_block_size) const;
    // 0: the time now; all bits set: nothing; any other: that time.
    void set_timestamp(uint64_t time);
    // Never for an interval of 0, nor for a histogram without label values.
    bool is_due() const;
    void reset();
};

// A pair of numbers naming a series.
using TimeseriesId = std::pair<uint64_t, uint64_t>;
struct TimeseriesIdHash {
    size_t operator()(const TimeseriesId& id) const {
        return static_cast<size_t>(id.first ^ (id.second + 0x9e3779b9u + (id.first << 6) + (id.first >> 2)));
    }
};

class HistogramSet {
public:
    // A new histogram, or the id of the one of this series; throws std::runtime_error when
    // the bounds go down.
    uint64_t add(uint64_t timestamp, const std::string& name, const TimeseriesId& series,
                 const std::vector<double>& upper_bounds, uint64_t label_set_id,
                 const std::vector<std::string>& label_values);
    // Throws std::runtime_error for an unknown id.
    void observe(uint64_t id, double value);
    bool serialize(uint64_t id, const std::vector<uint8_t>& labels_block, PreallocatedVector& out) const;
    bool set_interval(uint64_t id, uint64_t interval_ms);
    bool set_interval_all(uint64_t interval_ms);
    bool is_due(uint64_t id) const;
    void reset(uint64_t id);
    bool remove(uint64_t id);
    bool empty() const { return histograms.empty(); }

    // Next id: 0 for an empty set, else the largest present + 1.
    uint64_t next_id() const;
    const Histogram* find(uint64_t id) const;
    // Enters a histogram read from a block; it is not found by series.
    uint64_t insert_parsed(Histogram histogram);

private:
    std::unordered_map<uint64_t, Histogram> histograms;
    std::unordered_map<TimeseriesId, uint64_t, TimeseriesIdHash> ids;
};

// Every HIST record from `position` to `end` into `set`; stops at the first failure by
// throwing, with the histograms read before it kept.
void parse_histograms(const uint8_t* position, const uint8_t* end, const std::vector<std::string>& label_values,
                      HistogramSet& set);

}  // namespace metrics
}  // namespace obx
