// Rendering of counter blocks: the JSON object of the json/ndjson outputs, the text
// tables of txt, and the small printers, on blocks laid out with ByteWriter.
#include "counters/counter_data/counters_data.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "counters/counter_group/counter_enums.h"
#include "fixtures/byte_writer.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"
#include "utils/time_text.h"

namespace {

using namespace obx_test;

struct SchemaRelease {
    void operator()(obx_counters_schema_t* schema) const { obx_counters_schema_destroy(schema); }
};
using SchemaPtr = std::unique_ptr<obx_counters_schema_t, SchemaRelease>;

SchemaPtr schema_of(const CountersSchemaDoc& doc)
{
    SchemaPtr schema(obx_counters_schema_from_string(doc.text(false).c_str()));
    EXPECT_NE(schema, nullptr) << doc.text();
    return schema;
}

// A schema of one group holding one counter.
SchemaPtr one_counter(const std::string& data_type, std::optional<double> length = std::nullopt)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("g")).counter("c", data_type, length);
    return schema_of(doc);
}

std::string json_of(const Bytes& block, const obx_counters_schema_t* schema)
{
    const obx_counters_data_t data = {block.data(), block.size()};
    JsonPtr value(obx_counters_data_to_json(&data, schema));
    return value ? json_text(value.get()) : "<none>";
}

// The one counter set of the one group of a rendered block.
std::string first_set_of(const Bytes& block, const obx_counters_schema_t* schema)
{
    const obx_counters_data_t data = {block.data(), block.size()};
    JsonPtr value(obx_counters_data_to_json(&data, schema));
    if (!value) return "<none>";
    const json_t* groups = json_object_get(value.get(), "groups");
    const json_t* sets = json_object_get(json_array_get(groups, 0), "counter_sets");
    return json_text(json_array_get(sets, 0));
}

template <class Print>
std::string printed(Print&& print)
{
    char* text = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&text, &length);
    print(stream);
    std::fclose(stream);
    std::string result(text, length);
    std::free(text);
    return result;
}

std::string table_of(const Bytes& block, const obx_counters_schema_t* schema)
{
    const obx_counters_data_t data = {block.data(), block.size()};
    return printed([&](FILE* stream) { obx_counters_data_print(stream, &data, schema); });
}

std::string time_text(uint64_t timestamp)
{
    char* text = obx_time_to_string(timestamp);
    std::string result = text ? text : "";
    std::free(text);
    return result;
}

Bytes u64_bytes(uint64_t value) { return ByteWriter().u64(value).take(); }

// ---- JSON -----------------------------------------------------------------------------

struct ValueCase {
    const char* name;
    std::string data_type;
    std::optional<double> length;
    Bytes values;
    std::string set;  // plain text of the counter set
};

TEST(CountersDataJson, ValuesByDataType)
{
    const std::vector<ValueCase> cases = {
        {"uint64 top rounds to double", "UINT64", std::nullopt, u64_bytes(UINT64_MAX),
         R"({"c":1.8446744073709552e+19})"},
        {"bit64 is unsigned", "BIT64", std::nullopt, u64_bytes(0x8000000000000000ull),
         R"({"c":9.2233720368547758e+18})"},
        {"int64 is signed", "INT64", std::nullopt, ByteWriter().i64(-5).take(), R"({"c":-5})"},
        {"unknown type reads signed", "FLOAT32", std::nullopt, ByteWriter().i64(-9).take(), R"({"c":-9})"},
        {"fp64", "FP64", std::nullopt, ByteWriter().f64(1.5).take(), R"({"c":1.5})"},
        {"fp64 NaN leaves the key out", "FP64", std::nullopt,
         ByteWriter().f64(std::numeric_limits<double>::quiet_NaN()).take(), "{}"},
        {"string without terminator", "STRING", 4, ByteWriter().text("abcd").take(), R"({"c":"abcd"})"},
        {"string ends at a zero byte", "STRING", 6, ByteWriter().text("ab").u8(0).text("cde").take(),
         R"({"c":"ab"})"},
        {"string not UTF-8 leaves the key out", "STRING", 4, Bytes{0xFF, 0xFE, 'a', 0}, "{}"},
    };
    for (const ValueCase& c : cases) {
        SCOPED_TRACE(c.name);
        SchemaPtr schema = one_counter(c.data_type, c.length);
        ASSERT_NE(schema, nullptr);
        EXPECT_EQ(first_set_of(counters_block(5, c.values), schema.get()), c.set);
    }
}

