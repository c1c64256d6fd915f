#include "serializers/event_text_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "data/event_json.h"
#include "data/schema/built_in_types.h"
#include "fixtures/byte_writer.h"
#include "fixtures/event_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "serializers/influx_serializer.h"

namespace {

using obx_test::ByteWriter;
using obx_test::Bytes;
using obx_test::EventFieldSpec;
using obx_test::EventTypes;

constexpr const char* kNone = "<none>";

// The three texts of one record and the log lines rendering them gave.
struct Rendered {
    std::string pretty;
    std::string plain;
    std::string influx;
    std::vector<std::string> log;
};

std::vector<std::string> log_texts(const obx_test::LogCapture& log)
{
    std::vector<std::string> texts;
    for (const obx_test::LogLine& line : log.lines()) texts.push_back(line.text);
    return texts;
}

Rendered by_value(const obx_type_definition_t* type, const uint8_t* record)
{
    obx_test::LogCapture log;
    Rendered r;
    r.pretty = obx_test::take_json_text(obx_event_to_json(type, record), true);
    r.plain = obx_test::take_json_text(obx_event_to_json(type, record), false);
    r.influx = obx_test::influx_event_text(type, record);
    r.log = log_texts(log);
    return r;
}

// Renders into a buffer that already holds a record's worth of other text, so that a
// failure must leave exactly that text behind.
std::string direct_form(obx_event_text_writer_t* writer, obx_event_text_form_t form,
                        const obx_type_definition_t* type, const uint8_t* record)
{
    static const std::string before = "earlier record,\n";
    obx_event_text_writer_clear(writer);
    obx_event_text_writer_append_bytes(writer, before.data(), before.size());
    const bool ok = obx_event_text_writer_append_event(writer, form, type, record);
    const std::string all(obx_event_text_writer_data(writer), obx_event_text_writer_size(writer));
    if (all.compare(0, before.size(), before) != 0) return "<text before the record changed>";
    if (!ok) return all == before ? kNone : "<failure left bytes: " + all.substr(before.size()) + ">";
    return all.substr(before.size());
}

Rendered directly(obx_event_text_writer_t* writer, const obx_type_definition_t* type, const uint8_t* record)
{
    obx_test::LogCapture log;
    Rendered r;
    r.pretty = direct_form(writer, OBX_EVENT_TEXT_JSON_PRETTY, type, record);
    r.plain = direct_form(writer, OBX_EVENT_TEXT_JSON_PLAIN, type, record);
    r.influx = direct_form(writer, OBX_EVENT_TEXT_INFLUX, type, record);
    r.log = log_texts(log);
    return r;
}

// Both roads, every form, compared byte for byte; the value path's text is returned for
// checks of its own.
::testing::AssertionResult same_bytes(obx_event_text_writer_t* writer, const obx_type_definition_t* type,
                                      const Bytes& record, Rendered* value_out = nullptr)
{
    const Rendered expected = by_value(type, record.data());
    const Rendered got = directly(writer, type, record.data());
    if (value_out) *value_out = expected;
    if (expected.pretty != got.pretty)
        return ::testing::AssertionFailure() << "pretty:\n" << expected.pretty << "\nvs\n" << got.pretty;
    if (expected.plain != got.plain)
        return ::testing::AssertionFailure() << "plain: " << expected.plain << " vs " << got.plain;
    if (expected.influx != got.influx)
        return ::testing::AssertionFailure() << "influx: " << expected.influx << " vs " << got.influx;
    if (expected.log != got.log)
        return ::testing::AssertionFailure() << "log lines differ: " << expected.log.size() << " vs "
                                             << got.log.size();
    return ::testing::AssertionSuccess();
}

std::string hex_of(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

class EventTextWriterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writer_ = obx_event_text_writer_create();
        ASSERT_NE(writer_, nullptr);
    }
    void TearDown() override { obx_event_text_writer_destroy(writer_); }

    const obx_type_definition_t* add(const std::vector<EventFieldSpec>& fields)
    {
        return types_.add("t" + std::to_string(++counter_), fields);
    }

