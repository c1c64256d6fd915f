// Counters schemas as decoded, and the rendering of counter blocks: the JSON object that the
// json/ndjson writer must match and the text tables of txt, on blocks laid out with ByteWriter.
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
#include "utils/logger.h"
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
    return written([&](FILE* stream) { const obx_counters_data_t data = {exact.data(), exact.size()}; obx_counters_data_print(stream, &data, schema); });
}

// "<offsets> size=<size_of_counters>", or "none"; then each error line logged while decoding.
std::string decoded(const std::string& text) {
    LogCapture log;
    CountersSchemaPtr schema(obx_counters_schema_from_string(text.c_str()));
    std::string out = schema ? "" : "none";
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g)
        for (uint32_t c = 0; c < schema->groups[g]->num_counters; ++c)
            out += std::to_string(schema->groups[g]->counters[c]->offset) + " ";
    if (schema) out += "size=" + std::to_string(schema->size_of_counters);
    for (const std::string& line : log.at(OBX_LOG_ERROR)) out += " | " + line;
    return out;
}

// The text of a counters_layout document, of another version if asked.
std::string layout(const std::string& text, const std::string& version = "1.5.0") { CountersSchemaDoc doc = counters_layout(text); return doc.version = version, doc.text(); }

Bytes le(uint64_t value) { return ByteWriter().u64(value).take(); }

std::string time_text(uint64_t timestamp) { const std::unique_ptr<char, decltype(&std::free)> text(obx_time_to_string(timestamp), std::free); return text ? text.get() : ""; }

TEST(CountersData, OneValueInJsonAndInTheTable) {
    // The set's JSON and the table's cell up to its closing " |".
    const struct { std::string counter; Bytes values; std::string set, cell; } rows[] = {
        {"c:UINT64", le(UINT64_MAX), R"({"c":1.8446744073709552e+19})", " 18446744073709551615(u)"},
        {"c:BIT64", le(0x8000ABCDEF000000), R"({"c":9.2235609378211758e+18})", " 8000ABCDEF000000"},
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
        EXPECT_NE(table_of(counters_block(5, c.values), schema.get()).find(c.cell + " |\n"), std::string::npos) << c.counter;
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

TEST(CountersSchema, Decoding) {
    const std::string zero_string = " | [obx_counters_schema_update_counter_offsets] Fail: received 0 length string counter s";
    const std::string mismatch = " | JSON does not match schema '", decode_group = " | Failed to decode counter group from JSON";
    const std::string head = R"({"version": "1.5.0", "counter_groups": [)", group = R"({"granularity": "NODE", "num_counters": 1, "num_counter_sets": 1, "counters": [)";
    const struct { std::string text, expected; } cases[] = {
        {layout("x y:FP64 | s:STRING:16 z"), "0 8 16 32 size=40"},
        {layout("short:UINT64:4 next"), "0 4 size=16"},  // offsets move by the length, the size counts 8
        {layout("*4 a | b"), "0 8 size=16"},  // counter sets play no part in offsets
        {layout("x s:STRING:0:77 z:UINT64::99"), "0 77 99 size=16" + zero_string},  // the update stops there
        {layout("*-1e300 s:STRING:1e300"), "0 size=4294967295"},  // clamped
        {layout("x", "1.2.0"), "0 size=8"},
        {layout("x", "1.6.0"), "0 size=8 | Version '1.6.0' of parsing schema is incompatible with current schema version '1.5.0'"},
        {R"({"version": )", "none | Failed parsing counters schema JSON from string"},
        {head + "3]}", "none" + mismatch + R"({"granularity" : "", "num_counters" : 0, "num_counter_sets" : 0, "counters" : []}')" + decode_group},
        // A counter without "units".
        {head + group + R"({"name": "a", "description": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"}]}]})", "none" + mismatch + R"({"name" : "", "description" : "", "units" : "", "data_type" : "", "counting_type" : ""}')" + decode_group},
    };
    for (const auto& c : cases) EXPECT_EQ(decoded(c.text), c.expected) << c.text;
}

TEST(CountersSchema, DecodesFieldsAsTheyStand) {
    CountersSchemaPtr schema(obx_counters_schema_from_string(R"({"version": "1.4.0", "counter_groups": [{"granularity": "SOCKET", "name": "g", "provider": "prov", "num_counter_sets": 2, "num_counters": 5, "counters": [)"
        R"({"name": "c", "description": "the c", "units": "ms", "data_type": "UINT32", "length": 3, "offset": 123, "counting_type": "ABSOLUTE_MONOTONIC"}, {"name": "d", "description": "", "units": "", "data_type": "FP64", "counting_type": "RUNNING_SUM"}]}]})"));
    ASSERT_NE(schema, nullptr);
    const obx_counter_group_t* g = schema->groups[0];
    const obx_counter_info_t *c = g->counters[0], *d = g->counters[1];
    // Unknown table texts read as -1 ("ABSOLUTE_MONOTONIC" is for event fields only); the array
    // counts, not "num_counters"; offsets are computed anew.
    EXPECT_EQ((std::vector<long>{g->granularity, g->num_counters, c->data_type, c->counting_type, c->offset, d->offset, d->counting_type}), (std::vector<long>{-1, 2, -1, -1, 0, 3, 1}));
    EXPECT_EQ(std::string(g->name) + "/" + g->provider_name + "/" + c->name + "/" + c->description + "/" + c->units, "g/prov/c/the c/ms");
}

}  // namespace