TEST(CountersDataJson, WholeBlockWithGroupsAndRepeatedSets)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("up", "UINT64").counter("host", "STRING", 8);
    doc.group("CPU", 3).counter("busy", "INT64");  // no name: "unset"
    doc.group("PACKAGE", 0, std::string("pkg")).counter("energy", "FP64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_NE(schema, nullptr);
    ASSERT_EQ(schema->size_of_counters, 32u);

    const Bytes values = ByteWriter().u64(10).fixed("n1", 8).i64(-1).f64(2.5).take();
    const uint64_t timestamp = 1700000000123456ull;
    const std::string expected = std::string(R"({"timestamp":1700000000123456,"@timestamp":")") +
                                 time_text(timestamp) +
                                 R"(","groups":[)"
                                 R"({"granularity":"NODE","name":"node","counter_sets":[{"up":10,"host":"n1"}]},)"
                                 // Every set of a group reads the same bytes, at the counters' own offsets.
                                 R"({"granularity":"CPU","name":"unset","counter_sets":[{"busy":-1},{"busy":-1},{"busy":-1}]},)"
                                 R"({"granularity":"PACKAGE","name":"pkg","counter_sets":[]}]})";
    EXPECT_EQ(json_of(counters_block(timestamp, values), schema.get()), expected);
}

TEST(CountersDataJson, GroupNamesAndGranularity)
{
    // A group made by a provider is named after it when it has no name of its own.
    static const char provider_name[] = "cpu_provider";
    obx_counters_provider_t provider = {};
    provider.name = provider_name;

    struct NameCase {
        const char* name;
        const char* group_name;
        obx_counters_provider_t* provider;
        int32_t granularity;
        std::string expected;
    };
    const std::vector<NameCase> cases = {
        {"own name", "mine", &provider, OBX_COUNTER_GRANULARITY_CPU, R"({"granularity":"CPU","name":"mine")"},
        {"provider name", nullptr, &provider, OBX_COUNTER_GRANULARITY_NODE,
         R"({"granularity":"NODE","name":"cpu_provider")"},
        {"unset", nullptr, nullptr, OBX_COUNTER_GRANULARITY_PACKAGE, R"({"granularity":"PACKAGE","name":"unset")"},
        {"unknown granularity has no key", "x", nullptr, -1, R"({"name":"x")"},
    };
    for (const NameCase& c : cases) {
        SCOPED_TRACE(c.name);
        obx_counter_group_t group = {};
        group.name = const_cast<char*>(c.group_name);
        group.provider = c.provider;
        group.granularity = c.granularity;
        obx_counter_group_t* groups[] = {&group};
        obx_counters_schema_t schema = {0, 1, groups};
        const std::string text = json_of(counters_block(0, {}), &schema);
        EXPECT_NE(text.find(c.expected + R"(,"counter_sets":[]})"), std::string::npos) << text;
    }
}

TEST(CountersDataJson, ValuesBeyondTheBlockAreLeftOut)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 2, std::string("g")).counter("a", "UINT64").counter("b", "UINT64").counter("s", "STRING", 8);
    SchemaPtr schema = schema_of(doc);
    ASSERT_NE(schema, nullptr);

    struct CutCase {
        size_t value_bytes;
        std::string set;
    };
    const Bytes full = ByteWriter().u64(1).u64(2).text("abcdefgh").take();
    for (const CutCase& c : std::vector<CutCase>{{24, R"({"a":1,"b":2,"s":"abcdefgh"})"},
                                                 {23, R"({"a":1,"b":2})"},
                                                 {15, R"({"a":1})"},
                                                 {0, "{}"}}) {
        SCOPED_TRACE(c.value_bytes);
        // Exactly as many bytes as the block holds, so a read past them is caught by ASan.
        const Bytes block = counters_block(9, Bytes(full.begin(), full.begin() + c.value_bytes));
        EXPECT_EQ(first_set_of(block, schema.get()), c.set);
    }

    // Offsets as a file may give them: far beyond any block, and at the top of the range.
    obx_counter_info_t far = {};
    far.name = const_cast<char*>("far");
    far.data_type = OBX_COUNTER_DATA_TYPE_UINT64;
    far.offset = 0xFFFFFFFCu;
    obx_counter_info_t text = far;
    text.name = const_cast<char*>("text");
    text.data_type = OBX_COUNTER_DATA_TYPE_STRING;
    text.length = 0xFFFFFFFFu;
    text.offset = 0;
    obx_counter_info_t* counters[] = {&far, &text};
    obx_counter_group_t group = {};
    group.num_counter_sets = 1;
    group.num_counters = 2;
    group.counters = counters;
    obx_counter_group_t* groups[] = {&group};
    obx_counters_schema_t hostile = {8, 1, groups};
    EXPECT_EQ(first_set_of(counters_block(1, full), &hostile), "{}");
}

