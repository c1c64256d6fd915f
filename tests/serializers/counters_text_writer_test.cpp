#include "serializers/counters_text_writer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "counters/counter_data/counters_data.h"
#include "counters/counter_group/counters_schema.h"
#include "fixtures/byte_writer.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/event_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"

namespace {

using obx_test::ByteWriter;
using obx_test::Bytes;
using obx_test::CountersSchemaDoc;

struct SchemaDeleter {
    void operator()(obx_counters_schema_t* schema) const { obx_counters_schema_destroy(schema); }
};
using SchemaPtr = std::unique_ptr<obx_counters_schema_t, SchemaDeleter>;

SchemaPtr schema_of(const CountersSchemaDoc& doc)
{
    SchemaPtr schema(obx_counters_schema_from_string(doc.text().c_str()));
    EXPECT_NE(schema, nullptr) << doc.text();
    return schema;
}

struct Texts {
    std::string pretty;
    std::string plain;
    std::vector<std::string> log;
};

std::vector<std::string> texts_of(const obx_test::LogCapture& log)
{
    std::vector<std::string> texts;
    for (const obx_test::LogLine& line : log.lines()) texts.push_back(line.text);
    return texts;
}

Texts by_value(const obx_counters_data_t* block, const obx_counters_schema_t* schema, uint32_t level)
{
    obx_test::LogCapture log(level);
    Texts t;
    t.pretty = obx_test::take_json_text(obx_counters_data_to_json(block, schema), true);
    t.plain = obx_test::take_json_text(obx_counters_data_to_json(block, schema), false);
    t.log = texts_of(log);
    return t;
}

std::string direct_form(obx_counters_text_writer_t* writer, bool pretty, const obx_counters_data_t* block,
                        const obx_counters_schema_t* schema)
{
    obx_counters_text_writer_clear(writer);
    if (!obx_counters_text_writer_append(writer, pretty, block, schema))
        return obx_counters_text_writer_size(writer) == 0 ? "<none>" : "<failure left bytes>";
    return std::string(obx_counters_text_writer_data(writer), obx_counters_text_writer_size(writer));
}

Texts directly(obx_counters_text_writer_t* writer, const obx_counters_data_t* block,
               const obx_counters_schema_t* schema, uint32_t level)
{
    obx_test::LogCapture log(level);
    Texts t;
    t.pretty = direct_form(writer, true, block, schema);
    t.plain = direct_form(writer, false, block, schema);
    t.log = texts_of(log);
    return t;
}

// Both roads, both forms, with and without debug lines.
::testing::AssertionResult same_bytes(obx_counters_text_writer_t* writer, const Bytes& bytes,
                                      const obx_counters_schema_t* schema, Texts* value_out = nullptr)
{
    const obx_counters_data_t block = {bytes.data(), bytes.size()};
    for (uint32_t level : {6u, 7u}) {
        const Texts expected = by_value(&block, schema, level);
        const Texts got = directly(writer, &block, schema, level);
        if (value_out && level == 6) *value_out = expected;
        if (expected.pretty != got.pretty)
            return ::testing::AssertionFailure() << "pretty:\n" << expected.pretty << "\nvs\n" << got.pretty;
        if (expected.plain != got.plain)
            return ::testing::AssertionFailure() << "plain: " << expected.plain << "\nvs\n" << got.plain;
        if (expected.log != got.log)
            return ::testing::AssertionFailure() << "log at level " << level << ": " << expected.log.size()
                                                 << " lines vs " << got.log.size();
    }
    return ::testing::AssertionSuccess();
}

Bytes block_of(uint64_t timestamp, const Bytes& values)
{
    return ByteWriter().text("OBXD").u32(0).u64(timestamp).raw(values).take();
}

class CountersTextWriterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writer_ = obx_counters_text_writer_create();
        ASSERT_NE(writer_, nullptr);
    }
    void TearDown() override { obx_counters_text_writer_destroy(writer_); }

    obx_counters_text_writer_t* writer_ = nullptr;
};

