// Event records through the value path (obx_event_to_json printed, obx_influx_serialize_event)
// and through the direct writer that obx_read uses: the same bytes in every form and the
// same log lines, and the texts they must be.
#include "serializers/event_text_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "data/schema/event_json.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "fixtures/byte_writer.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "serializers/influx_serializer.h"
#include "utils/json.h"

namespace {

using namespace obx_test;

struct Field { std::string name, type; uint16_t length = 1; };

// Types registered packed on top of the built-ins, so that records are the field values one
// after the other (registration refuses empty arrays: such a field is emptied afterwards),
// and a direct writer.
class Types {
public:
    Types() { EXPECT_TRUE(obx_schema_register_built_in_types(built_ins_)); schema_->base_schema = built_ins_; }
    ~Types() { obx_event_text_writer_destroy(writer); obx_schema_destroy(schema_); obx_schema_destroy(built_ins_); }
    obx_type_definition_t* add(const std::vector<Field>& fields, std::string name = "")
    {
        if (name.empty()) name = "t" + std::to_string(++unnamed_);
        std::vector<obx_type_field_info_t> infos;
        for (const Field& f : fields) infos.push_back({f.name.c_str(), "", f.type.c_str(), 0, std::max<uint16_t>(f.length, 1)});
        uint8_t index = 0;
        if (obx_schema_add_type(schema_, name.c_str(), infos.data(), infos.size(), &index) != OBX_SCHEMA_OK) throw std::runtime_error(name);
        obx_type_definition_t* type = schema_->types[index];
        type->size = 0;
        for (size_t i = 0; i < fields.size(); type->size += fields[i].length * type->fields[i]->type_size, ++i)
            std::tie(type->fields[i]->array_length, type->fields[i]->offset) = std::make_pair(fields[i].length, type->size);
        return type;
    }

