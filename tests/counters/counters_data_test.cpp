// Rendering of counter blocks: the JSON object of the json/ndjson outputs and the text
// tables of txt, on blocks laid out with ByteWriter; and a new block's head.
#include "counters/counter_data/counters_data.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "utils/logger.h"
#include "utils/time_text.h"

namespace {

using namespace obx_test;
using SchemaPtr = std::unique_ptr<obx_counters_schema_t, decltype(&obx_counters_schema_destroy)>;

SchemaPtr schema_of(const CountersSchemaDoc& doc)
{
    return SchemaPtr(obx_counters_schema_from_string(doc.text(false).c_str()), obx_counters_schema_destroy);
}

std::string json_of(const Bytes& block, const obx_counters_schema_t* schema, bool first_set_only = false)
{
    const Bytes exact(block);  // a copy holds exactly its size: a read past its end is caught by ASan
    const obx_counters_data_t data = {exact.data(), exact.size()};
    JsonPtr value(obx_counters_data_to_json(&data, schema));
    if (!value || !first_set_only) return value ? json_text(value.get()) : "<none>";
    const json_t* group = json_array_get(json_object_get(value.get(), "groups"), 0);
    return json_text(json_array_get(json_object_get(group, "counter_sets"), 0));
}

std::string table_of(const Bytes& block, const obx_counters_schema_t* schema)
{
    const Bytes exact(block);
    const obx_counters_data_t data = {exact.data(), exact.size()};
    return written([&](FILE* stream) { obx_counters_data_print(stream, &data, schema); });
}

Bytes le(uint64_t value) { return ByteWriter().u64(value).take(); }

std::string time_text(uint64_t timestamp)
{
    const std::unique_ptr<char, decltype(&std::free)> text(obx_time_to_string(timestamp), std::free);
    return text ? text.get() : "";
}

TEST(CountersData, OneValueInJsonAndInTheTable)
{
    struct Row {
        std::string data_type;
        std::optional<double> length;
        Bytes values;
        std::string set, cell;  // the cell up to its closing " |"
    };
    const std::string empty_cell = "|" + std::string(21, ' ');
    const std::vector<Row> rows = {
        {"UINT64", {}, le(UINT64_MAX), R"({"c":1.8446744073709552e+19})", " 18446744073709551615(u)"},
        {"BIT64", {}, le(0x8000ABCDEF000000), R"({"c":9.2235609378211758e+18})", " 8000ABCDEF000000"},
        {"INT64", {}, le(999), R"({"c":999})", " 999"},
        {"INT64", {}, le(-5000), R"({"c":-5000})", " -5000"},
        {"FLOAT32", {}, le(-9), R"({"c":-9})", " -9"},  // an unknown type reads signed
        {"FP64", {}, ByteWriter().f64(NAN).take(), "{}", " nan"},
        // A STRING ends at its length or a zero byte in JSON; in the table it runs on past its
        // slot up to the width of the cell, but never past the block.
        {"STRING", 4, ByteWriter().text("abcdefgh").take(), R"({"c":"abcd"})", " abcdefgh"},
        {"STRING", 6, ByteWriter().text("ab").u8(0).text("cde").u8(0).u8(0).take(), R"({"c":"ab"})", " ab"},
        {"STRING", 8, ByteWriter().text("abcdefghijklmnopqrstuvwxyz").take(), R"({"c":"abcdefgh"})",
         "| abcdefghijklmnopqrst"},
        {"STRING", 4, Bytes{0xFF, 0xFE, 'a', 0, 0, 0, 0, 0}, "{}", " \xFF\xFE" "a"},  // not UTF-8
        {"UINT64", {}, Bytes(7, 1), "{}", empty_cell},  // beyond the block
    };
    for (const Row& c : rows) {
        SCOPED_TRACE(c.data_type + " " + c.set);
        CountersSchemaDoc doc;
        doc.group("NODE", 1, std::string("g")).counter("c", c.data_type, c.length);
        SchemaPtr schema = schema_of(doc);
        EXPECT_EQ(json_of(counters_block(5, c.values), schema.get(), true), c.set);
        const std::string table = table_of(counters_block(5, c.values), schema.get());
        EXPECT_NE(table.find(c.cell + " |\n"), std::string::npos) << table;
    }
}

TEST(CountersData, JsonOfGroupsSetsAndHead)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("up", "UINT64").counter("host", "STRING", 8);
    doc.group("CPU", 3).counter("busy", "INT64");  // no name
    doc.group("PACKAGE", 0, std::string("pkg")).counter("energy", "FP64");
    SchemaPtr schema = schema_of(doc);
    const std::string expected =
        R"({"timestamp":1700000000123456,"@timestamp":")" + time_text(1700000000123456) + R"(","groups":[)"
        R"({"granularity":"NODE","name":"node","counter_sets":[{"up":10,"host":"n1"}]},)"
        // Every set of a group reads the same bytes, at the counters' own offsets.
        R"({"granularity":"CPU","name":"unset","counter_sets":[{"busy":-1},{"busy":-1},{"busy":-1}]},)"
        R"({"granularity":"PACKAGE","name":"pkg","counter_sets":[]}]})";
    const Bytes values = ByteWriter().u64(10).fixed("n1", 8).i64(-1).f64(2.5).take();
    for (const uint32_t level : {OBX_LOG_DEBUG, OBX_LOG_INFO}) {  // STRING bytes are dumped at debug level only
        LogCapture log(level);
        EXPECT_EQ(json_of(counters_block(1700000000123456, values), schema.get()), expected);
        EXPECT_EQ(log.all().find("6E 31 00 00") != std::string::npos, level == OBX_LOG_DEBUG) << log.all();
    }
    // Timestamp 0 is the epoch in local time; a block without a whole head has no JSON.
    EXPECT_EQ(json_of(counters_block(0, {}), nullptr),
              R"({"timestamp":0,"@timestamp":")" + time_text(0) + R"(","groups":[]})");
    LogCapture log;
    EXPECT_EQ(json_of(Bytes(15, 'D'), schema.get()) + table_of(Bytes(15, 'D'), schema.get()), "<none>");
    EXPECT_TRUE(log.has("Counters block of 15 bytes is shorter than its 16-byte head")) << log.all();

    // A value cut by the block's end is left out, and so is one at an offset that wraps.
    EXPECT_EQ(json_of(counters_block(1, Bytes(values.begin(), values.begin() + 15)), schema.get(), true),
              R"({"up":10})");
    schema->groups[0]->counters[1]->offset = 0xFFFFFFFCu;
    EXPECT_EQ(json_of(counters_block(1, values), schema.get(), true), R"({"up":10})");

    // Without a name of its own a group takes its provider's; an unknown granularity has no key.
    obx_counters_provider_t provider = {};
    provider.name = "cpu_provider";
    schema->groups[1]->provider = &provider;
    schema->groups[1]->granularity = -1;
    EXPECT_NE(json_of(counters_block(1, values), schema.get()).find(R"({"name":"cpu_provider","counter_sets")"),
              std::string::npos);
}

