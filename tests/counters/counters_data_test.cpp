// Rendering of counter blocks: the JSON object that the json/ndjson writer must match and
// the text tables of txt, on blocks laid out with ByteWriter.
#include "counters/counter_data/counters_data.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <memory>

#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "fixtures/schema_objects.h"
#include "utils/time_text.h"

namespace {

using namespace obx_test;

CountersSchemaPtr schema_of(const CountersSchemaDoc& doc) { return CountersSchemaPtr(obx_counters_schema_from_string(doc.text(false).c_str())); }

// The block's JSON, or only its first group's first set; "<none>" for no value.
std::string json_of(const Bytes& block, const obx_counters_schema_t* schema, bool first_set_only = false) {
    const Bytes exact(block);  // a copy holds exactly its size: a read past its end is caught by ASan
    const obx_counters_data_t data = {exact.data(), exact.size()};
    JsonPtr value(obx_counters_data_to_json(&data, schema));
    const json_t* group = json_array_get(json_object_get(value.get(), "groups"), 0);
    return !value ? "<none>" : json_text(first_set_only ? json_array_get(json_object_get(group, "counter_sets"), 0) : value.get());
}

std::string table_of(const Bytes& block, const obx_counters_schema_t* schema) {
    const Bytes exact(block);
    const obx_counters_data_t data = {exact.data(), exact.size()};
    return written([&](FILE* stream) { obx_counters_data_print(stream, &data, schema); });
}

Bytes le(uint64_t value) { return ByteWriter().u64(value).take(); }

std::string time_text(uint64_t timestamp) {
    const std::unique_ptr<char, decltype(&std::free)> text(obx_time_to_string(timestamp), std::free);
    return text ? text.get() : "";
}

TEST(CountersData, OneValueInJsonAndInTheTable) {
    // The set's JSON and the table's cell up to its closing " |".
    const struct { std::string counter; Bytes values; std::string set, cell; } rows[] = {
        {"c:UINT64", le(UINT64_MAX), R"({"c":1.8446744073709552e+19})", " 18446744073709551615(u)"},
        {"c:BIT64", le(0x8000ABCDEF000000), R"({"c":9.2235609378211758e+18})", " 8000ABCDEF000000"},
        {"c:INT64", le(999), R"({"c":999})", " 999"},
        {"c:INT64", le(-5000), R"({"c":-5000})", " -5000"},
        {"c:FLOAT32", le(-9), R"({"c":-9})", " -9"},  // an unknown type reads signed
        {"c:FP64", ByteWriter().f64(NAN).take(), "{}", " nan"},
        // A STRING ends at its length or a zero byte in JSON; in the table it runs on past its
        // slot up to the width of the cell, but never past the block.
        {"c:STRING:4", ByteWriter().text("abcdefgh").take(), R"({"c":"abcd"})", " abcdefgh"},
        {"c:STRING:6", ByteWriter().text("ab").u8(0).text("cde").u8(0).u8(0).take(), R"({"c":"ab"})", " ab"},
        {"c:STRING:8", ByteWriter().text("abcdefghijklmnopqrstuvwxyz").take(), R"({"c":"abcdefgh"})", "| abcdefghijklmnopqrst"},
        {"c:STRING:4", Bytes{0xFF, 0xFE, 'a', 0, 0, 0, 0, 0}, "{}", " \xFF\xFE" "a"},  // not UTF-8
        {"c:UINT64", Bytes(7, 1), "{}", "|" + std::string(21, ' ')},  // beyond the block
    };
    for (const auto& c : rows) {
        CountersSchemaPtr schema = schema_of(counters_layout(c.counter));
        EXPECT_EQ(json_of(counters_block(5, c.values), schema.get(), true), c.set) << c.counter;
        const std::string table = table_of(counters_block(5, c.values), schema.get());
        EXPECT_NE(table.find(c.cell + " |\n"), std::string::npos) << table;
    }
}

TEST(CountersData, JsonOfGroupsSetsAndHead) {
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("up", "UINT64").counter("host", "STRING", 8);
    doc.group("CPU", 3).counter("busy", "INT64");  // no name
    doc.group("PACKAGE", 0, std::string("pkg")).counter("energy", "FP64");
    CountersSchemaPtr schema = schema_of(doc);
    const Bytes values = ByteWriter().u64(10).fixed("n1", 8).i64(-1).f64(2.5).take();
    // Every set of a group reads the same bytes, at the counters' own offsets.
    EXPECT_EQ(json_of(counters_block(1700000000123456, values), schema.get()),
              R"({"timestamp":1700000000123456,"@timestamp":")" + time_text(1700000000123456) + R"(","groups":[{"granularity":"NODE","name":"node","counter_sets":[{"up":10,"host":"n1"}]},{"granularity":"CPU","name":"unset","counter_sets":[{"busy":-1},{"busy":-1},{"busy":-1}]},{"granularity":"PACKAGE","name":"pkg","counter_sets":[]}]})");
    // Timestamp 0 is the epoch in local time; a block without a whole head has no JSON and no table.
    EXPECT_EQ(json_of(counters_block(0, {}), nullptr), R"({"timestamp":0,"@timestamp":")" + time_text(0) + R"(","groups":[]})");
    LogCapture log;
    EXPECT_EQ(json_of(Bytes(15, 'D'), schema.get()) + table_of(Bytes(15, 'D'), schema.get()), "<none>");
    EXPECT_TRUE(log.has("Counters block of 15 bytes is shorter than its 16-byte head")) << log.all();
    // A value cut by the block's end is left out, and so is one at an offset that wraps.
    EXPECT_EQ(json_of(counters_block(1, Bytes(values.begin(), values.begin() + 15)), schema.get(), true), R"({"up":10})");
    schema->groups[0]->counters[1]->offset = 0xFFFFFFFCu;
    EXPECT_EQ(json_of(counters_block(1, values), schema.get(), true), R"({"up":10})");
}

TEST(CountersData, TextTables) {
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("temp", "INT64").counter("rx", "UINT64").counter("load", "FP64").counter("mask", "BIT64").counter("host", "STRING", 8);
    doc.group("CPU", 2, std::string("cpu")).counter("a", "INT64");
    doc.group("PACKAGE", 0, std::string("pkg")).counter("e", "UINT64");
    CountersSchemaPtr schema = schema_of(doc);
    const Bytes block = counters_block(1, ByteWriter().i64(1000).u64(42).f64(1.5).u64(0xABCDEF).fixed("hi", 8).take());
    const std::string rule = std::string(123, '-') + "\n", cpu = std::string(30, '-') + "\n", pkg = std::string(24, '-') + "\n";
    // Each group reads its grid of slots from the start of the values; a group without sets
    // has its title cut to the rule's width less 23.
    EXPECT_EQ(table_of(block, schema.get()), "Data collected at " + time_text(1) + "\n" + rule + "| Counter values per NODE" + std::string(96, ' ') + " |\n" + rule +
        "| NODE |                 temp |                   rx |                 load |                 mask |                 host |\n" + rule +
        "|    0 |                  1 k |                   42(u) |            1.500 |               ABCDEF |                   hi |\n" + rule +
        cpu + "| Counter values per CPU     |\n" + cpu + "| CPU |                    a |\n" + cpu + "|   0 |                  1 k |\n|   1 |                   42 |\n" + cpu +
        pkg + "| Counter values per P |\n" + pkg + "|                    e |\n" + pkg + pkg);
}

}  // namespace