    EventTypes types_;
    obx_event_text_writer_t* writer_ = nullptr;
    int counter_ = 0;
};

// Bit patterns at the edges of every width, read as each type of that width, as a scalar
// and as an array.
TEST_F(EventTextWriterTest, EveryBuiltInAtItsBoundaries)
{
    const std::vector<uint64_t> one = {0, 1, 0x7f, 0x80, 0xff};
    const std::vector<uint64_t> two = {0, 0x7fff, 0x8000, 0xffff, 12345};
    const std::vector<uint64_t> four = {0, 0x7fffffff, 0x80000000, 0xffffffff, 1000000};
    const std::vector<uint64_t> eight = {0,
                                         (1ull << 53) - 1,
                                         1ull << 53,
                                         (1ull << 53) + 1,
                                         99999999999999999ull,
                                         100000000000000000ull,
                                         0x7fffffffffffffffull,
                                         0x8000000000000000ull,
                                         0xffffffffffffffffull,
                                         0xffe0000000000001ull,  // -(2^53 - 1) as int64
                                         1700000000123456ull};
    auto float_bits = [](float v) {
        uint32_t b;
        std::memcpy(&b, &v, 4);
        return static_cast<uint64_t>(b);
    };
    auto double_bits = [](double v) {
        uint64_t b;
        std::memcpy(&b, &v, 8);
        return b;
    };
    const std::vector<uint64_t> floats = {
        float_bits(0.0f), float_bits(-0.0f), float_bits(0.1f), float_bits(1.5f), float_bits(1e17f),
        float_bits(std::numeric_limits<float>::max()), float_bits(std::numeric_limits<float>::min()),
        float_bits(std::numeric_limits<float>::denorm_min()), float_bits(-123.456f), float_bits(16777217.0f),
        float_bits(std::numeric_limits<float>::quiet_NaN()), float_bits(std::numeric_limits<float>::infinity()),
        float_bits(-std::numeric_limits<float>::infinity())};
    const std::vector<uint64_t> doubles = {
        double_bits(0.0), double_bits(-0.0), double_bits(0.1), double_bits(0.5), double_bits(1e17),
        double_bits(9007199254740993.0), double_bits(1e-5), double_bits(9.9999999999999e-5),
        double_bits(1.0000076293945312), double_bits(123456789.125), double_bits(1e300), double_bits(-1e-300),
        double_bits(std::numeric_limits<double>::max()), double_bits(std::numeric_limits<double>::min()),
        double_bits(std::numeric_limits<double>::denorm_min()), double_bits(18446744073709551615.0),
        double_bits(std::numeric_limits<double>::quiet_NaN()), double_bits(-std::numeric_limits<double>::quiet_NaN()),
        double_bits(std::numeric_limits<double>::infinity())};

    for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id) {
        const char* name = obx_built_in_type_name(id);
        const uint64_t size = obx_built_in_type_size(id);
        const std::vector<uint64_t>& values = id == OBX_TYPE_FLOAT    ? floats
                                              : id == OBX_TYPE_DOUBLE ? doubles
                                              : size == 1             ? one
                                              : size == 2             ? two
                                              : size == 4             ? four
                                                                      : eight;
        const obx_type_definition_t* scalar = add({{"lead", "uint8_t"}, {"v", name}});
        // Two elements: not text even for char, so every type gets an array here.
        const obx_type_definition_t* array = add({{"v", name, 2}});
        ASSERT_TRUE(scalar && array);
        for (uint64_t bits : values) {
            ByteWriter one_value;
            for (uint64_t i = 0; i < size; ++i) one_value.u8(static_cast<uint8_t>(bits >> (8 * i)));
            const Bytes value = one_value.take();
            Bytes record = {0x5a};  // the value stands unaligned
            record.insert(record.end(), value.begin(), value.end());
            EXPECT_TRUE(same_bytes(writer_, scalar, record)) << name << " " << hex_of(value);
            if (id == OBX_TYPE_CHAR || id == OBX_TYPE_UNSIGNED_CHAR) continue;
            Bytes pair = value;
            pair.insert(pair.end(), value.begin(), value.end());
            EXPECT_TRUE(same_bytes(writer_, array, pair)) << name << "[2] " << hex_of(value);
        }
    }
}