    obx_event_text_writer_t* const writer = obx_event_text_writer_create();

private:
    obx_schema_t* built_ins_ = obx_schema_create("<built-in>", 1281);
    obx_schema_t* schema_ = obx_schema_create("test_provider", 0x10001);
    int unnamed_ = 0;
};

struct Texts { std::string pretty, plain, influx, log; };

// The value path's texts of a record, zero-padded to its type's size ("<none>" for one that
// failed). Each direct form must be the same, appended behind earlier text that a failure
// leaves exactly as it was.
Texts rendered(obx_event_text_writer_t* writer, const obx_type_definition_t* type, Bytes record)
{
    record.resize(std::max<size_t>({type->size, record.size(), 1}));
    std::string value[4], direct[4];
    {
        LogCapture log;
        for (bool pretty : {true, false}) {
            const JsonPtr event(obx_event_to_json(type, record.data()));
            value[!pretty] = event ? json_text(event.get(), pretty) : "<none>";
        }
        char* influx = obx_influx_serialize_event(type, record.data());
        value[2] = influx ? influx : "<none>";
        obx_influx_free_text(influx);
        value[3] = log.all();
    }
    LogCapture log;
    const std::string before = "earlier record,\n";
    for (int form = 0; form < 3; ++form) {
        obx_event_text_writer_clear(writer);
        obx_event_text_writer_append_bytes(writer, before.data(), before.size());
        const bool ok = obx_event_text_writer_append_event(writer, obx_event_text_form_t(form), type, record.data());
        const std::string all(obx_event_text_writer_data(writer), obx_event_text_writer_size(writer));
        direct[form] = all.compare(0, before.size(), before) != 0 ? "<earlier text changed>"
                       : ok ? all.substr(before.size()) : all == before ? "<none>" : "<failure left bytes>";
    }
    direct[3] = log.all();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(direct[i], value[i]) << "form " << i;
    return {value[0], value[1], value[2], value[3]};
}

// Whole records by kind, plain JSON and Influx, in the C and UTF-8 locales and both slash
// settings. Text ends at the first byte the locale does not call printable, classified as
// a signed char, so in both locales at any byte above 127.
TEST(EventTexts, RecordsByKind)
{
    Types types;
    types.add({{"lid", "uint16_t"}}, "peer");
    types.add({{"up", "bool"}}, "lane");
    types.add({{"peer", "peer"}, {"x", "double"}}, "deep");
    types.add({{"x", "int"}}, "inner");
    types.add({{"inner", "inner", 2}}, "outer");
    obx_type_definition_t* hollow = types.add({{"h", "int"}}, "hollow");
    hollow->num_fields = 0;  // a composite without fields
    std::vector<Field> every_built_in, text8 = {{"s", "char", 8}, {"n", "int16_t"}};
    for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id) every_built_in.push_back({"f" + std::to_string(id), obx_built_in_type_name(id)});
    auto s8 = [](const std::string& text) { return ByteWriter().fixed(text, 8).i16(-2).take(); };
    struct Row { std::vector<Field> fields; Bytes record; std::string plain, influx; };
    const Row rows[] = {
        {every_built_in, ByteWriter().u8(2).u8(0x80).u16(0x8000).u32(~0u).u64(1ull << 63).u64(~1ull).u8(0xff).u16(0xffff).u32(~0u).u64(~0ull).u64(~0ull).f32(1.5f).f64(2.5e-6).i8(-7).i16(-300).i32(123456).u64(~0ull >> 1).u8(200).u16(40000).u32(3000000000u).u64(1ull << 63).u64(1700000000123456).take(), R"({"f1":2,"f2":-128,"f3":-32768,"f4":-1,"f5":-9.2233720368547758e+18,"f6":-2,"f7":255,"f8":65535,"f9":4294967295,"f10":1.8446744073709552e+19,"f11":1.8446744073709552e+19,"f12":1.5,"f13":2.5000000000000002e-06,"f14":-7,"f15":-300,"f16":123456,"f17":9.2233720368547758e+18,"f18":200,"f19":40000,"f20":3000000000,"f21":9.2233720368547758e+18,"f22":1700000000123456})", "f1=true,f2=-128i,f3=-32768i,f4=-1i,f5=-9223372036854775808i,f6=-2i,f7=255i,f8=65535i,f9=4294967295i,f10=18446744073709551615i,f11=18446744073709551615i,f12=1.500000,f13=0.000003,f14=-7i,f15=-300i,f16=123456i,f17=9223372036854775807i,f18=200i,f19=40000i,f20=3000000000i,f21=9223372036854775808i,f22=1700000000123456i"},
        {{{"a", "int64_t"}, {"b", "uint64_t"}, {"t", "timestamp"}}, ByteWriter().u64((1ull << 53) + 1).u64(99999999999999999).u64(1700000000000001).take(), R"({"a":9007199254740992,"b":1e+17,"t":1700000000000001})", "a=9007199254740993i,b=99999999999999999i,t=1700000000000001i"},
        {{{"f", "float"}, {"d", "double"}, {"z", "double"}, {"m", "double"}}, ByteWriter().f32(0.1f).f64(0.1).f64(-0.0).f64(DBL_TRUE_MIN).take(), R"({"f":0.10000000149011612,"d":0.10000000000000001,"z":-0,"m":4.9406564584124654e-324})", "f=0.100000,d=0.100000,z=-0.000000,m=0.000000"},
        // Empty arrays; number arrays (also of 8-bit types) leave no Influx field; char[1] is a number.
        {{{"s", "unsigned char", 0}, {"a", "int", 0}, {"n", "int"}}, ByteWriter().i32(3).take(), R"({"s":"","a":[],"n":3})", "s=\"\",n=3i"},
        {{{"a", "uint8_t", 3}, {"b", "int8_t", 2}, {"k", "char", 1}, {"u", "unsigned char", 3}}, ByteWriter().text("\x01\x02\xff\xff" "AAhi\x80").take(), R"({"a":[1,2,255],"b":[-1,65],"k":65,"u":"hi"})", "k=65i,u=\"hi\""},
        // Nesting: an array inside a composite has no dot between the two names in Influx.
        {{{"d", "deep"}, {"l", "lane", 2}, {"o", "outer"}}, ByteWriter().u16(9).f64(0.25).u8(1).u8(0).i32(1).i32(2).take(), R"({"d":{"peer":{"lid":9},"x":0.25},"l":[{"up":1},{"up":0}],"o":{"inner":[{"x":1},{"x":2}]}})", "d.peer.lid=9i,d.x=0.250000,l.0.up=true,l.1.up=false,oinner.0.x=1i,oinner.1.x=2i"},
        {{{"h", "hollow"}, {"hs", "hollow", 2}, {"n", "int"}}, ByteWriter().zeros(12).i32(5).take(), R"({"h":{},"hs":[{},{}],"n":5})", "n=5i"},
        // A later duplicate wins in the place of the first in JSON, even a text over a composite.
        {{{"a", "int"}, {"b", "int"}, {"a", "double"}}, ByteWriter().i32(1).i32(2).f64(3.5).take(), R"({"a":3.5,"b":2})", "a=1i,b=2i,a=3.500000"},
        {{{"p", "peer"}, {"n", "int"}, {"p", "char", 4}}, ByteWriter().u16(7).i32(1).text("zz").take(), R"({"p":"zz","n":1})", "p.lid=7i,n=1i,p=\"zz\""},
        // A NaN fails the JSON of the whole event, also when replaced or deep in an array.
        {{{"a", "double"}, {"a", "int"}}, ByteWriter().f64(NAN).i32(3).take(), "<none>", "a=nan,a=3i"},
        {{{"d", "deep", 2}}, ByteWriter().u16(1).f64(1).u16(1).f64(-HUGE_VAL).take(), "<none>", "d.0.peer.lid=1i,d.0.x=1.000000,d.1.peer.lid=1i,d.1.x=-inf"},
        // Text fields: no terminator needed, control bytes, DEL, 0xFF (EOF as a signed char) and
        // UTF-8 end the text; Influx escapes nothing.
        {text8, s8("abcdefgh"), R"({"s":"abcdefgh","n":-2})", "s=\"abcdefgh\",n=-2i"},
        {text8, s8("ab\tcd"), R"({"s":"ab","n":-2})", "s=\"ab\",n=-2i"},
        {text8, s8("ab\xff" "cd"), R"({"s":"ab","n":-2})", "s=\"ab\",n=-2i"},
        {text8, s8("\xC3\xA9t\xC3\xA9"), R"({"s":"","n":-2})", "s=\"\",n=-2i"},
        {{{"p/q", "char", 8}}, ByteWriter().fixed("a\"b\\c/d", 8).take(), R"({"p/q":"a\"b\\c/d"})", "p/q=\"a\"b\\c/d\""},
    };
    std::vector<const obx_type_definition_t*> row_types;  // kept across locales and slash settings, and so their plans
    for (const Row& row : rows) row_types.push_back(types.add(row.fields));
    for (const char* locale : {"C", "C.UTF-8"}) {
        const std::string saved = std::setlocale(LC_CTYPE, nullptr);
        ASSERT_TRUE(std::setlocale(LC_CTYPE, locale));
        for (bool slashes : {false, true}) {
            SlashEscaping escaping(slashes);
            for (const Row& row : rows) {
                SCOPED_TRACE(std::string(locale) + (slashes ? " escaped slashes: " : ": ") + row.plain);
                const Texts texts = rendered(types.writer, row_types[&row - rows], row.record);
                std::string plain = row.plain;
                for (size_t at = 0; slashes && (at = plain.find('/', at)) != std::string::npos; at += 2) plain.insert(at, "\\");
                EXPECT_EQ(texts.plain, plain);
                EXPECT_EQ(texts.influx, row.influx);
            }
        }
        std::setlocale(LC_CTYPE, saved.c_str());
    }
    // A type without fields: {} and an empty field set.
    const Texts texts = rendered(types.writer, hollow, {1});
    EXPECT_EQ(texts.pretty + texts.influx, "{}");
    hollow->num_fields = 1;  // so that the schema frees its field
    // The worked example: the field set that -f influx prints, and the full line.
    const obx_type_definition_t* link = types.add({{"state", "char", 8}, {"speed", "int"}, {"load", "double"}, {"peer", "peer"}, {"lanes", "lane", 2}, {"raw", "uint32_t", 4}}, "link_event");
    const Bytes record = ByteWriter().fixed("up", 8).i32(100).f64(0.5).u16(7).u8(1).u8(0).zeros(16).take();
    const std::string field_set = "state=\"up\",speed=100i,load=0.500000,peer.lid=7i,lanes.0.up=true,lanes.1.up=false";
    EXPECT_EQ(rendered(types.writer, link, record).influx, field_set);
    EXPECT_EQ(obx::data::InfluxSerializer().serializeEventLine({{"rack", "a,b"}, {"host", "node 1"}}, link, record.data(), 1600000000123456),
              "link_event,host=node\\ 1,rack=a\\,b " + field_set + " 1600000000123");
}

}  // namespace