TEST(CountersDataJson, HeadTimestampAndStringDump)
{
    SchemaPtr schema = one_counter("STRING", 4);
    ASSERT_NE(schema, nullptr);
    {
        // A block without a whole head has no JSON at all.
        LogCapture log;
        EXPECT_EQ(json_of(Bytes(15, 'D'), schema.get()), "<none>");
        EXPECT_TRUE(log.has("Counters block of 15 bytes is shorter than its 16-byte head")) << log.all();
    }
    // Timestamp 0 is the epoch in local time, not a missing time; STRING bytes are
    // dumped at debug level before they are read, and only then.
    for (const uint32_t level : {OBX_LOG_DEBUG, OBX_LOG_INFO}) {
        LogCapture log(level);
        const std::string text = json_of(counters_block(0, ByteWriter().text("abcd").take()), schema.get());
        EXPECT_EQ(text.rfind(R"({"timestamp":0,"@timestamp":")" + time_text(0) + "\"", 0), 0u) << text;
        bool dumped = false;
        for (const LogLine& line : log.lines()) dumped = dumped || line.text.find("61 62 63 64") != std::string::npos;
        EXPECT_EQ(dumped, level == OBX_LOG_DEBUG) << log.all();
    }
}

// ---- text tables ----------------------------------------------------------------------

TEST(CountersDataText, CellsByDataType)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node"))
        .counter("rx", "UINT64")
        .counter("load", "FP64")
        .counter("mask", "BIT64")
        .counter("host", "STRING", 8)
        .counter("temp", "INT64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_NE(schema, nullptr);
    const Bytes values = ByteWriter().u64(42).f64(1.5).u64(0xABCDEF).fixed("hi", 8).i64(1000).take();
    const uint64_t timestamp = 1700000000000000ull;
    const std::string rule(123, '-');
    const std::string expected =
        "Data collected at " + time_text(timestamp) + "\n" + rule + "\n" +
        "| Counter values per NODE                                                  "
        "                                               |\n" +
        rule + "\n" +
        "| NODE |                   rx |                 load |                 mask |                 host |"
        "                 temp |\n" +
        rule + "\n" +
        "|    0 |                   42(u) |            1.500 |               ABCDEF |                   hi |"
        "                  1 k |\n" +
        rule + "\n";
    EXPECT_EQ(table_of(counters_block(timestamp, values), schema.get()), expected);
}

