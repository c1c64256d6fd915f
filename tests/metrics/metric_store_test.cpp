#include "metrics/metric_store.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_map>

using namespace obx::data::metrics;
using Labels = std::unordered_map<std::string, std::string>;

namespace {

TEST(MetricStore, HashCombineAsWrittenOut) {
    EXPECT_EQ(hash_combine64(0, 1), 0x1ed1b5abbd8399b7ull);
    EXPECT_EQ(hash_combine64(hash_combine64(0, 1), 2), 0x30b3fc98529bf99eull);
    EXPECT_EQ(hash_combine64(0x1234, 0xabcdef), 0xd0de898fa24042bull);
}

TEST(MetricStore, SymbolsAndLabelSets) {
    MetricStore store;
    SymbolTable& symbols = store.symbols();
    const uint64_t a = symbols.intern("port");
    EXPECT_EQ(symbols.intern("port"), a);
    EXPECT_EQ(symbols.count(a), 2u);
    EXPECT_EQ(symbols.lookup(a), "port");
    try {
        symbols.lookup(a + 1);
        ADD_FAILURE() << "no exception";
    } catch (const SymbolTable::SymbolNotFoundError& e) {
        EXPECT_EQ(std::string(e.what()), "Symbol not found for key: " + std::to_string(a + 1));
    }

    EXPECT_EQ(store.intern_labels({}), 0u);  // an empty map is a label set too
    uint64_t number = 99;
    EXPECT_TRUE(store.label_set_numbers().value_of(0, &number));
    EXPECT_EQ(number, 0u);
    const uint64_t one = store.intern_labels({{"port", "1"}});
    EXPECT_EQ(one, hash_combine64(hash_combine64(0, a), symbols.intern("1")));  // the interning raised "1"
    const uint64_t value = symbols.intern("1");
    const uint64_t before = symbols.count(value);
    EXPECT_EQ(store.intern_labels({{"port", "1"}}), one);  // again: same id, no new set, counts up
    EXPECT_EQ(store.label_set_count(), 2u);
    EXPECT_EQ(symbols.count(value), before + 1);
    EXPECT_TRUE(store.label_set_numbers().value_of(one, &number));
    EXPECT_EQ(number, 1u);

    ReverseIndex index;
    index.add(1, 10);
    for (const auto& pair : {std::make_pair(1ull, 11ull), std::make_pair(2ull, 10ull)}) {
        try {
            index.add(pair.first, pair.second);
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "[ReverseIndex] Duplicate key or value detected.");
        }
    }
    EXPECT_FALSE(index.key_of(11, &number));
}

TEST(MetricStore, TypesAndCapacities) {
    MetricStore store;
    const uint64_t rx = store.symbols().intern("rx");
    store.get_uint64_series(rx, 0).push(1, 5);
    try {
        store.get_double_series(rx, 0);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Type mismatch for metric 'rx'");
    }
    EXPECT_EQ(store.find_series(OBX_METRIC_DOUBLE, rx, 0), nullptr);
    store.get_uint64_series(rx + 1, 0);  // a symbol never interned: its mismatch cannot be named
    EXPECT_THROW(store.get_int64_series(rx + 1, 0), SymbolTable::SymbolNotFoundError);
    MetricStore loose;
    loose.set_record_types(false);
    loose.get_uint64_series(rx, 0);
    loose.get_double_series(rx, 0);  // with types not recorded, both tables take it
    EXPECT_NE(loose.find_series(OBX_METRIC_UINT64, rx, 0), nullptr);
    EXPECT_NE(loose.find_series(OBX_METRIC_DOUBLE, rx, 0), nullptr);
    EXPECT_EQ(loose.find_series(0, rx, 0), nullptr);  // the fifth table is there, and empty

    store.set_default_capacity(0);
    MetricSeries& one = store.get_bit64_series(store.symbols().intern("flags"), 7);
    EXPECT_EQ(one.values.capacity(), 1u);
    one.push(1, 10);
    one.push(2, 20);
    EXPECT_EQ(one.values.newest(), 20u);
    EXPECT_EQ(one.kind, static_cast<uint32_t>('U'));

    const uint64_t tx = store.symbols().intern("tx");
    store.set_capacity(tx, 3);
    MetricSeries& ring = store.get_uint64_series(tx, 0);
    for (uint64_t v : {1, 2, 3, 4}) ring.push(100 + v, v);
    EXPECT_EQ(ring.values.size(), 3u);
    EXPECT_EQ(ring.values.oldest_position(), 1u);
    EXPECT_EQ(ring.values.cell(0), 4u);  // the newest went where the oldest was
    EXPECT_EQ(ring.values.at(0), 2u);
    EXPECT_EQ(ring.values.newest(), 4u);
    EXPECT_EQ(ring.timestamps.newest(), 104u);  // both rings in step
    store.set_capacity(tx, 10);  // existing series keep their rings
    EXPECT_EQ(store.get_uint64_series(tx, 0).values.capacity(), 3u);
}

}  // namespace