// Escaping by list, and where each list applies in a full line: "=" is escaped in the
// measurement only, a backslash is never doubled, and what was put in is not rescanned.
TEST(EventTexts, InfluxEscapesByPlaceInTheLine)
{
    using obx::data::InfluxSerializer;
    const InfluxSerializer serializer;
    const std::vector<std::string> both = {"a", "ab"};
    const struct { std::string text; std::vector<std::string> list; std::string escaped; } cases[] = {
        {"a=b c", serializer.measurementEscapes(), "a\\=b\\ c"}, {"a=b c", serializer.keyEscapes(), "a=b\\ c"},
        {"x,,y", serializer.keyEscapes(), "x\\,\\,y"}, {"back\\slash", serializer.measurementEscapes(), "back\\slash"},
        {"plain", serializer.measurementEscapes(), "plain"}, {"", serializer.keyEscapes(), ""},
        // Each entry in turn over the text so far: "a" gives \ab, in which "ab" is found again.
        {"ab", both, "\\\\ab"}, {"aa", {"a"}, "\\a\\a"},
    };
    for (const auto& c : cases) EXPECT_EQ(InfluxSerializer::escape(c.text, c.list), c.escaped) << c.text;

    Types types;
    const obx_type_definition_t* type = types.add({{"v", "uint8_t"}}, "a=b c,d");
    const uint8_t record[1] = {4};
    EXPECT_EQ(serializer.serializeEventLine({{"k=1", "a=b c"}}, type, record, 1999), "a\\=b\\ c\\,d,k=1=a=b\\ c v=4i 1");
}

