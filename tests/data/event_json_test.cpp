#include "data/event_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/byte_writer.h"
#include "fixtures/event_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"

namespace {

using obx_test::ByteWriter;
using obx_test::Bytes;
using obx_test::EventTypes;
using obx_test::take_json_text;

// Every built-in is read by its own width and sign, from any alignment, and printed as a
// double would be.
TEST(BuiltInValueToJson, ReadsEachTypeByTheTable)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        const char* type;
        Bytes bytes;
        const char* expected;  // "<none>": no value
    };
    const std::vector<Case> cases = {
        {"bool", ByteWriter().u8(0).take(), "0"},
        {"bool", ByteWriter().u8(7).take(), "7"},  // whatever the byte holds
        {"char", ByteWriter().u8(0x80).take(), "-128"},
        {"char", ByteWriter().u8(0x7f).take(), "127"},
        {"int8_t", ByteWriter().u8(0xff).take(), "-1"},
        {"unsigned char", ByteWriter().u8(0xff).take(), "255"},
        {"uint8_t", ByteWriter().u8(0x80).take(), "128"},
        {"short", ByteWriter().u16(0x8000).take(), "-32768"},
        {"int16_t", ByteWriter().u16(0x7fff).take(), "32767"},
        {"unsigned short", ByteWriter().u16(0xffff).take(), "65535"},
        {"uint16_t", ByteWriter().u16(0x8000).take(), "32768"},
        {"int", ByteWriter().u32(0xffffffff).take(), "-1"},
        {"int32_t", ByteWriter().u32(0x80000000).take(), "-2147483648"},
        {"unsigned int", ByteWriter().u32(0xffffffff).take(), "4294967295"},
        {"uint32_t", ByteWriter().u32(0x80000000).take(), "2147483648"},
        {"long", ByteWriter().i64(std::numeric_limits<int64_t>::min()).take(), "-9.2233720368547758e+18"},
        {"long long", ByteWriter().i64(std::numeric_limits<int64_t>::max()).take(), "9.2233720368547758e+18"},
        {"int64_t", ByteWriter().i64(-5).take(), "-5"},
        {"int64_t", ByteWriter().i64((int64_t{1} << 53) + 1).take(), "9007199254740992"},  // rounded to double
        {"unsigned long", ByteWriter().u64(~uint64_t{0}).take(), "1.8446744073709552e+19"},
        {"unsigned long long", ByteWriter().u64(100000000000000000ull).take(), "1e+17"},
        {"uint64_t", ByteWriter().u64(99999999999999999ull).take(), "1e+17"},
        {"timestamp", ByteWriter().u64(1700000000123456ull).take(), "1700000000123456"},
        {"float", ByteWriter().f32(1.5f).take(), "1.5"},
        {"float", ByteWriter().f32(0.1f).take(), "0.10000000149011612"},
        {"float", ByteWriter().f32(static_cast<float>(nan)).take(), "<none>"},
        {"float", ByteWriter().f32(-static_cast<float>(inf)).take(), "<none>"},
        {"double", ByteWriter().f64(0.5).take(), "0.5"},
        {"double", ByteWriter().f64(-0.0).take(), "-0"},
        {"double", ByteWriter().f64(0.1).take(), "0.10000000000000001"},
        {"double", ByteWriter().f64(4.9406564584124654e-324).take(), "4.9406564584124654e-324"},
        {"double", ByteWriter().f64(nan).take(), "<none>"},
        {"double", ByteWriter().f64(inf).take(), "<none>"},
    };
    for (const Case& c : cases) {
        const uint32_t id = obx_built_in_type_id(c.type);
        ASSERT_NE(id, 0u) << c.type;
        // One byte in front, so that no value stands aligned.
        Bytes unaligned(1, 0xAA);
        unaligned.insert(unaligned.end(), c.bytes.begin(), c.bytes.end());
        EXPECT_EQ(take_json_text(obx_built_in_value_to_json(id, unaligned.data() + 1), false), c.expected)
            << c.type << " " << c.expected;
    }
}

TEST(BuiltInValueToJson, IdsOutsideTheTableGiveNothing)
{
    const uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (uint32_t id : {0u, 23u, 255u, 0xffffffffu}) EXPECT_EQ(obx_built_in_value_to_json(id, bytes), nullptr) << id;
    EXPECT_EQ(obx_built_in_value_to_json(OBX_TYPE_INT, nullptr), nullptr);
}