TEST(CountersData, TextTables)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("temp", "INT64").counter("rx", "UINT64").counter("load", "FP64")
        .counter("mask", "BIT64").counter("host", "STRING", 8);
    doc.group("CPU", 2, std::string("cpu")).counter("a", "INT64");
    doc.group("PACKAGE", 0, std::string("pkg")).counter("e", "UINT64");
    SchemaPtr schema = schema_of(doc);
    const Bytes block = counters_block(1, ByteWriter().i64(1000).u64(42).f64(1.5).u64(0xABCDEF).fixed("hi", 8).take());
    const std::string rule(123, '-'), cpu = "------------------------------\n", pkg = "------------------------\n";
    // Each group reads its grid of slots from the start of the values; a group without sets
    // has its title cut to the rule's width less 23.
    const std::string head = "Data collected at " + time_text(1) + "\n";
    const std::string tail = pkg + "| Counter values per P |\n" + pkg + "|                    e |\n" + pkg + pkg;
    const std::string expected = head + rule + "\n" + "| Counter values per NODE" + std::string(96, ' ') + " |\n" +
                                 rule + "\n" +
                                 "| NODE |                 temp |                   rx |                 load |"
                                 "                 mask |                 host |\n" + rule + "\n" +
                                 "|    0 |                  1 k |                   42(u) |            1.500 |"
                                 "               ABCDEF |                   hi |\n" + rule + "\n" +
                                 cpu + "| Counter values per CPU     |\n" + cpu + "| CPU |                    a |\n" +
                                 cpu + "|   0 |                  1 k |\n|   1 |                   42 |\n" + cpu + tail;
    EXPECT_EQ(table_of(block, schema.get()), expected);
    // An empty group slot is passed over.
    obx_counter_group_t* groups[] = {nullptr, schema->groups[2]};
    obx_counters_schema_t with_hole = {8, 2, groups};
    EXPECT_EQ(table_of(block, &with_hole), head + tail);
}

TEST(CountersData, InitAndClear)
{
    Bytes block(64, 0xAA);
    struct timespec before, after;
    clock_gettime(CLOCK_REALTIME, &before);
    ASSERT_TRUE(obx_counters_data_init(block.data(), block.size()));
    clock_gettime(CLOCK_REALTIME, &after);
    const obx_counters_data_t data = {block.data(), block.size()};
    EXPECT_GE(obx_counters_data_timestamp(&data), before.tv_sec * 1000000ull + before.tv_nsec / 1000);
    EXPECT_LE(obx_counters_data_timestamp(&data), after.tv_sec * 1000000ull + after.tv_nsec / 1000);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 8), (Bytes{'O', 'B', 'X', 'D', 0, 0, 0, 0}));
    EXPECT_FALSE(obx_counters_data_init(block.data(), 15));
    // Clearing a group's values zeroes sets x counters slots and nothing behind them.
    obx_counter_group_t group = {};
    group.num_counter_sets = 3;
    group.num_counters = 2;
    obx_counter_group_values_clear(&group, block.data());
    EXPECT_EQ(block, concat({Bytes(48, 0), Bytes(16, 0xAA)}));
}

}  // namespace
