// The long-lived metric store: symbols for repeated strings, label sets, and per metric
// and label set a series of typed samples in two rings of fixed size that stay in step.
//
// A store is made by its constructor and tuned by the setters below: the default ring
// capacity (1 unless set), a capacity per metric, and whether a metric's first type is
// recorded (on unless cleared). Series are read back through find_series and the rings'
// at(), oldest first.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace obx {
namespace data {
namespace metrics {

// The 64-bit boost::hash_combine: x = seed + 0x9e3779b9 + value, then two multiply and
// shift rounds.
uint64_t hash_combine64(uint64_t seed, uint64_t value);

class SymbolTable {
public:
    class SymbolNotFoundError : public std::runtime_error {
    public:
        explicit SymbolNotFoundError(uint64_t id);
    };

    // The id is the string's boost::hash; strings that share it share the id, the later
    // one taking it over. Every call raises the id's count.
    uint64_t intern(const std::string& text);
    const std::string& lookup(uint64_t id) const;
    uint64_t count(uint64_t id) const;

private:
    std::unordered_map<uint64_t, std::string> strings;
    std::unordered_map<std::string, uint64_t> ids;
    std::unordered_map<uint64_t, uint64_t> counts;
};

// Keys and values both unique; the two sides change together.
class ReverseIndex {
public:
    // Throws std::runtime_error on a key or value already present, changing nothing.
    void add(uint64_t key, uint64_t value);
    bool value_of(uint64_t key, uint64_t* value) const;
    bool key_of(uint64_t value, uint64_t* key) const;

private:
    std::unordered_map<uint64_t, uint64_t> by_key;
    std::unordered_map<uint64_t, uint64_t> by_value;
};

// Cells allocated at full capacity; when full a push overwrites the oldest.
class Ring {
public:
    explicit Ring(uint64_t capacity) : cells(capacity) {}
    void push(uint64_t cell);
    uint64_t size() const { return used; }
    uint64_t capacity() const { return cells.size(); }
    uint64_t oldest_position() const { return oldest; }
    // The i-th cell from the oldest.
    uint64_t at(uint64_t i) const { return cells[(oldest + i) % cells.size()]; }
    uint64_t newest() const { return at(used - 1); }
    uint64_t cell(uint64_t position) const { return cells[position]; }

private:
    std::vector<uint64_t> cells;
    uint64_t used = 0;
    uint64_t oldest = 0;
};

struct MetricSeries {
    explicit MetricSeries(uint64_t capacity) : timestamps(capacity), values(capacity) {}
    // One push on each ring, so timestamp i belongs to value i.
    void push(uint64_t timestamp, uint64_t value_bits) {
        timestamps.push(timestamp);
        values.push(value_bits);
    }
    Ring timestamps;
    Ring values;  // 8-byte cells, typed by the table that holds the series
    uint32_t kind = 'U';
    std::unordered_map<std::string, std::string> labels;
};

enum MetricTypeCode : uint32_t {
    OBX_METRIC_UINT64 = 1,
    OBX_METRIC_DOUBLE = 2,
    OBX_METRIC_BIT64 = 3,
    OBX_METRIC_INT64 = 4,
};

struct TypedTable {
    std::unordered_map<uint64_t, std::unordered_map<uint64_t, MetricSeries>> series;
    SymbolTable* symbols = nullptr;
};

struct HistogramRecord {
    std::string name;
    std::vector<std::pair<double, uint64_t>> buckets;
    double sum = 0;
    uint64_t count = 0;
    uint64_t timestamp = 0;
    uint64_t label_set_id = 0;
};

class MetricStore {
public:
    MetricStore();

    uint64_t intern_labels(const std::unordered_map<std::string, std::string>& labels);
    // The series of a metric symbol and label set, made if absent; throws
    // std::runtime_error "Type mismatch for metric '<name>'" when the metric was first
    // recorded with another type, and SymbolNotFoundError for an unknown symbol then.
    MetricSeries& get_uint64_series(uint64_t metric, uint64_t label_set_id);
    MetricSeries& get_double_series(uint64_t metric, uint64_t label_set_id);
    MetricSeries& get_int64_series(uint64_t metric, uint64_t label_set_id);
    MetricSeries& get_bit64_series(uint64_t metric, uint64_t label_set_id);

    void set_default_capacity(uint64_t capacity) { default_capacity = capacity; }
    void set_capacity(uint64_t metric, uint64_t capacity) { capacities[metric] = capacity; }
    void set_record_types(bool on) { record_types = on; }

    // True when any of the five typed tables has series of this metric.
    bool holds_metric(uint64_t metric) const;
    // Calls visit(type_code, metric, label_set_id, series) for every series, table by table
    // in type code order (0, the fifth table, first).
    template <class Visit>
    void for_each_series(Visit&& visit) const {
        for (uint32_t code = 0; code <= OBX_METRIC_INT64; ++code) {
            const TypedTable* table = table_of(code);
            if (!table) continue;
            for (const auto& metric : table->series)
                for (const auto& series : metric.second) visit(code, metric.first, series.first, series.second);
        }
    }
    // nullptr when the table of that code has no such series (code 0: the fifth table).
    const MetricSeries* find_series(uint32_t type_code, uint64_t metric, uint64_t label_set_id) const;
    SymbolTable& symbols() { return symbol_table; }
    const SymbolTable& symbols() const { return symbol_table; }
    const ReverseIndex& label_set_numbers() const { return set_numbers; }
    size_t label_set_count() const { return label_sets.size(); }
    // Name symbol to value symbol of a label set; nullptr for an unknown id.
    const std::unordered_map<uint64_t, uint64_t>* find_label_set(uint64_t id) const {
        const auto found = label_sets.find(id);
        return found == label_sets.end() ? nullptr : &found->second;
    }
    std::unordered_map<uint64_t, HistogramRecord>& histograms() { return histogram_records; }
    const std::unordered_map<uint64_t, uint32_t>& metric_types() const { return types; }

private:
    MetricSeries& series_of(std::unique_ptr<TypedTable>& table, uint32_t code, uint64_t metric, uint64_t label_set_id);
    const TypedTable* table_of(uint32_t code) const;

    std::unique_ptr<TypedTable> bit64_table;
    std::unique_ptr<TypedTable> fifth_table;  // never written here; looked in by the filter test
    std::unique_ptr<TypedTable> double_table;
    std::unique_ptr<TypedTable> int64_table;
    std::unique_ptr<TypedTable> uint64_table;
    std::unordered_map<uint64_t, uint32_t> types;
    SymbolTable symbol_table;
    bool record_types = true;
    std::unordered_map<uint64_t, uint64_t> capacities;
    uint64_t default_capacity = 1;
    std::unordered_map<uint64_t, std::unordered_map<uint64_t, uint64_t>> label_sets;
    ReverseIndex set_numbers;
    uint64_t next_label_set_number = 0;
    std::unordered_map<uint64_t, HistogramRecord> histogram_records;
};

struct MetricFilter {
    std::mutex lock;  // held around a name test
    std::unordered_set<std::string> exact_names;
    std::vector<std::pair<std::string, uint32_t>> rules;
    bool patterns_on = false;
    bool change_only = false;
};

}  // namespace metrics
}  // namespace data
}  // namespace obx