// Every data type, text values of every shape, and the groups' own members.
TEST_F(CountersTextWriterTest, ValuesAndGroupsAsTheValuePathGivesThem)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node"))
        .counter("u", "UINT64")
        .counter("i", "INT64")
        .counter("f", "FP64")
        .counter("b", "BIT64")
        .counter("x", "Undefined")
        .counter("s", "STRING", 8.0)
        .counter("a/b", "UINT64");
    doc.group("CPU", 3, std::string("cpu")).counter("c1").counter("c2", "FP64");
    doc.group("PACKAGE", 0, std::string("pkg")).counter("p");
    doc.group("BOGUS", 2).counter("q", "INT64");  // unknown granularity, no name
    SchemaPtr schema = schema_of(doc);
    ASSERT_TRUE(schema);

    const double nan = std::numeric_limits<double>::quiet_NaN();
    auto values = [&](double f, const std::string& text, double c2) {
        return ByteWriter()
            .u64(~0ull)
            .i64(-5)
            .f64(f)
            .u64(0xff00ff)
            .i64(std::numeric_limits<int64_t>::min())
            .raw(Bytes(text.begin(), text.end()))
            .u64(42)
            .u64(7)
            .f64(c2)
            .u64(9)
            .i64(-1)
            .take();
    };
    auto cut = [](Bytes bytes, size_t size) {
        bytes.resize(size);
        return bytes;
    };
    struct Case {
        const char* name;
        Bytes block;
    };
    const std::vector<Case> cases = {
        {"plain values", block_of(1700000000123456ull, values(0.1, std::string("host\0\0\0\0", 8), 1e17))},
        {"NaN leaves its key out", block_of(0, values(nan, std::string("abcdefgh", 8), -0.0))},
        {"infinite in every set", block_of(1, values(1.5, std::string("\x01\t\"\\/z\0\0", 8),
                                                     std::numeric_limits<double>::infinity()))},
        {"text not UTF-8", block_of(2, values(2.5, std::string("ab\xff\0\0\0\0\0", 8), 3.25))},
        {"text UTF-8", block_of(3, values(2.5, std::string("\xC3\xA9t\xC3\xA9\0\0\0", 8), 3.25))},
        {"cut after the text", cut(block_of(4, values(0, std::string("abcdefgh", 8), 0)), 16 + 48)},
        {"head only", block_of(5, Bytes())},
        {"huge time", block_of(~0ull, values(0, std::string(8, 'z'), 0))},
    };
    for (bool slashes : {true, false}) {
        obx_test::SlashEscaping escaping(slashes);
        for (const Case& c : cases) EXPECT_TRUE(same_bytes(writer_, c.block, schema.get())) << c.name;
    }
    Texts value;
    EXPECT_TRUE(same_bytes(writer_, cases[1].block, schema.get(), &value));
    EXPECT_EQ(value.plain.find("\"f\":"), std::string::npos);  // the case is what it says
}

// Names that come again keep the place where they were first set, and take the last value
// that could be set; which place that is depends on the values.
TEST_F(CountersTextWriterTest, RepeatedNames)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 2, std::string("node")).counter("a", "FP64").counter("b").counter("a").counter("c").counter(
        "b", "FP64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_TRUE(schema);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    Texts value;
    EXPECT_TRUE(same_bytes(writer_, block_of(1, ByteWriter().f64(0.5).u64(1).u64(2).u64(3).f64(4.5).take()),
                           schema.get(), &value));
    EXPECT_NE(value.plain.find(R"({"a":2,"b":4.5,"c":3})"), std::string::npos) << value.plain;
    EXPECT_TRUE(same_bytes(writer_, block_of(1, ByteWriter().f64(nan).u64(1).u64(2).u64(3).f64(nan).take()),
                           schema.get(), &value));
    EXPECT_NE(value.plain.find(R"({"b":1,"a":2,"c":3})"), std::string::npos) << value.plain;
}

