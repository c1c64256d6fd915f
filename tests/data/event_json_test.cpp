#include "data/event_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "fixtures/event_types.h"

namespace {

using namespace obx_test;

// Whole records, each through the value path (the expected plain text) and the direct
// writer (the same bytes in every form).
TEST(EventToJson, RecordsByKind)
{
    EventTypes types;
    types.add("peer", {{"lid", "uint16_t"}});
    types.add("lane", {{"up", "bool"}});
    types.add("deep", {{"peer", "peer"}, {"x", "double"}});
    types.add("hollow", {{"h", "int"}});
    types.mutable_type("hollow")->num_fields = 0;  // a composite without fields
    const std::tuple<std::vector<EventFieldFields>, Bytes, const char*> cases[] = {
        {{{"c", "char"}, {"s", "short"}, {"i", "int"}, {"l", "long"}, {"k", "char", 1}},  // signed reads
         ByteWriter().u8(0x80).u16(0x8000).u32(~0u).u64(1ull << 63).u8('A').take(),
         R"({"c":-128,"s":-32768,"i":-1,"l":-9.2233720368547758e+18,"k":65})"},
        {{{"b", "bool"}, {"c", "unsigned char"}, {"s", "uint16_t"}, {"i", "unsigned int"}},  // unsigned reads
         ByteWriter().u8(7).u8(0xff).u16(0xffff).u32(~0u).take(), R"({"b":7,"c":255,"s":65535,"i":4294967295})"},
        {{{"a", "int64_t"}, {"b", "uint64_t"}, {"d", "unsigned long"}, {"t", "timestamp"}},
         ByteWriter().u64((1ull << 53) + 1).u64(99999999999999999).u64(~0ull).u64(1700000000000001).take(),
         R"({"a":9007199254740992,"b":1e+17,"d":1.8446744073709552e+19,"t":1700000000000001})"},
        {{{"f", "float"}, {"d", "double"}, {"z", "double"}, {"m", "double"}},  // floats
         ByteWriter().f32(0.1f).f64(0.1).f64(-0.0).f64(std::numeric_limits<double>::denorm_min()).take(),
         R"({"f":0.10000000149011612,"d":0.10000000000000001,"z":-0,"m":4.9406564584124654e-324})"},
        {{{"s", "char", 0}, {"a", "int", 0}, {"n", "int"}}, ByteWriter().i32(3).take(),  // empty arrays
         R"({"s":"","a":[],"n":3})"},
        {{{"a", "uint8_t", 3}, {"b", "int8_t", 2}}, ByteWriter().text("\x01\x02\xff\xff" "A").take(),  // byte arrays
         R"({"a":[1,2,255],"b":[-1,65]})"},
        {{{"d", "deep"}, {"l", "lane", 2}}, ByteWriter().u16(9).f64(0.25).u8(1).u8(0).take(),  // nesting
         R"({"d":{"peer":{"lid":9},"x":0.25},"l":[{"up":1},{"up":0}]})"},
        {{{"h", "hollow"}, {"hs", "hollow", 2}, {"n", "int"}}, ByteWriter().zeros(12).i32(5).take(),
         R"({"h":{},"hs":[{},{}],"n":5})"},
        {{{"a", "int"}, {"b", "int"}, {"a", "double"}},  // later duplicate wins in place
         ByteWriter().i32(1).i32(2).f64(3.5).take(), R"({"a":3.5,"b":2})"},
        {{{"p", "peer"}, {"n", "int"}, {"p", "char", 4}}, ByteWriter().u16(7).i32(1).text("zz").take(),
         R"({"p":"zz","n":1})"},  // a text replaces a composite
        {{{"a", "double"}, {"a", "int"}}, ByteWriter().f64(NAN).i32(3).take(), "<none>"},  // NaN replaced
        {{{"a", "int"}, {"a", "double"}}, ByteWriter().i32(1).f64(NAN).take(), "<none>"},  // NaN replacing
        {{{"d", "deep", 2}}, ByteWriter().u16(1).f64(1).u16(1).f64(NAN).take(), "<none>"},  // NaN deep in an array
        {{{"f", "float"}}, ByteWriter().f32(-HUGE_VALF).take(), "<none>"},  // infinite float
    };
    for (const auto& [fields, bytes, plain] : cases) {
        EventTexts value;
        EXPECT_TRUE(same_event_texts(types.add(fields), bytes, &value));
        EXPECT_EQ(value.plain, plain);
    }
    // A type without fields: {} and an empty field set.
    EventTexts value;
    EXPECT_TRUE(same_event_texts(types.mutable_type("hollow"), {1}, &value));
    EXPECT_EQ(value.pretty + value.influx, "{}");
    types.mutable_type("hollow")->num_fields = 1;  // so that the schema frees its field
}

}  // namespace