TEST(CountersDataText, GridOfSlotsIgnoresOffsetsAndTheBlockEnd)
{
    // Two sets of two counters read slots 0..3 from the start of the values; slot 3 is
    // not in the block and prints as an empty cell.
    CountersSchemaDoc doc;
    doc.group("CPU", 2, std::string("cpu")).counter("a", "INT64").counter("b", "INT64");
    doc.group("NODE", 1, std::string("second")).counter("z", "UINT64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_NE(schema, nullptr);
    const Bytes values = ByteWriter().i64(999).i64(1000).i64(-5000).take();
    const std::string table = table_of(counters_block(0, values), schema.get());
    const std::string cpu =
        "-----------------------------------------------------\n"
        "| Counter values per CPU                            |\n"
        "-----------------------------------------------------\n"
        "| CPU |                    a |                    b |\n"
        "-----------------------------------------------------\n"
        "|   0 |                  999 |                  1 k |\n"
        "|   1 |                -5000 |                      |\n"
        "-----------------------------------------------------\n";
    // The second group starts from the start of the values too, unlike its JSON (offset 16).
    const std::string node =
        "-------------------------------\n"
        "| Counter values per NODE     |\n"
        "-------------------------------\n"
        "| NODE |                    z |\n"
        "-------------------------------\n"
        "|    0 |                  999(u) |\n"
        "-------------------------------\n";
    EXPECT_EQ(table, "Data collected at " + time_text(0) + "\n" + cpu + node);
    EXPECT_EQ(first_set_of(counters_block(0, ByteWriter().i64(999).i64(1000).u64(77).take()), schema.get()),
              R"({"a":999,"b":1000})");
}

TEST(CountersDataText, CellsAtTheirEdges)
{
    struct CellCase {
        const char* data_type;
        std::optional<double> length;
        Bytes values;  // all the values of the block
        std::string cell;
    };
    const std::vector<CellCase> cases = {
        {"INT64", std::nullopt, ByteWriter().i64(999).take(), "                  999 |"},
        {"INT64", std::nullopt, ByteWriter().i64(1000).take(), "                  1 k |"},
        {"INT64", std::nullopt, ByteWriter().i64(-5000).take(), "                -5000 |"},
        {"INT64", std::nullopt, ByteWriter().i64(INT64_MAX).take(), "   9223372036854775 k |"},
        // A text runs on past its slot up to the width of the cell, but never past the block.
        {"STRING", 8, ByteWriter().text("abcdefghijklmnopqrstuvwxyz").take(), " abcdefghijklmnopqrst |"},
        {"STRING", 8, ByteWriter().text("abcdefghij").take(), "           abcdefghij |"},
        {"UINT64", std::nullopt, Bytes(7, 1), "                      |"},
    };
    for (const CellCase& c : cases) {
        SCOPED_TRACE(c.cell);
        SchemaPtr schema = one_counter(c.data_type, c.length);
        ASSERT_NE(schema, nullptr);
        const std::string table = table_of(counters_block(0, c.values), schema.get());
        EXPECT_NE(table.find("\n|    0 |" + c.cell + "\n"), std::string::npos) << table;
    }
}

TEST(CountersDataText, GroupWithoutSetsAndEmptySlots)
{
    CountersSchemaDoc doc;
    doc.group("PACKAGE", 0, std::string("pkg")).counter("e", "UINT64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_NE(schema, nullptr);
    // The title's width is the rule's less 23, here 1: the text is cut to its first letter.
    const std::string expected = "Data collected at " + time_text(0) +
                                 "\n"
                                 "------------------------\n"
                                 "| Counter values per P |\n"
                                 "------------------------\n"
                                 "|                    e |\n"
                                 "------------------------\n"
                                 "------------------------\n";
    EXPECT_EQ(table_of(counters_block(0, u64_bytes(1)), schema.get()), expected);

    // An empty group slot is passed over; a block without a whole head prints nothing.
    obx_counter_group_t* groups[] = {nullptr, schema->groups[0]};
    obx_counters_schema_t with_hole = {8, 2, groups};
    EXPECT_EQ(table_of(counters_block(0, u64_bytes(1)), &with_hole), expected);
    EXPECT_EQ(table_of(Bytes(15, 0), schema.get()), "");
}

// ---- head, layout and definitions -------------------------------------------------------

TEST(CountersDataHead, InitWritesMagicPaddingAndTime)
{
    Bytes block(24, 0xAA);
    struct timespec before, after;
    clock_gettime(CLOCK_REALTIME, &before);
    ASSERT_TRUE(obx_counters_data_init(block.data(), block.size()));
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_EQ(std::string(block.begin(), block.begin() + 4), "OBXD");
    EXPECT_EQ(Bytes(block.begin() + 4, block.begin() + 8), Bytes(4, 0));
    const obx_counters_data_t data = {block.data(), block.size()};
    const uint64_t low = before.tv_sec * 1000000ull + before.tv_nsec / 1000;
    const uint64_t high = after.tv_sec * 1000000ull + after.tv_nsec / 1000;
    EXPECT_GE(obx_counters_data_timestamp(&data), low);
    EXPECT_LE(obx_counters_data_timestamp(&data), high);
    EXPECT_EQ(Bytes(block.begin() + 16, block.end()), Bytes(8, 0xAA)) << "values are not touched";
    EXPECT_FALSE(obx_counters_data_init(block.data(), 15));

    // Clearing a group's values zeroes sets x counters slots and nothing behind them.
    obx_counter_group_t group = {};
    group.num_counter_sets = 2;
    group.num_counters = 1;
    obx_counter_group_values_clear(&group, block.data());
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 16), Bytes(16, 0));
    EXPECT_EQ(Bytes(block.begin() + 16, block.end()), Bytes(8, 0xAA));
}

TEST(CountersDataHead, PrintersGiveTheirExactText)
{
    const Bytes block = counters_block(1700000000000000ull, u64_bytes(1), "OBXD");
    const obx_counters_data_t data = {block.data(), block.size()};
    EXPECT_EQ(printed([&](FILE* s) { obx_counters_data_print_head(s, &data); }),
              "Data block\n magic number         = OBXD\n last timestamp       = 1700000000000000\n");

    obx_counter_info_t rx = {};
    rx.name = const_cast<char*>("rx_bytes");
    rx.description = const_cast<char*>("bytes received on all ports of the adapter since the counters were reset");
    obx_counter_info_t tx = rx;
    tx.name = const_cast<char*>("tx");
    tx.description = const_cast<char*>("sent");
    EXPECT_EQ(printed([&](FILE* s) { obx_counter_info_print(&rx, s); }),
              "| rx_bytes                                 | bytes received on all ports of the adapter since the counter |\n");

    obx_counter_info_t* counters[] = {&rx, &tx};
    obx_counter_group_t group = {};
    group.granularity = OBX_COUNTER_GRANULARITY_CPU;
    group.num_counter_sets = 8;
    group.num_counters = 2;
    group.counters = counters;
    const std::string rule = "------------------------------------------\n";
    EXPECT_EQ(printed([&](FILE* s) { obx_counter_group_print(&group, s); }),
              rule + "| Granularity per CPU (8 counter sets) \n" + rule +
                  "|  # | Active counter       | Description                             \n" + rule +
                  "|  0 | rx_bytes             | bytes received on all ports of the adapt\n"
                  "|  1 | tx                   | sent                                    \n" +
                  rule);
}

}  // namespace