// Whole records: text, arrays, nesting and the failures that lose the event.
class EventToJsonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(types_.add("peer", {{"lid", "uint16_t"}}), nullptr);
        ASSERT_NE(types_.add("lane", {{"up", "bool"}}), nullptr);
        ASSERT_NE(types_.add("deep", {{"peer", "peer"}, {"x", "double"}}), nullptr);
    }

    std::string render(const std::vector<obx_test::EventFieldSpec>& fields, const Bytes& bytes, bool pretty = false)
    {
        const obx_type_definition_t* type = types_.add("t" + std::to_string(++counter_), fields);
        if (!type) return "<no type>";
        const Bytes record = obx_test::record_of(bytes, type->size);
        return take_json_text(obx_event_to_json(type, record.data()), pretty);
    }

    EventTypes types_;
    int counter_ = 0;
};

TEST_F(EventToJsonTest, RendersFieldsByKind)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        std::vector<obx_test::EventFieldSpec> fields;
        Bytes bytes;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {"char[1] is a number", {{"c", "char", 1}}, ByteWriter().u8('A').take(), R"({"c":65})"},
        {"terminated text", {{"s", "char", 8}}, ByteWriter().fixed("abc", 8).take(), R"({"s":"abc"})"},
        {"all zero text", {{"s", "char", 8}}, ByteWriter().zeros(8).take(), R"({"s":""})"},
        {"unterminated text", {{"s", "char", 8}}, ByteWriter().text("abcdefgh").take(), R"({"s":"abcdefgh"})"},
        {"tab ends text", {{"s", "char", 8}}, ByteWriter().fixed("ab\tcd", 8).take(), R"({"s":"ab"})"},
        {"newline ends text", {{"s", "char", 8}}, ByteWriter().fixed("ab\ncd", 8).take(), R"({"s":"ab"})"},
        {"unsigned char text", {{"s", "unsigned char", 4}}, ByteWriter().text("xy\x01z").take(), R"({"s":"xy"})"},
        {"byte 0x7f ends text", {{"s", "char", 4}}, ByteWriter().text("a\x7f" "bc").take(), R"({"s":"a"})"},
        {"quote and backslash escaped", {{"s", "char", 4}}, ByteWriter().text("a\"\\b").take(), R"({"s":"a\"\\b"})"},
        {"empty char array", {{"s", "char", 0}, {"n", "int"}}, ByteWriter().i32(3).take(), R"({"s":"","n":3})"},
        {"uint8_t array", {{"a", "uint8_t", 4}}, ByteWriter().u8(1).u8(2).u8(3).u8(255).take(), R"({"a":[1,2,3,255]})"},
        {"int8_t array", {{"a", "int8_t", 2}}, ByteWriter().i8(-1).i8(65).take(), R"({"a":[-1,65]})"},
        {"empty number array", {{"a", "int", 0}, {"n", "int"}}, ByteWriter().i32(3).take(), R"({"a":[],"n":3})"},
        {"nested", {{"p", "peer"}}, ByteWriter().u16(7).take(), R"({"p":{"lid":7}})"},
        {"nested twice", {{"d", "deep"}}, ByteWriter().u16(9).f64(0.25).take(), R"({"d":{"peer":{"lid":9},"x":0.25}})"},
        {"composite array", {{"l", "lane", 2}}, ByteWriter().u8(1).u8(0).take(), R"({"l":[{"up":1},{"up":0}]})"},
        {"int -1 vs unsigned", {{"i", "int"}, {"u", "unsigned int"}}, ByteWriter().u32(0xffffffff).u32(0xffffffff).take(),
         R"({"i":-1,"u":4294967295})"},
        {"big integers", {{"u", "uint64_t"}, {"t", "timestamp"}}, ByteWriter().u64(~0ull).u64(1700000000000001ull).take(),
         R"({"u":1.8446744073709552e+19,"t":1700000000000001})"},
        {"later duplicate wins in place", {{"a", "int"}, {"b", "int"}, {"a", "double"}},
         ByteWriter().i32(1).i32(2).f64(3.5).take(), R"({"a":3.5,"b":2})"},
        {"NaN fails the event", {{"n", "int"}, {"d", "double"}}, ByteWriter().i32(1).f64(nan).take(), "<none>"},
        {"NaN in a replaced duplicate", {{"a", "double"}, {"b", "int"}, {"a", "int"}},
         ByteWriter().f64(nan).i32(2).i32(3).take(), "<none>"},
        {"NaN inside a nested record", {{"d", "deep"}}, ByteWriter().u16(1).f64(nan).take(), "<none>"},
        {"0.0 where the NaN was", {{"n", "int"}, {"d", "double"}}, ByteWriter().i32(1).f64(0.0).take(),
         R"({"n":1,"d":0})"},
    };
    for (const Case& c : cases) EXPECT_EQ(render(c.fields, c.bytes), c.expected) << c.name;
}

TEST_F(EventToJsonTest, SlashEscapingFollowsTheSwitch)
{
    const Bytes bytes = ByteWriter().fixed("a/b", 4).take();
    {
        obx_test::SlashEscaping on(true);
        EXPECT_EQ(render({{"s", "char", 4}}, bytes), R"({"s":"a\/b"})");
    }
    obx_test::SlashEscaping off(false);
    EXPECT_EQ(render({{"s", "char", 4}}, bytes), R"({"s":"a/b"})");
}