// Text fields in each locale there is: the cut, escaping, UTF-8 and the failure line.
TEST_F(EventTextWriterTest, TextFieldsInEveryLocale)
{
    const obx_type_definition_t* text8 = add({{"s", "char", 8}, {"n", "int16_t"}});
    const obx_type_definition_t* utext = add({{"u", "unsigned char", 6}});
    const obx_type_definition_t* empty = add({{"e", "char", 0}, {"n", "int8_t"}});
    ASSERT_TRUE(text8 && utext && empty);
    const std::vector<Bytes> texts = {
        ByteWriter().fixed("abc", 8).take(),
        ByteWriter().text("abcdefgh").take(),          // unterminated
        ByteWriter().zeros(8).take(),                  // empty
        ByteWriter().fixed("ab\tcd", 8).take(),        // tab ends it
        ByteWriter().fixed("a\x01" "b", 8).take(),     // control byte
        ByteWriter().fixed("a\"b\\c/d", 8).take(),     // escaped in JSON, not in Influx
        ByteWriter().fixed("x\x7f" "y", 8).take(),     // DEL
        ByteWriter().fixed("\xC3\xA9t\xC3\xA9", 8).take(),  // UTF-8
        ByteWriter().fixed("caf\xE9", 8).take(),       // Latin-1: not UTF-8
        ByteWriter().fixed("\xA0\xFF" "z", 8).take(),  // 0xFF is EOF as a signed char
        ByteWriter().fixed("\xED\xA0\x80", 8).take(),  // a surrogate
        ByteWriter().fixed("\xF4\x90\x80\x80", 8).take(),  // above U+10FFFF
        ByteWriter().fixed("\xE0\x80\xAF", 8).take(),  // overlong
        ByteWriter().text("ab\xC3").u8(0).zeros(4).take(),  // cut sequence
    };
    std::vector<std::string> locales = {"C", "C.UTF-8"};
    const std::string latin1 = obx_test::latin1_locale_name();
    if (!latin1.empty()) locales.push_back(latin1);
    for (const std::string& name : locales) {
        obx_test::CtypeLocale locale(name.c_str());
        if (!locale.ok()) continue;
        for (bool slashes : {true, false}) {
            obx_test::SlashEscaping escaping(slashes);
            for (const Bytes& text : texts) {
                const Bytes record = ByteWriter().raw(text).i16(-2).take();
                EXPECT_TRUE(same_bytes(writer_, text8, record)) << name << " " << hex_of(text);
                const Bytes six(text.begin(), text.begin() + 6);
                EXPECT_TRUE(same_bytes(writer_, utext, six)) << name << " " << hex_of(six);
            }
            EXPECT_TRUE(same_bytes(writer_, empty, ByteWriter().i8(4).take())) << name;
        }
    }
    if (latin1.empty()) GTEST_SKIP() << "no ISO-8859-1 locale: the failing text was not reached";
    obx_test::CtypeLocale locale(latin1.c_str());
    Rendered value;
    EXPECT_TRUE(same_bytes(writer_, text8, ByteWriter().fixed("caf\xE9", 8).i16(0).take(), &value));
    EXPECT_EQ(value.plain, kNone);
    EXPECT_EQ(value.influx, "s=\"caf\xE9\",n=0i");
    ASSERT_EQ(value.log.size(), 2u);  // pretty and plain
    EXPECT_EQ(value.log[0], "Failed to serialize field s of type char[8] as string");
}