// The faithful Influx form, for what InfluxDB must keep as it is: full floats, no NaN,
// unsigned values past the signed range as floats, arrays of numbers a field per element
// (no dot between the enclosing name and the array's), escaped text and keys, and a
// top-level field named time as time_.
TEST(EventTexts, InfluxFaithfulForm)
{
    Types types;
    types.add({{"time", "timestamp"}, {"x", "double"}}, "inner");
    const obx_type_definition_t* type = types.add({{"time", "timestamp"}, {"d", "double"}, {"n", "float"}, {"u", "uint64_t"},
                                                   {"a", "uint8_t", 2}, {"s", "char", 8}, {"k y", "int"}, {"o", "inner"}});
    const Bytes record = ByteWriter().u64(7).f64(0.1).f32(NAN).u64(~0ull).u8(1).u8(255).fixed("a\"b\\c", 8).i32(-3)
                             .u64(8).f64(-1e300).take();
    obx_event_text_writer_clear(types.writer);
    ASSERT_TRUE(obx_event_text_writer_append_event(types.writer, OBX_EVENT_TEXT_INFLUX_FAITHFUL, type, record.data()));
    EXPECT_EQ(std::string(obx_event_text_writer_data(types.writer), obx_event_text_writer_size(types.writer)),
              "time_=7i,d=0.10000000000000001,u=1.8446744073709552e+19,a.0=1i,a.1=255i,s=\"a\\\"b\\\\c\",k\\ y=-3i,"
              "o.time=8i,o.x=-1.0000000000000001e+300");
    // The value path with the switch on gives the same text.
    obx::data::InfluxSerializer faithful;
    faithful.faithful = true;
    std::string joined;
    for (const std::string& field : faithful.serializeFields(type, record.data(), "")) joined += (joined.empty() ? "" : ",") + field;
    EXPECT_EQ(joined, std::string(obx_event_text_writer_data(types.writer), obx_event_text_writer_size(types.writer)));
}