TEST_F(CountersTextWriterTest, OddSchemasAndBlocks)
{
    CountersSchemaDoc empty_doc;
    SchemaPtr empty = schema_of(empty_doc);
    ASSERT_TRUE(empty);
    const Bytes block = block_of(10, ByteWriter().u64(1).take());
    EXPECT_TRUE(same_bytes(writer_, block, empty.get()));
    EXPECT_TRUE(same_bytes(writer_, block, nullptr));

    // A name JSON cannot hold leaves the key out, counter or group.
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("g")).counter("k").counter("m");
    SchemaPtr schema = schema_of(doc);
    ASSERT_TRUE(schema);
    obx_counter_group_t* group = schema->groups[0];
    char bad[] = "\xC3(";
    char* counter_name = group->counters[0]->name;
    char* group_name = group->name;
    group->counters[0]->name = bad;
    group->name = bad;
    Texts value;
    EXPECT_TRUE(same_bytes(writer_, block_of(1, ByteWriter().u64(1).u64(2).take()), schema.get(), &value));
    EXPECT_NE(value.plain.find(R"({"granularity":"NODE","counter_sets":[{"m":2}]})"), std::string::npos)
        << value.plain;
    group->counters[0]->name = nullptr;  // passed over
    obx_counters_text_writer_forget_schemas(writer_);
    EXPECT_TRUE(same_bytes(writer_, block_of(1, ByteWriter().u64(1).u64(2).take()), schema.get()));
    group->counters[0]->name = counter_name;
    group->name = group_name;

    // Shorter than the head: no text, the same line.
    obx_counters_text_writer_forget_schemas(writer_);
    const Bytes short_block = ByteWriter().text("OBXD").u32(0).u32(1).take();
    EXPECT_TRUE(same_bytes(writer_, short_block, schema.get(), &value));
    EXPECT_EQ(value.plain, "<none>");
    EXPECT_FALSE(obx_counters_text_writer_append(writer_, true, nullptr, schema.get()));
    EXPECT_FALSE(obx_counters_text_writer_append(nullptr, true, nullptr, schema.get()));
    obx_counters_text_writer_destroy(nullptr);
    obx_counters_text_writer_forget_schemas(nullptr);
}

TEST_F(CountersTextWriterTest, PrintFramesBlocks)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("n")).counter("v");
    SchemaPtr schema = schema_of(doc);
    ASSERT_TRUE(schema);
    const Bytes bytes = block_of(0, ByteWriter().u64(3).take());
    const obx_counters_data_t block = {bytes.data(), bytes.size()};
    const std::string pretty = obx_test::take_json_text(obx_counters_data_to_json(&block, schema.get()), true);
    const std::string plain = obx_test::take_json_text(obx_counters_data_to_json(&block, schema.get()), false);
    for (bool is_pretty : {true, false}) {
        char* text = nullptr;
        size_t length = 0;
        FILE* stream = open_memstream(&text, &length);
        ASSERT_NE(stream, nullptr);
        EXPECT_TRUE(obx_counters_text_writer_print(writer_, is_pretty, true, &block, schema.get(), stream));
        EXPECT_TRUE(obx_counters_text_writer_print(writer_, is_pretty, false, &block, schema.get(), stream));
        const obx_counters_data_t cut = {bytes.data(), 8};
        EXPECT_FALSE(obx_counters_text_writer_print(writer_, is_pretty, false, &cut, schema.get(), stream));
        std::fclose(stream);
        EXPECT_EQ(std::string(text, length), is_pretty ? pretty + ",\n" + pretty : plain + "\n" + plain + "\n");
        std::free(text);
    }
}

// Random values, random cuts, random slash settings over a schema with every type and
// repeated names.
TEST_F(CountersTextWriterTest, RandomBlocks)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("node")).counter("a", "FP64").counter("s", "STRING", 5.0).counter("u").counter(
        "i", "INT64");
    doc.group("CPU", 4, std::string("cpu")).counter("x", "FP64").counter("t", "STRING", 3.0).counter("x", "BIT64");
    SchemaPtr schema = schema_of(doc);
    ASSERT_TRUE(schema);
    const size_t full = 16 + obx_counters_schema_values_extent(schema.get());
    std::mt19937_64 random(7);
    const uint8_t specials[] = {0, 0xff, 0x7f, 0xf0, 0xc3, 0xa9, 0x80, '"', '/', 0x01};
    for (int i = 0; i < 400; ++i) {
        obx_test::SlashEscaping escaping(i % 3 == 0);
        Bytes bytes = block_of(random(), Bytes(full - 16));
        for (size_t b = 16; b < bytes.size(); ++b)
            bytes[b] = random() % 3 == 0 ? specials[random() % sizeof specials] : static_cast<uint8_t>(random());
        if (i % 4 == 0) bytes.resize(16 + random() % (full - 15));
        ASSERT_TRUE(same_bytes(writer_, bytes, schema.get())) << i;
    }
}

}  // namespace