TEST_F(EventTextWriterTest, NestingArraysAndDuplicates)
{
    ASSERT_NE(types_.add("leaf", {{"x", "int"}, {"f", "float"}}), nullptr);
    ASSERT_NE(types_.add("mid", {{"leaf", "leaf"}, {"leaves", "leaf", 2}, {"tag", "char", 4}}), nullptr);
    ASSERT_NE(types_.add("dup", {{"a", "int8_t"}, {"b", "leaf"}, {"a", "double"}}), nullptr);
    ASSERT_NE(types_.add("nothing", {{"n", "uint8_t", 3}}), nullptr);
    ASSERT_NE(types_.add("hollow", {{"h", "int"}}), nullptr);
    obx_type_definition_t* hollow = types_.mutable_type("hollow");
    hollow->num_fields = 0;  // a composite without fields: {} and no Influx field
    struct Case {
        const char* name;
        std::vector<EventFieldSpec> fields;
        Bytes bytes;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Bytes leaf = ByteWriter().i32(-3).f32(0.25f).take();
    const Bytes mid = ByteWriter().raw(leaf).raw(leaf).raw(leaf).fixed("ok", 4).take();
    const std::vector<Case> cases = {
        {"nested", {{"m", "mid"}}, mid},
        {"array of nested", {{"m", "mid", 3}}, ByteWriter().raw(mid).raw(mid).raw(mid).take()},
        {"array of one", {{"l", "leaf", 1}, {"k", "leaf", 0}}, leaf},
        {"number arrays", {{"a", "int", 3}, {"b", "double", 2}, {"c", "uint8_t", 0}},
         ByteWriter().i32(1).i32(-1).i32(7).f64(0.5).f64(-2.25).take()},
        {"duplicates inside", {{"d", "dup", 2}}, ByteWriter().i8(1).raw(leaf).f64(2.5).i8(3).raw(leaf).f64(4).take()},
        {"NaN in a shadowed field", {{"a", "double"}, {"a", "int"}}, ByteWriter().f64(nan).i32(1).take()},
        {"NaN in a shadowing field", {{"a", "int"}, {"a", "double"}}, ByteWriter().i32(1).f64(nan).take()},
        {"NaN deep in an array", {{"d", "dup", 2}},
         ByteWriter().i8(1).raw(leaf).f64(2.5).i8(3).raw(leaf).f64(nan).take()},
        {"infinite float in a leaf", {{"m", "mid"}},
         ByteWriter().raw(leaf).raw(leaf).i32(0).f32(std::numeric_limits<float>::infinity()).fixed("x", 4).take()},
        {"hollow composites", {{"h", "hollow"}, {"hs", "hollow", 2}, {"n", "int"}}, ByteWriter().i32(5).take()},
        {"arrays without fields", {{"z", "nothing", 2}, {"y", "nothing"}}, ByteWriter().zeros(9).take()},
    };
    for (const Case& c : cases) {
        const obx_type_definition_t* type = add(c.fields);
        ASSERT_NE(type, nullptr) << c.name;
        EXPECT_TRUE(same_bytes(writer_, type, obx_test::record_of(c.bytes, type->size))) << c.name;
    }

    // Names repeated anywhere: one key per name, in its first place, with the last value.
    const obx_type_definition_t* repeated =
        add({{"a", "int"}, {"b", "int"}, {"x", "char", 4}, {"c", "int"}, {"y", "leaf"}, {"z", "int8_t"}});
    ASSERT_NE(repeated, nullptr);
    EventTypes::rename_field(repeated, 2, "a");
    EventTypes::rename_field(repeated, 4, "b");
    EventTypes::rename_field(repeated, 5, "a");
    Rendered value;
    const Bytes record = ByteWriter().i32(1).i32(2).fixed("zz", 4).i32(3).raw(leaf).i8(9).take();
    EXPECT_TRUE(same_bytes(writer_, repeated, record, &value));
    EXPECT_EQ(value.plain, R"({"a":9,"b":{"x":-3,"f":0.25},"c":3})");
    EXPECT_EQ(value.influx, "a=1i,b=2i,a=\"zz\",c=3i,b.x=-3i,b.f=0.250000,a=9i");
    hollow->num_fields = 1;  // so that the schema frees its field
}

// Definitions the value path refuses are refused here too, without a crash.
TEST_F(EventTextWriterTest, UnusableDefinitions)
{
    const obx_type_definition_t* type = add({{"x", "int"}, {"s", "char", 4}});
    ASSERT_NE(type, nullptr);
    const Bytes record = ByteWriter().i32(1).fixed("ab", 4).take();
    obx_type_field_definition_t* x = type->fields[0];

    char bad_name[] = "\xC3(";
    char* name = x->field_name;
    x->field_name = bad_name;
    obx_event_text_writer_forget_types(writer_);
    Rendered value;
    EXPECT_TRUE(same_bytes(writer_, type, record, &value));
    EXPECT_EQ(value.plain, kNone);
    x->field_name = name;

    obx_type_definition_t* resolved = x->type;
    x->type = nullptr;
    obx_event_text_writer_forget_types(writer_);
    EXPECT_TRUE(same_bytes(writer_, type, record, &value));
    EXPECT_EQ(value.influx, kNone);
    x->type = resolved;

    // An element type that is no built-in and no composite.
    obx_type_definition_t odd = *resolved;
    odd.id = 40;
    x->type = &odd;
    obx_event_text_writer_forget_types(writer_);
    EXPECT_TRUE(same_bytes(writer_, type, record));
    x->array_length = 0;  // no element is read: [] in JSON, nothing in Influx
    obx_event_text_writer_forget_types(writer_);
    EXPECT_TRUE(same_bytes(writer_, type, record));
    x->array_length = 1;
    x->type = resolved;

    obx_event_text_writer_forget_types(writer_);
    EXPECT_FALSE(obx_event_text_writer_append_event(writer_, OBX_EVENT_TEXT_JSON_PLAIN, nullptr, record.data()));
    EXPECT_FALSE(obx_event_text_writer_append_event(writer_, OBX_EVENT_TEXT_JSON_PLAIN, type, nullptr));
    EXPECT_FALSE(obx_event_text_writer_append_event(nullptr, OBX_EVENT_TEXT_JSON_PLAIN, type, record.data()));
    EXPECT_FALSE(obx_event_text_writer_append_event(writer_, static_cast<obx_event_text_form_t>(9), type,
                                                    record.data()));
    obx_event_text_writer_destroy(nullptr);
    obx_event_text_writer_forget_types(nullptr);
}

// A plan belongs to a type as it was; forgetting the types makes new plans, and so does
// a change of the slash setting (keys are escaped in advance).
TEST_F(EventTextWriterTest, PlansAreRemadeWhenForgotten)
{
    const obx_type_definition_t* type = add({{"a/b", "int"}, {"c", "uint16_t", 2}});
    ASSERT_NE(type, nullptr);
    const Bytes record = ByteWriter().i32(5).u16(6).u16(7).take();
    obx_test::SlashEscaping off(false);
    EXPECT_TRUE(same_bytes(writer_, type, record));
    {
        obx_test::SlashEscaping on(true);
        EXPECT_TRUE(same_bytes(writer_, type, record));
    }
    EXPECT_TRUE(same_bytes(writer_, type, record));

    type->fields[1]->array_length = 1;
    obx_event_text_writer_forget_types(writer_);
    Rendered value;
    EXPECT_TRUE(same_bytes(writer_, type, record, &value));
    EXPECT_EQ(value.plain, R"({"a/b":5,"c":6})");
    type->fields[1]->array_length = 2;
}

// The export's framing: one write per event, ",\n" between json records, a newline after
// each ndjson and Influx record, nothing at all for a record that fails.
TEST_F(EventTextWriterTest, PrintFramesRecords)
{
    const obx_type_definition_t* type = add({{"v", "double"}});
    ASSERT_NE(type, nullptr);
    const Bytes good = ByteWriter().f64(1.25).take();
    const Bytes bad = ByteWriter().f64(std::numeric_limits<double>::quiet_NaN()).take();
    struct Case {
        obx_event_text_form_t form;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {OBX_EVENT_TEXT_JSON_PRETTY, "{\n    \"v\": 1.25\n},\n{\n    \"v\": 1.25\n}"},
        {OBX_EVENT_TEXT_JSON_PLAIN, "{\"v\":1.25}\n{\"v\":1.25}\n"},
        {OBX_EVENT_TEXT_INFLUX, "v=1.250000\nv=nan\nv=1.250000\n"},
    };
    for (const Case& c : cases) {
        char* text = nullptr;
        size_t length = 0;
        FILE* stream = open_memstream(&text, &length);
        ASSERT_NE(stream, nullptr);
        EXPECT_TRUE(obx_event_text_writer_print(writer_, c.form, true, type, good.data(), stream));
        const bool bad_ok = obx_event_text_writer_print(writer_, c.form, false, type, bad.data(), stream);
        EXPECT_EQ(bad_ok, c.form == OBX_EVENT_TEXT_INFLUX);  // Influx prints "nan"; JSON has none
        EXPECT_TRUE(obx_event_text_writer_print(writer_, c.form, false, type, good.data(), stream));
        std::fclose(stream);
        EXPECT_EQ(std::string(text, length), c.expected) << c.form;
        std::free(text);
    }
    EXPECT_FALSE(obx_event_text_writer_print(writer_, OBX_EVENT_TEXT_JSON_PLAIN, true, type, good.data(), nullptr));
}

// Random records of a type with every kind of field, in every locale, both slash
// settings: the two roads never differ.
TEST_F(EventTextWriterTest, RandomRecordsOfARichType)
{
    ASSERT_NE(types_.add("inner", {{"id", "uint32_t"}, {"name", "char", 5}, {"ratio", "float"}, {"flag", "bool"}}),
              nullptr);
    ASSERT_NE(types_.add("outer", {{"inner", "inner"}, {"inners", "inner", 2}, {"when", "timestamp"}}), nullptr);
    std::vector<EventFieldSpec> fields;
    for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id) fields.push_back({"f" + std::to_string(id), obx_built_in_type_name(id)});
    fields.push_back({"text", "char", 12});
    fields.push_back({"utext", "unsigned char", 3});
    fields.push_back({"bytes", "int8_t", 3});
    fields.push_back({"doubles", "double", 2});
    fields.push_back({"o", "outer"});
    fields.push_back({"os", "outer", 2});
    fields.push_back({"f13", "int16_t"});  // shadows the double above
    const obx_type_definition_t* rich = add(fields);
    ASSERT_NE(rich, nullptr);

    std::mt19937_64 random(20240301);
    const uint8_t specials[] = {0, 0x7f, 0x80, 0xff, 0x3f, 0xc0, 0x7f, 0xf0, '\t', '"', '\\', '/', 0xc3, 0xa9};
    auto random_record = [&]() {
        Bytes record(rich->size);
        for (uint8_t& b : record) {
            const uint64_t pick = random() % 8;
            if (pick < 4)
                b = static_cast<uint8_t>(' ' + random() % 95);  // printable text
            else if (pick < 6)
                b = specials[random() % sizeof specials];
            else
                b = static_cast<uint8_t>(random());
        }
        return record;
    };
    std::vector<std::string> locales = {"C", "C.UTF-8"};
    const std::string latin1 = obx_test::latin1_locale_name();
    if (!latin1.empty()) locales.push_back(latin1);
    int failures_seen = 0;
    for (const std::string& name : locales) {
        obx_test::CtypeLocale locale(name.c_str());
        if (!locale.ok()) continue;
        for (int i = 0; i < 600; ++i) {
            obx_test::SlashEscaping escaping(i % 2 == 0);
            const Bytes record = random_record();
            Rendered value;
            ASSERT_TRUE(same_bytes(writer_, rich, record, &value)) << name << " " << hex_of(record);
            if (value.plain == kNone) ++failures_seen;
        }
    }
    // Random doubles are NaN now and then: both outcomes were compared.
    EXPECT_GT(failures_seen, 0);
}

}  // namespace