TEST_F(EventToJsonTest, PrettyTextNestsByFourBlanks)
{
    const Bytes bytes = ByteWriter().u16(7).u8(1).u8(0).i8(3).i8(4).take();
    EXPECT_EQ(render({{"p", "peer"}, {"l", "lane", 2}, {"a", "int8_t", 2}}, bytes, true),
              "{\n"
              "    \"p\": {\n"
              "        \"lid\": 7\n"
              "    },\n"
              "    \"l\": [\n"
              "        {\n"
              "            \"up\": 1\n"
              "        },\n"
              "        {\n"
              "            \"up\": 0\n"
              "        }\n"
              "    ],\n"
              "    \"a\": [\n"
              "        3,\n"
              "        4\n"
              "    ]\n"
              "}");
}

TEST_F(EventToJsonTest, TypeWithoutFieldsGivesAnEmptyObject)
{
    obx_type_definition_t* type = types_.mutable_type("lane");
    const uint16_t saved = type->num_fields;
    type->num_fields = 0;
    const uint8_t record[1] = {1};
    EXPECT_EQ(take_json_text(obx_event_to_json(type, record), true), "{}");
    type->num_fields = saved;
}

TEST_F(EventToJsonTest, UnusableDefinitionsFailInsteadOfCrashing)
{
    const uint8_t record[16] = {0};
    EXPECT_EQ(obx_event_to_json(nullptr, record), nullptr);
    EXPECT_EQ(obx_event_to_json(types_.find("peer"), nullptr), nullptr);

    obx_type_definition_t* type = types_.mutable_type("peer");
    obx_type_definition_t* resolved = type->fields[0]->type;
    type->fields[0]->type = nullptr;
    EXPECT_EQ(obx_event_to_json(type, record), nullptr);
    type->fields[0]->type = resolved;

    // A key that is not UTF-8 cannot be set: the event is lost.
    char* name = type->fields[0]->field_name;
    char bad_name[] = "l\xff";
    type->fields[0]->field_name = bad_name;
    EXPECT_EQ(obx_event_to_json(type, record), nullptr);
    type->fields[0]->field_name = name;
    EXPECT_EQ(take_json_text(obx_event_to_json(type, record), false), R"({"lid":0})");
}

// Text ends at the first byte the locale does not call printable, classified as a signed
// char; bytes the locale prints must still be UTF-8 or the event fails with a line.
TEST_F(EventToJsonTest, TextFieldsFollowTheLocale)
{
    const obx_type_definition_t* type = types_.add("text", {{"s", "char", 6}});
    ASSERT_NE(type, nullptr);
    const Bytes utf8_e = ByteWriter().text("\xC3\xA9" "ab").zeros(2).take();   // "éab" in UTF-8
    const Bytes latin1_e = ByteWriter().text("a\xE9" "b").zeros(3).take();     // "aéb" in Latin-1
    const Bytes last_byte = ByteWriter().text("ab\xFF" "cd").zeros(1).take();  // 0xFF is -1: EOF
    {
        obx_test::CtypeLocale c_locale("C");
        ASSERT_TRUE(c_locale.ok());
        EXPECT_EQ(take_json_text(obx_event_to_json(type, utf8_e.data()), false), R"({"s":""})");
        EXPECT_EQ(take_json_text(obx_event_to_json(type, latin1_e.data()), false), R"({"s":"a"})");
    }
    {
        obx_test::CtypeLocale utf8("C.UTF-8");
        if (utf8.ok()) {
            EXPECT_EQ(take_json_text(obx_event_to_json(type, latin1_e.data()), false), R"({"s":"a"})");
        }
    }
    const std::string latin1 = obx_test::latin1_locale_name();
    if (latin1.empty()) GTEST_SKIP() << "no ISO-8859-1 locale can be made here";
    obx_test::CtypeLocale latin1_locale(latin1.c_str());
    ASSERT_TRUE(latin1_locale.ok());
    // Printable in Latin-1 and valid UTF-8 as bytes: kept.
    EXPECT_EQ(take_json_text(obx_event_to_json(type, utf8_e.data()), false), "{\"s\":\"\xC3\xA9" "ab\"}");
    // 0xFF as a signed char is EOF: not printable even here.
    EXPECT_EQ(take_json_text(obx_event_to_json(type, last_byte.data()), false), R"({"s":"ab"})");
    // Printable but not UTF-8: the event is lost, with the line.
    obx_test::LogCapture log;
    EXPECT_EQ(obx_event_to_json(type, latin1_e.data()), nullptr);
    EXPECT_TRUE(log.has("Failed to serialize field s of type char[6] as string")) << log.all();
}

}  // namespace
