#include "metrics/metric_store.h"

#include <boost/functional/hash.hpp>

namespace obx {
namespace data {
namespace metrics {

uint64_t hash_combine64(uint64_t seed, uint64_t value)
{
    uint64_t x = seed + 0x9e3779b9u + value;
    const uint64_t m = 0xe9846af9b1a615dull;
    x ^= x >> 32;
    x *= m;
    x ^= x >> 32;
    x *= m;
    x ^= x >> 28;
    return x;
}

SymbolTable::SymbolNotFoundError::SymbolNotFoundError(uint64_t id)
    : std::runtime_error("Symbol not found for key: " + std::to_string(id))
{
}

uint64_t SymbolTable::intern(const std::string& text)
{
    const auto known = ids.find(text);
    if (known != ids.end()) {
        ++counts[known->second];
        return known->second;
    }
    const uint64_t id = boost::hash<std::string>()(text);
    strings[id] = text;  // a colliding string takes the entry over
    ids[text] = id;
    counts[id] = 1;
    return id;
}

const std::string& SymbolTable::lookup(uint64_t id) const
{
    const auto found = strings.find(id);
    if (found == strings.end()) throw SymbolNotFoundError(id);
    return found->second;
}

uint64_t SymbolTable::count(uint64_t id) const
{
    const auto found = counts.find(id);
    return found == counts.end() ? 0 : found->second;
}

void ReverseIndex::add(uint64_t key, uint64_t value)
{
    if (by_key.count(key) || by_value.count(value))
        throw std::runtime_error("[ReverseIndex] Duplicate key or value detected.");
    by_key[key] = value;
    by_value[value] = key;
}

bool ReverseIndex::value_of(uint64_t key, uint64_t* value) const
{
    const auto found = by_key.find(key);
    if (found == by_key.end()) return false;
    *value = found->second;
    return true;
}

bool ReverseIndex::key_of(uint64_t value, uint64_t* key) const
{
    const auto found = by_value.find(value);
    if (found == by_value.end()) return false;
    *key = found->second;
    return true;
}

void Ring::push(uint64_t cell)
{
    if (used < cells.size()) {
        cells[used++] = cell;
        return;
    }
    cells[oldest] = cell;
    oldest = (oldest + 1) % cells.size();
}

MetricStore::MetricStore() : fifth_table(new TypedTable)
{
    fifth_table->symbols = &symbol_table;
}

uint64_t MetricStore::intern_labels(const std::unordered_map<std::string, std::string>& labels)
{
    std::unordered_map<uint64_t, uint64_t> symbols;
    for (const auto& pair : labels) symbols[symbol_table.intern(pair.first)] = symbol_table.intern(pair.second);
    // Walk order of the symbol map: the same pairs reached otherwise may give another id.
    uint64_t id = 0;
    for (const auto& pair : symbols) {
        id = hash_combine64(id, pair.first);
        id = hash_combine64(id, pair.second);
    }
    if (label_sets.count(id)) return id;
    label_sets.emplace(id, std::move(symbols));
    set_numbers.add(id, next_label_set_number++);
    return id;
}

MetricSeries& MetricStore::series_of(std::unique_ptr<TypedTable>& table, uint32_t code, uint64_t metric,
                                     uint64_t label_set_id)
{
    if (!table) {
        table.reset(new TypedTable);
        table->symbols = &symbol_table;
    }
    const auto known = types.find(metric);
    if (known != types.end() && known->second != 0 && known->second != code)
        throw std::runtime_error("Type mismatch for metric '" + symbol_table.lookup(metric) + "'");
    if (known == types.end() && record_types) types[metric] = code;
    const auto chosen = capacities.find(metric);
    uint64_t capacity = chosen != capacities.end() ? chosen->second : default_capacity;
    if (capacity == 0) capacity = 1;
    auto& by_label_set = table->series[metric];
    auto found = by_label_set.find(label_set_id);
    if (found == by_label_set.end()) found = by_label_set.emplace(label_set_id, MetricSeries(capacity)).first;
    return found->second;
}

MetricSeries& MetricStore::get_uint64_series(uint64_t metric, uint64_t label_set_id)
{
    return series_of(uint64_table, OBX_METRIC_UINT64, metric, label_set_id);
}

MetricSeries& MetricStore::get_double_series(uint64_t metric, uint64_t label_set_id)
{
    return series_of(double_table, OBX_METRIC_DOUBLE, metric, label_set_id);
}

MetricSeries& MetricStore::get_int64_series(uint64_t metric, uint64_t label_set_id)
{
    return series_of(int64_table, OBX_METRIC_INT64, metric, label_set_id);
}

MetricSeries& MetricStore::get_bit64_series(uint64_t metric, uint64_t label_set_id)
{
    return series_of(bit64_table, OBX_METRIC_BIT64, metric, label_set_id);
}

const TypedTable* MetricStore::table_of(uint32_t code) const
{
    switch (code) {
    case OBX_METRIC_UINT64: return uint64_table.get();
    case OBX_METRIC_DOUBLE: return double_table.get();
    case OBX_METRIC_BIT64: return bit64_table.get();
    case OBX_METRIC_INT64: return int64_table.get();
    case 0: return fifth_table.get();
    default: return nullptr;
    }
}

bool MetricStore::holds_metric(uint64_t metric) const
{
    for (uint32_t code = 0; code <= OBX_METRIC_INT64; ++code) {
        const TypedTable* table = table_of(code);
        if (table && table->series.count(metric)) return true;
    }
    return false;
}

const MetricSeries* MetricStore::find_series(uint32_t type_code, uint64_t metric, uint64_t label_set_id) const
{
    const TypedTable* table = table_of(type_code);
    if (!table) return nullptr;
    const auto by_metric = table->series.find(metric);
    if (by_metric == table->series.end()) return nullptr;
    const auto series = by_metric->second.find(label_set_id);
    return series == by_metric->second.end() ? nullptr : &series->second;
}

}  // namespace metrics
}  // namespace data
}  // namespace obx
