#include "serializers/influx_serializer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/byte_writer.h"
#include "fixtures/event_types.h"

namespace {

using obx::data::InfluxSerializer;
using obx_test::ByteWriter;
using obx_test::Bytes;
using obx_test::EventTypes;

TEST(InfluxEscape, BackslashesEveryEntryOnceInListOrder)
{
    InfluxSerializer serializer;
    struct Case {
        const char* text;
        bool measurement;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {"a=b c", true, "a\\=b\\ c"},
        {"a=b c", false, "a=b\\ c"},  // keys and tag values keep '='
        {"a,b", false, "a\\,b"},
        {"a\\b", true, "a\\b"},  // a backslash is not doubled
        {"plain", true, "plain"},
        {"", true, ""},
        {"  ", false, "\\ \\ "},
        {"= ,", true, "\\=\\ \\,"},
    };
    for (const Case& c : cases) {
        const auto& escapes = c.measurement ? serializer.measurementEscapes() : serializer.keyEscapes();
        EXPECT_EQ(InfluxSerializer::escape(c.text, escapes), c.expected) << c.text;
    }
    // What was put in is not scanned again: escaping "\\" for "\\" gives one more each.
    EXPECT_EQ(InfluxSerializer::escape("a\\b\\", {"\\"}), "a\\\\b\\\\");
}

TEST(InfluxRenderScalar, FormatsEachBuiltIn)
{
    struct Case {
        const char* type;
        Bytes bytes;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {"bool", ByteWriter().u8(0).take(), "false"},
        {"bool", ByteWriter().u8(2).take(), "true"},
        {"char", ByteWriter().u8(0x80).take(), "-128i"},
        {"short", ByteWriter().u16(0x8000).take(), "-32768i"},
        {"int", ByteWriter().u32(0xffffffff).take(), "-1i"},
        {"long", ByteWriter().i64(std::numeric_limits<int64_t>::min()).take(), "-9223372036854775808i"},
        {"long long", ByteWriter().i64(-2).take(), "-2i"},
        {"unsigned char", ByteWriter().u8(255).take(), "255i"},
        {"unsigned short", ByteWriter().u16(65535).take(), "65535i"},
        {"unsigned int", ByteWriter().u32(0xffffffff).take(), "4294967295i"},
        {"unsigned long", ByteWriter().u64(~0ull).take(), "18446744073709551615i"},
        {"unsigned long long", ByteWriter().u64(~0ull).take(), "18446744073709551615i"},
        {"float", ByteWriter().f32(1.5f).take(), "1.500000"},
        {"float", ByteWriter().f32(0.1f).take(), "0.100000"},
        {"double", ByteWriter().f64(-0.0).take(), "-0.000000"},
        {"double", ByteWriter().f64(2.5e-6).take(), "0.000003"},
        {"double", ByteWriter().f64(1e20).take(), "100000000000000000000.000000"},
        {"double", ByteWriter().f64(std::numeric_limits<double>::quiet_NaN()).take(), "nan"},
        {"double", ByteWriter().f64(-std::numeric_limits<double>::infinity()).take(), "-inf"},
        {"int8_t", ByteWriter().i8(-7).take(), "-7i"},
        {"int16_t", ByteWriter().i16(-300).take(), "-300i"},
        {"int32_t", ByteWriter().i32(123456).take(), "123456i"},
        {"int64_t", ByteWriter().i64(std::numeric_limits<int64_t>::max()).take(), "9223372036854775807i"},
        {"uint8_t", ByteWriter().u8(200).take(), "200i"},
        {"uint16_t", ByteWriter().u16(40000).take(), "40000i"},
        {"uint32_t", ByteWriter().u32(3000000000u).take(), "3000000000i"},
        {"uint64_t", ByteWriter().u64(1ull << 63).take(), "9223372036854775808i"},
        {"timestamp", ByteWriter().u64(1700000000123456ull).take(), "1700000000123456i"},
    };
    for (const Case& c : cases) {
        const uint32_t id = obx_built_in_type_id(c.type);
        ASSERT_NE(id, 0u) << c.type;
        EXPECT_EQ(InfluxSerializer::renderScalar(id, c.bytes.data()), c.expected) << c.type;
    }
    const uint8_t bytes[8] = {0};
    for (uint32_t id : {0u, 23u, 1000u}) EXPECT_THROW(InfluxSerializer::renderScalar(id, bytes), std::logic_error) << id;
}

TEST(InfluxRenderCounterValue, FormatsByDataType)
{
    struct Case {
        int32_t data_type;
        Bytes bytes;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {1, ByteWriter().u64(~0ull).take(), "18446744073709551615i"},  // UINT64
        {3, ByteWriter().u64(255).take(), "255i"},                      // BIT64: decimal too
        {2, ByteWriter().f64(0.25).take(), "0.250000"},                 // FP64
        {4, ByteWriter().i64(-5).take(), "-5i"},                        // INT64
        {0, ByteWriter().i64(-6).take(), "-6i"},                        // undefined
        {-1, ByteWriter().u64(~0ull).take(), "-1i"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(InfluxSerializer::renderCounterValue(c.bytes.data(), c.data_type), c.expected) << c.data_type;

    // STRING shows the bytes of the value's address up to the first zero, not the value.
    const Bytes text = ByteWriter().fixed("abc", 8).take();
    const uint8_t* where = text.data();
    char address[sizeof where + 1] = {0};
    std::memcpy(address, &where, sizeof where);
    EXPECT_EQ(InfluxSerializer::renderCounterValue(where, 5), std::string(address));
}

TEST(InfluxTags, KeyOrderEscapedAndJoined)
{
    InfluxSerializer serializer;
    EXPECT_EQ(serializer.serializeTags({}), "");
    EXPECT_EQ(serializer.serializeTags({{"rack", "a,b"}, {"host", "node 1"}}), "host=node\\ 1,rack=a\\,b");
    EXPECT_EQ(serializer.serializeTags({{"k=1", "v=2"}, {"B", "x"}, {"a", "y"}}), "B=x,a=y,k=1=v=2");
}

class InfluxEventTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(types_.add("peer_t", {{"lid", "uint16_t"}}), nullptr);
        ASSERT_NE(types_.add("lane_t", {{"up", "bool"}}), nullptr);
        link_ = types_.add("link_event", {{"state", "char", 8},
                                          {"speed", "int"},
                                          {"load", "double"},
                                          {"peer", "peer_t"},
                                          {"lanes", "lane_t", 2},
                                          {"raw", "uint32_t", 4}});
        ASSERT_NE(link_, nullptr);
        link_record_ = ByteWriter().fixed("up", 8).i32(100).f64(0.5).u16(7).u8(1).u8(0)
                           .u32(1).u32(2).u32(3).u32(4).take();
        ASSERT_EQ(link_record_.size(), link_->size);
    }

    std::string render(const std::vector<obx_test::EventFieldSpec>& fields, const Bytes& bytes)
    {
        const obx_type_definition_t* type = types_.add("t" + std::to_string(++counter_), fields);
        if (!type) return "<no type>";
        const Bytes record = obx_test::record_of(bytes, type->size);
        return obx_test::influx_event_text(type, record.data());
    }

    EventTypes types_;
    const obx_type_definition_t* link_ = nullptr;
    Bytes link_record_;
    int counter_ = 0;
};

TEST_F(InfluxEventTest, WorkedExampleFieldSet)
{
    EXPECT_EQ(obx_test::influx_event_text(link_, link_record_.data()),
              "state=\"up\",speed=100i,load=0.500000,peer.lid=7i,lanes.0.up=true,lanes.1.up=false");
}

TEST_F(InfluxEventTest, WorkedExampleEventLine)
{
    InfluxSerializer serializer;
    EXPECT_EQ(serializer.serializeEventLine({{"host", "node 1"}, {"rack", "a,b"}}, link_, link_record_.data(),
                                            1600000000123456ull),
              "link_event,host=node\\ 1,rack=a\\,b "
              "state=\"up\",speed=100i,load=0.500000,peer.lid=7i,lanes.0.up=true,lanes.1.up=false 1600000000123");
    // No tags: measurement, blank, fields; the measurement is escaped.
    obx_type_definition_t* type = types_.mutable_type("peer_t");
    char* name = type->name;
    char odd[] = "a=b c";
    type->name = odd;
    const uint8_t record[2] = {9, 0};
    EXPECT_EQ(serializer.serializeEventLine({}, type, record, 999), "a\\=b\\ c lid=9i 0");
    type->name = name;
}

TEST_F(InfluxEventTest, EdgeCasesOfTheFieldSet)
{
    ASSERT_NE(types_.add("inner_t", {{"x", "int"}}), nullptr);
    ASSERT_NE(types_.add("outer_t", {{"inner", "inner_t", 2}}), nullptr);
    ASSERT_NE(types_.add("c_t", {{"c", "int8_t"}}), nullptr);
    ASSERT_NE(types_.add("b_t", {{"b", "c_t"}}), nullptr);
    struct Case {
        const char* name;
        std::vector<obx_test::EventFieldSpec> fields;
        Bytes bytes;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {"unterminated text", {{"s", "char", 4}}, ByteWriter().text("abcd").take(), "s=\"abcd\""},
        {"control byte ends text", {{"s", "char", 5}}, ByteWriter().text("ab\x01" "cd").take(), "s=\"ab\""},
        {"quote kept unescaped", {{"s", "char", 4}}, ByteWriter().text("a\"b").zeros(1).take(), "s=\"a\"b\""},
        {"backslash passes once", {{"s", "char", 4}}, ByteWriter().text("a\\b").zeros(1).take(), "s=\"a\\b\""},
        {"empty char array", {{"s", "unsigned char", 0}}, Bytes(), "s=\"\""},
        {"char[1] is a scalar", {{"c", "char", 1}}, ByteWriter().u8('A').take(), "c=65i"},
        {"int8_t array gives nothing", {{"a", "int8_t", 3}, {"n", "int"}}, ByteWriter().zeros(3).i32(1).take(), "n=1i"},
        {"uint8_t array gives nothing", {{"a", "uint8_t", 3}}, ByteWriter().text("abc").take(), ""},
        {"dotted nesting", {{"a", "b_t"}}, ByteWriter().i8(1).take(), "a.b.c=1i"},
        {"no dot before inner array", {{"outer", "outer_t"}}, ByteWriter().i32(1).i32(2).take(),
         "outerinner.0.x=1i,outerinner.1.x=2i"},
        {"float without suffix", {{"f", "float"}, {"b", "bool"}}, ByteWriter().f32(1.5f).u8(1).take(),
         "f=1.500000,b=true"},
        {"duplicates all kept", {{"a", "int"}, {"b", "int"}, {"a", "int"}}, ByteWriter().i32(1).i32(2).i32(3).take(),
         "a=1i,b=2i,a=3i"},
    };
    for (const Case& c : cases) EXPECT_EQ(render(c.fields, c.bytes), c.expected) << c.name;
}

TEST_F(InfluxEventTest, TypeWithoutFieldsGivesAnEmptyText)
{
    obx_type_definition_t* type = types_.mutable_type("lane_t");
    const uint16_t saved = type->num_fields;
    type->num_fields = 0;
    const uint8_t record[1] = {1};
    EXPECT_EQ(obx_test::influx_event_text(type, record), "");
    type->num_fields = saved;
}

TEST_F(InfluxEventTest, UnusableDefinitionsGiveNoText)
{
    const uint8_t record[8] = {0};
    EXPECT_EQ(obx_influx_serialize_event(nullptr, record), nullptr);
    EXPECT_EQ(obx_influx_serialize_event(link_, nullptr), nullptr);
    obx_influx_free_text(nullptr);

    obx_type_definition_t* type = types_.mutable_type("peer_t");
    obx_type_definition_t* resolved = type->fields[0]->type;
    type->fields[0]->type = nullptr;
    EXPECT_EQ(obx_influx_serialize_event(type, record), nullptr);
    type->fields[0]->type = resolved;
    EXPECT_EQ(obx_test::influx_event_text(type, record), "lid=0i");
}

}  // namespace
