#include "serializers/influx_serializer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "data/schema/built_in_types.h"
#include "fixtures/event_types.h"

namespace {

using namespace obx_test;
using obx::data::InfluxSerializer;

// The worked example as the field set of -f influx and as a full line; then escaping: a
// measurement escapes blank, '=' and ',', tags keep '=', a backslash is not doubled.
TEST(InfluxSerializer, WorkedExampleEscapesAndEdgeCases)
{
    EventTypes types;
    types.add("peer_t", {{"lid", "uint16_t"}});
    types.add("lane_t", {{"up", "bool"}});
    const obx_type_definition_t* link = types.add("link_event", {{"state", "char", 8}, {"speed", "int"},
        {"load", "double"}, {"peer", "peer_t"}, {"lanes", "lane_t", 2}, {"raw", "uint32_t", 4}});
    const Bytes record = ByteWriter().fixed("up", 8).i32(100).f64(0.5).u16(7).u8(1).u8(0).zeros(16).take();
    const std::string field_set = "state=\"up\",speed=100i,load=0.500000,peer.lid=7i,lanes.0.up=true,lanes.1.up=false";
    EventTexts value;
    EXPECT_TRUE(same_event_texts(link, record, &value));
    EXPECT_EQ(value.influx, field_set);
    InfluxSerializer influx;
    EXPECT_EQ(influx.serializeEventLine({{"rack", "a,b"}, {"host", "node 1"}}, link, record.data(), 1600000000123456),
              "link_event,host=node\\ 1,rack=a\\,b " + field_set + " 1600000000123");
    obx_type_definition_t* peer = types.mutable_type("peer_t");
    char* name = peer->name;
    char odd[] = "a=b c,\\";
    peer->name = odd;
    EXPECT_EQ(influx.serializeEventLine({}, peer, record.data() + 20, 999), "a\\=b\\ c\\,\\ lid=7i 0");
    EXPECT_EQ(influx.serializeEventLine({{"k=\\", "a=b c"}, {"B", ""}}, peer, record.data() + 20, 1000),
              "a\\=b\\ c\\,\\,B=,k=\\=a=b\\ c lid=7i 1");
    peer->name = name;
    EXPECT_EQ(InfluxSerializer::escape("a\\b\\", {"\\"}), "a\\\\b\\\\");  // what was put in is not scanned again
    // Edge cases, each through the value path (the expected text) and the direct writer.
    types.add("inner_t", {{"x", "int"}});
    types.add("outer_t", {{"inner", "inner_t", 2}});
    types.add("b_t", {{"b", "outer_t"}});
    const std::tuple<std::vector<EventFieldFields>, Bytes, const char*> cases[] = {
        {{{"s", "char", 4}}, ByteWriter().text("abcd").take(), "s=\"abcd\""},  // unterminated
        {{{"s", "char", 5}}, ByteWriter().text("ab\x01" "cd").take(), "s=\"ab\""},
        {{{"s", "char", 4}, {"t", "char", 4}}, ByteWriter().text("a\"b").zeros(1).text("a\\b").zeros(1).take(),
         "s=\"a\"b\",t=\"a\\b\""},  // no escaping
        {{{"s", "unsigned char", 0}, {"c", "char", 1}}, ByteWriter().u8('A').take(), "s=\"\",c=65i"},
        {{{"a", "int8_t", 3}, {"n", "int"}, {"b", "uint8_t", 2}}, ByteWriter().zeros(3).i32(1).take(), "n=1i"},
        {{{"a", "b_t"}}, ByteWriter().i32(1).i32(2).take(), "a.binner.0.x=1i,a.binner.1.x=2i"},  // no dot: array
        {{{"a", "int"}, {"b", "int"}, {"a", "int"}}, ByteWriter().i32(1).i32(2).i32(3).take(), "a=1i,b=2i,a=3i"},
    };
    for (const auto& [fields, bytes, expected] : cases) {
        const obx_type_definition_t* type = types.add(fields);
        ASSERT_NE(type, nullptr) << expected;
        EventTexts value;
        EXPECT_TRUE(same_event_texts(type, bytes, &value));
        EXPECT_EQ(value.influx, expected);
    }
    EXPECT_EQ(obx_influx_serialize_event(nullptr, std::get<1>(cases[0]).data()), nullptr);
    EXPECT_EQ(obx_influx_serialize_event(types.mutable_type("b_t"), nullptr), nullptr);
}

// Every built-in in id order at a value that shows how it is read, then the values of
// counters by data type.
TEST(InfluxSerializer, RendersScalarsAndCounterValues)
{
    EventTypes types;
    std::vector<EventFieldFields> fields;
    for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id)
        fields.push_back({"f" + std::to_string(id), obx_built_in_type_name(id)});
    const Bytes record = ByteWriter().u8(2).u8(0x80).u16(0x8000).u32(~0u).u64(1ull << 63).u64(~1ull).u8(0xff)
                             .u16(0xffff).u32(~0u).u64(~0ull).u64(~0ull).f32(1.5f).f64(2.5e-6).i8(-7).i16(-300)
                             .i32(123456).u64(~0ull >> 1).u8(200).u16(40000).u32(3000000000u).u64(1ull << 63)
                             .u64(1700000000123456).take();
    EventTexts value;
    EXPECT_TRUE(same_event_texts(types.add(fields), record, &value));
    EXPECT_EQ(value.influx, "f1=true,f2=-128i,f3=-32768i,f4=-1i,f5=-9223372036854775808i,f6=-2i,f7=255i,f8=65535i,"
                            "f9=4294967295i,f10=18446744073709551615i,f11=18446744073709551615i,f12=1.500000,"
                            "f13=0.000003,f14=-7i,f15=-300i,f16=123456i,f17=9223372036854775807i,f18=200i,f19=40000i,"
                            "f20=3000000000i,f21=9223372036854775808i,f22=1700000000123456i");
    const std::pair<double, const char*> doubles[] = {
        {-0.0, "-0.000000"}, {NAN, "nan"}, {1e20, "100000000000000000000.000000"}, {-HUGE_VAL, "-inf"}};
    for (const auto& [real, expected] : doubles)
        EXPECT_EQ(InfluxSerializer::renderScalar(OBX_TYPE_DOUBLE, ByteWriter().f64(real).take().data()), expected);
    EXPECT_EQ(InfluxSerializer::renderScalar(OBX_TYPE_BOOL, Bytes{0}.data()), "false");
    for (uint32_t id : {0u, 23u, 1000u})
        EXPECT_THROW(InfluxSerializer::renderScalar(id, record.data()), std::logic_error) << id;
    // UINT64, FP64, BIT64 (decimal too), INT64, undefined, unknown.
    const std::tuple<int32_t, uint64_t, const char*> counters[] = {{1, ~0ull, "18446744073709551615i"},
        {2, 0x3fd0000000000000, "0.250000"}, {3, 255, "255i"}, {4, ~4ull, "-5i"}, {0, ~5ull, "-6i"}, {-1, ~0ull, "-1i"}};
    for (const auto& [type, bits, expected] : counters)
        EXPECT_EQ(InfluxSerializer::renderCounterValue(reinterpret_cast<const uint8_t*>(&bits), type), expected);
    // STRING shows the bytes of the value's address up to the first zero, not the value.
    const uint8_t* where = record.data();
    const char* address = reinterpret_cast<const char*>(&where);
    EXPECT_EQ(InfluxSerializer::renderCounterValue(where, 5), std::string(address, strnlen(address, sizeof where)));
}

}  // namespace
