#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "fixtures/json_value.h"
#include "fixtures/temp_dir.h"
#include "utils/json.h"

using obx_test::json_bytes;
using obx_test::json_parse;
using obx_test::json_text;
using obx_test::JsonPtr;
using obx_test::SlashEscaping;

namespace {

JsonPtr load_vectors(const char* file)
{
    std::string path = std::string(OBX_TEST_DATA_DIR) + "/json/" + file;
    JsonPtr vectors(obx_json_parse_file(path.c_str()));
    EXPECT_TRUE(json_is_array(vectors.get())) << path;
    return vectors;
}

std::string md5_hex(const json_t* value)
{
    char hex[33];
    if (!obx_json_md5_hex(hex, value)) return "<no digest>";
    return hex;
}

std::string reference_format(double number)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%1.17g", number);
    return buffer;
}

std::string our_format(double number)
{
    char buffer[32];
    std::memset(buffer, 'X', sizeof buffer);
    size_t length = obx_json_format_number(buffer, number);
    EXPECT_EQ(length, std::strlen(buffer)) << "length or terminator wrong for " << reference_format(number);
    return std::string(buffer, length);
}

}  // namespace

// Every reference case: parse, print both ways, hash the pretty text, and read the
// pretty text back to the same value.
TEST(JsonVectors, TextPrintsByteForByte)
{
    SlashEscaping off(false);
    JsonPtr vectors = load_vectors("json_text_vectors.json");
    ASSERT_GT(json_array_size(vectors.get()), 0u);
    for (size_t i = 0; i < json_array_size(vectors.get()); ++i) {
        const json_t* vector = json_array_get(vectors.get(), i);
        SCOPED_TRACE(obx_json_object_get_string(vector, "name"));
        std::string input = json_bytes(json_object_get(vector, "input"));
        std::string pretty = json_bytes(json_object_get(vector, "pretty"));
        JsonPtr value(obx_json_parse_buffer(input.data(), input.size()));
        ASSERT_NE(value, nullptr) << input;
        EXPECT_EQ(json_text(value.get(), true), pretty);
        EXPECT_EQ(json_text(value.get(), false), json_bytes(json_object_get(vector, "plain")));
        EXPECT_EQ(md5_hex(value.get()), obx_json_object_get_string(vector, "pretty_md5"));
        JsonPtr reread(obx_json_parse_buffer(pretty.data(), pretty.size()));
        EXPECT_EQ(json_text(reread.get(), true), pretty);
    }
}

TEST(JsonVectors, ValidateGivesReferenceResult)
{
    JsonPtr vectors = load_vectors("json_validate_vectors.json");
    ASSERT_GT(json_array_size(vectors.get()), 0u);
    for (size_t i = 0; i < json_array_size(vectors.get()); ++i) {
        const json_t* vector = json_array_get(vectors.get(), i);
        SCOPED_TRACE(obx_json_object_get_string(vector, "name"));
        const json_t* valid = json_object_get(vector, "valid");
        ASSERT_TRUE(json_is_boolean(valid));
        EXPECT_EQ(obx_json_validate(json_object_get(vector, "template"), json_object_get(vector, "value")),
                  json_is_true(valid));
    }
}

TEST(JsonValidate, CasesBeyondTheVectors)
{
    // Jansson's integer and true/false types are one JSON kind each.
    JsonPtr number_template = json_parse("{\"n\":0,\"b\":true}");
    JsonPtr made(json_object());
    json_object_set_new(made.get(), "n", json_integer(7));
    json_object_set_new(made.get(), "b", json_false());
    EXPECT_TRUE(obx_json_validate(number_template.get(), made.get()));

    struct Case {
        const char* json_template;
        const char* value;
        bool valid;
    } cases[] = {
        {"{\"a\":null,\"b\":null}", "{\"a\":1}", false},          // fewer members than the template
        {"{\"a\":null,\"b\":null}", "{\"a\":1,\"c\":2}", false},  // enough members, one key missing
        {"{\"a\":{\"b\":{\"c\":\"\"}}}", "{\"a\":{\"b\":{\"c\":1}}}", false},
        {"{\"a\":{\"b\":{\"c\":\"\"}}}", "{\"a\":{\"b\":{\"c\":\"x\",\"d\":1}}}", true},
        {"[[0]]", "[[1,2],[],[3]]", true},
        {"[[0]]", "[[1,2],[\"x\"]]", false},
        {"[]", "{}", false},
        {"null", "null", true},
        {"0", "null", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.json_template) + " / " + c.value);
        JsonPtr json_template = json_parse(c.json_template);
        JsonPtr value = json_parse(c.value);
        EXPECT_EQ(obx_json_validate(json_template.get(), value.get()), c.valid);
    }
    EXPECT_FALSE(obx_json_validate(nullptr, made.get()));
    EXPECT_FALSE(obx_json_validate(number_template.get(), nullptr));
}

TEST(JsonText, SlashEscapingFollowsTheSwitch)
{
    struct Case {
        const char* input;
        const char* escaped;
        const char* plain;
    } cases[] = {
        {"\"/usr/lib/\"", "\"\\/usr\\/lib\\/\"", "\"/usr/lib/\""},
        {"\"\\/dev\"", "\"\\/dev\"", "\"/dev\""},
        {"{\"a/b\":[\"/\"]}", "{\"a\\/b\":[\"\\/\"]}", "{\"a/b\":[\"/\"]}"},
    };
    EXPECT_TRUE(obx_json_escape_slashes()) << "escaping must be on until turned off";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.input);
        JsonPtr value = json_parse(c.input);
        {
            SlashEscaping on(true);
            EXPECT_EQ(json_text(value.get()), c.escaped);
        }
        {
            SlashEscaping off(false);
            EXPECT_FALSE(obx_json_escape_slashes());
            EXPECT_EQ(json_text(value.get()), c.plain);
        }
    }
    // The schema id is taken over the text, so the switch changes it.
    JsonPtr path = json_parse("{\"p\":\"/a\"}");
    std::string with_escape = md5_hex(path.get());
    SlashEscaping off(false);
    EXPECT_NE(md5_hex(path.get()), with_escape);
}

TEST(JsonText, StringBytesEscapedOrPassedThrough)
{
    struct Case {
        std::string bytes;
        const char* expected;
    } cases[] = {
        {std::string("\0", 1), "\"\\u0000\""},
        {"\x1f\x0b\x1b", "\"\\u001f\\u000b\\u001b\""},
        {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
        {"q\"b\\", "\"q\\\"b\\\\\""},
        {"\x7f\x80\xff ~", "\"\x7f\x80\xff ~\""},  // DEL and high bytes stay raw, valid or not
        {"", "\"\""},
    };
    SlashEscaping off(false);
    for (const Case& c : cases) {
        std::string out = "prefix";
        obx_json_append_string(out, c.bytes.data(), c.bytes.size());
        EXPECT_EQ(out, std::string("prefix") + c.expected);
    }
    // Keys and values are printed by length, so an inner NUL does not cut them.
    JsonPtr object(json_object());
    json_object_setn_new(object.get(), "k\0y", 3, obx_json_stringn("v\0w", 3));
    EXPECT_EQ(json_text(object.get()), "{\"k\\u0000y\":\"v\\u0000w\"}");
}

TEST(JsonText, IntegersPrintAsDoublesAndDepthIndents)
{
    JsonPtr integers(json_array());
    json_array_append_new(integers.get(), json_integer(INT64_MAX));
    json_array_append_new(integers.get(), json_integer(-5));
    EXPECT_EQ(json_text(integers.get()), "[9.2233720368547758e+18,-5]");

    JsonPtr nested = json_parse("{\"a\":[1,{}],\"b\":{\"c\":null}}");
    std::string out = "x";
    ASSERT_TRUE(obx_json_append_value(out, nested.get(), true, 1));
    EXPECT_EQ(out,
              "x{\n        \"a\": [\n            1,\n            {}\n        ],\n"
              "        \"b\": {\n            \"c\": null\n        }\n    }");
}

TEST(JsonText, RefusedValuesLeaveNoText)
{
    std::string out = "kept";
    EXPECT_FALSE(obx_json_append_value(out, nullptr, false, 0));
    EXPECT_EQ(out, "kept");
    EXPECT_EQ(obx_json_serialize_to_string(nullptr), nullptr);
    EXPECT_EQ(obx_json_serialize_to_string_pretty(nullptr), nullptr);
    unsigned char digest[16];
    EXPECT_FALSE(obx_json_md5(digest, nullptr));

    // A value that contains itself has no text; the printer must stop, not recurse away.
    json_t* outer = json_array();
    json_t* inner = json_array();
    json_array_append_new(outer, inner);
    json_array_append(inner, outer);
    EXPECT_FALSE(obx_json_append_value(out, outer, true, 0));
    EXPECT_EQ(out, "kept");
    EXPECT_EQ(obx_json_serialize_to_string(outer), nullptr);
    json_array_clear(inner);
    json_decref(outer);
}

TEST(JsonParse, AcceptsAndRefuses)
{
    struct Case {
        const char* name;
        std::string input;
        const char* plain;  // nullptr: refused
    } cases[] = {
        {"duplicate key", "{\"a\":1,\"a\":2}", nullptr},
        {"nested duplicate key", "[{\"o\":{\"k\":1,\"k\":1}}]", nullptr},
        {"overflow", "1e400", nullptr},
        {"negative overflow", "[-1e400]", nullptr},
        {"just above the largest double", "1.8e308", nullptr},
        {"underflow reads as zero", "1e-400", "0"},
        {"integer beyond 64 bits is a double", "123456789012345678901234567890", "1.2345678901234568e+29"},
        {"negative zero integer", "-0", "-0"},
        {"byte order mark", "\xEF\xBB\xBF{\"a\":1}", "{\"a\":1}"},
        {"bare scalar", " 42 ", "42"},
        {"nan literal", "NaN", nullptr},
        {"infinity literal", "[Infinity]", nullptr},
        {"trailing comma", "[1,]", nullptr},
        {"trailing text", "{} x", nullptr},
        {"two values", "1 2", nullptr},
        {"empty", "", nullptr},
        {"blanks only", " \n", nullptr},
        {"single quotes", "['a']", nullptr},
        {"comment", "/* c */ 1", nullptr},
        {"invalid UTF-8", "\"\xff\"", nullptr},
        {"overlong UTF-8", "\"\xc0\xaf\"", nullptr},
        {"lone surrogate escape", "\"\\ud800\"", nullptr},
        {"NUL in a key", "{\"a\\u0000\":1}", nullptr},
        {"raw control byte in a string", "\"a\tb\"", nullptr},
        {"raw NUL byte at the end", std::string("1\0", 2), nullptr},
        {"raw NUL byte inside", std::string("[1,\0 2]", 7), nullptr},
        {"unterminated string", "\"abc", nullptr},
        {"unterminated object", "{\"a\":1", nullptr},
        {"too deep", std::string(3000, '[') + std::string(3000, ']'), nullptr},
        {"NUL escape in a string", "\"a\\u0000b\"", "\"a\\u0000b\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        JsonPtr value(obx_json_parse_buffer(c.input.data(), c.input.size()));
        if (!c.plain) {
            EXPECT_EQ(value, nullptr) << json_text(value.get());
            continue;
        }
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(json_text(value.get()), c.plain);
    }
    JsonPtr with_nul = json_parse("\"a\\u0000b\"");
    EXPECT_EQ(json_bytes(with_nul.get()), std::string("a\0b", 3));
    EXPECT_TRUE(std::signbit(obx_json_number_value(json_parse("-0.0").get())));
    EXPECT_EQ(obx_json_parse_string(nullptr), nullptr);
    EXPECT_EQ(obx_json_parse_buffer(nullptr, 0), nullptr);
}

TEST(JsonParse, Files)
{
    obx_test::TempDir dir;
    std::ofstream(dir.file("good.json"), std::ios::binary) << "{\"b\":[1,2],\"a\":\"x\"}\n";
    std::ofstream(dir.file("bad.json"), std::ios::binary) << "{\"b\":";
    JsonPtr good(obx_json_parse_file(dir.file("good.json").c_str()));
    EXPECT_EQ(json_text(good.get()), "{\"b\":[1,2],\"a\":\"x\"}");
    EXPECT_EQ(obx_json_parse_file(dir.file("bad.json").c_str()), nullptr);
    EXPECT_EQ(obx_json_parse_file(dir.file("missing.json").c_str()), nullptr);
    EXPECT_EQ(obx_json_parse_file(dir.path().c_str()), nullptr);
    EXPECT_EQ(obx_json_parse_file(nullptr), nullptr);
}

TEST(JsonMakers, RefuseWhatHasNoJsonForm)
{
    const double refused_numbers[] = {NAN, -NAN, INFINITY, -INFINITY};
    for (double number : refused_numbers) EXPECT_EQ(obx_json_number(number), nullptr) << number;
    const double kept_numbers[] = {DBL_MAX, -DBL_MAX, 5e-324, -0.0};
    for (double number : kept_numbers) {
        JsonPtr value(obx_json_number(number));
        ASSERT_NE(value, nullptr);
        EXPECT_TRUE(json_is_real(value.get()));
        double kept = json_real_value(value.get());
        EXPECT_EQ(std::memcmp(&number, &kept, sizeof number), 0);
    }

    const std::string refused_texts[] = {
        "\xff",                // never a UTF-8 byte
        "a\x80",               // stray continuation byte
        "\xc0\xaf",            // overlong '/'
        "\xed\xa0\x80",        // surrogate half
        "\xe2\x82",            // cut short
        "\xf4\x90\x80\x80",    // above U+10FFFF
    };
    for (const std::string& text : refused_texts) {
        EXPECT_EQ(obx_json_stringn(text.data(), text.size()), nullptr);
        EXPECT_EQ(obx_json_string(text.c_str()), nullptr);
    }
    EXPECT_EQ(obx_json_string(nullptr), nullptr);
    EXPECT_EQ(obx_json_stringn(nullptr, 0), nullptr);

    JsonPtr with_nul(obx_json_stringn("a\0\xc3\xa9", 4));
    EXPECT_EQ(json_bytes(with_nul.get()), std::string("a\0\xc3\xa9", 4));
    JsonPtr empty(obx_json_string(""));
    EXPECT_EQ(json_text(empty.get()), "\"\"");
}

TEST(JsonSet, ReplacesInPlaceAndAppendsNew)
{
    JsonPtr object = json_parse("{\"a\":1,\"b\":2,\"c\":3}");
    EXPECT_TRUE(obx_json_object_set_number(object.get(), "b", 9));
    EXPECT_TRUE(obx_json_object_set_string(object.get(), "d", "new"));
    EXPECT_TRUE(obx_json_object_set(object.get(), "a", json_object()));
    EXPECT_EQ(json_text(object.get()), "{\"a\":{},\"b\":9,\"c\":3,\"d\":\"new\"}");

    // Every refusal frees the value it was given (the leak checker watches) and leaves
    // the object as it was.
    const std::string before = json_text(object.get());
    JsonPtr array(json_array());
    EXPECT_FALSE(obx_json_object_set(array.get(), "k", json_true()));
    EXPECT_FALSE(obx_json_object_set(nullptr, "k", obx_json_string("v")));
    EXPECT_FALSE(obx_json_object_set(object.get(), nullptr, obx_json_string("v")));
    EXPECT_FALSE(obx_json_object_set(object.get(), "bad\xff", obx_json_string("v")));
    EXPECT_FALSE(obx_json_object_set(object.get(), "k", nullptr));
    EXPECT_FALSE(obx_json_object_set_number(object.get(), "b", NAN));
    EXPECT_FALSE(obx_json_object_set_string(object.get(), "b", nullptr));
    EXPECT_FALSE(obx_json_object_set_string(object.get(), "b", "\xff"));
    EXPECT_EQ(json_text(object.get()), before);

    EXPECT_TRUE(obx_json_array_append(array.get(), obx_json_number(1)));
    EXPECT_FALSE(obx_json_array_append(object.get(), obx_json_number(2)));
    EXPECT_FALSE(obx_json_array_append(array.get(), nullptr));
    EXPECT_EQ(json_text(array.get()), "[1]");
}

TEST(JsonSet, DottedNames)
{
    struct Case {
        const char* start;
        const char* name;
        const char* value;
        const char* expected;  // nullptr: refused and unchanged
    } cases[] = {
        {"{}", "a.b.c", "1", "{\"a\":{\"b\":{\"c\":1}}}"},
        {"{\"x\":0}", "a.b", "1", "{\"x\":0,\"a\":{\"b\":1}}"},
        {"{\"a\":{\"k\":0},\"z\":0}", "a.b.c", "1", "{\"a\":{\"k\":0,\"b\":{\"c\":1}},\"z\":0}"},
        {"{\"a\":{\"b\":{\"c\":0,\"d\":1}}}", "a.b.c", "5", "{\"a\":{\"b\":{\"c\":5,\"d\":1}}}"},
        {"{\"a\":1,\"b\":2}", "a", "{\"n\":1}", "{\"a\":{\"n\":1},\"b\":2}"},
        {"{\"z\":1}", "b", "[]", "{\"z\":1,\"b\":[]}"},
        {"{\"a\":1}", "a.b", "2", nullptr},
        {"{\"a\":{\"b\":\"s\"}}", "a.b.c", "2", nullptr},
        {"{\"a\":[]}", "a.b", "2", nullptr},
        {"{\"a\":null}", "a.b", "2", nullptr},
        {"{}", "a.\xff", "1", nullptr},          // bad leaf key: the new branch is dropped
        {"{\"a\":{}}", "a.b.\xff.c", "1", nullptr},  // bad inner key below an existing object
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.start) + " " + c.name);
        JsonPtr object = json_parse(c.start);
        bool ok = obx_json_object_dotset_value(object.get(), c.name, json_parse(c.value).release());
        EXPECT_EQ(ok, c.expected != nullptr);
        EXPECT_EQ(json_text(object.get()), c.expected ? c.expected : c.start);
    }

    JsonPtr object = json_parse("{}");
    EXPECT_TRUE(obx_json_object_dotset_string(object.get(), "tags.host", "n1"));
    EXPECT_TRUE(obx_json_object_dotset_string(object.get(), "tags.host", "n2"));
    EXPECT_FALSE(obx_json_object_dotset_string(object.get(), "tags.port", nullptr));
    EXPECT_FALSE(obx_json_object_dotset_value(object.get(), nullptr, json_null()));
    EXPECT_EQ(json_text(object.get()), "{\"tags\":{\"host\":\"n2\"}}");
}

TEST(JsonGet, TypedGetters)
{
    JsonPtr object = json_parse("{\"s\":\"t\",\"n\":2.5,\"a\":[],\"o\":{},\"b\":false,\"z\":null}");
    const json_t* o = object.get();
    EXPECT_STREQ(obx_json_object_get_string(o, "s"), "t");
    EXPECT_EQ(obx_json_object_get_string(o, "n"), nullptr);
    EXPECT_EQ(obx_json_object_get_string(o, "missing"), nullptr);
    EXPECT_EQ(obx_json_object_get_number(o, "n"), 2.5);
    EXPECT_EQ(obx_json_object_get_number(o, "s"), 0);
    EXPECT_NE(obx_json_object_get_array(o, "a"), nullptr);
    EXPECT_EQ(obx_json_object_get_array(o, "o"), nullptr);
    EXPECT_NE(obx_json_object_get_object(o, "o"), nullptr);
    EXPECT_EQ(obx_json_object_get_object(o, "a"), nullptr);
    EXPECT_EQ(obx_json_object_get_string(nullptr, "s"), nullptr);
    EXPECT_EQ(obx_json_object_get_number(json_parse("[1]").get(), "n"), 0);

    struct Case {
        const char* key;
        json_type type;
        bool has;
    } cases[] = {
        {"n", JSON_REAL, true},   {"n", JSON_INTEGER, true}, {"b", JSON_TRUE, true},
        {"b", JSON_FALSE, true},  {"z", JSON_NULL, true},    {"s", JSON_OBJECT, false},
        {"n", JSON_STRING, false}, {"missing", JSON_NULL, false},
    };
    for (const Case& c : cases) EXPECT_EQ(obx_json_object_has_value_of_type(o, c.key, c.type), c.has) << c.key;
}

TEST(JsonMd5, DigestOfPrettyText)
{
    JsonPtr empty = json_parse("{}");
    EXPECT_EQ(md5_hex(empty.get()), "99914b932bd37a50b983c5e7c90ae93b");
    unsigned char digest[16];
    ASSERT_TRUE(obx_json_md5(digest, empty.get()));
    EXPECT_EQ(digest[0], 0x99);
    EXPECT_EQ(digest[15], 0x3b);
    // Pretty, not plain: "{\n    \"a\": 1\n}".
    EXPECT_EQ(md5_hex(json_parse("{\"a\":1}").get()), "b5af70a852f3fdc4c2006d557a83ee8a");
}

TEST(JsonNumber, FormatTable)
{
    struct Case {
        double number;
        const char* expected;  // nullptr: only compared against snprintf
    } cases[] = {
        {0.0, "0"},
        {-0.0, "-0"},
        {0.1, "0.10000000000000001"},
        {0.5, "0.5"},
        {1e-5, "1.0000000000000001e-05"},
        {1e16, "10000000000000000"},
        {1e17, "1e+17"},
        {-1e17, "-1e+17"},
        {99999999999999984.0, "99999999999999984"},  // largest double below 1e17
        {9007199254740993.0, "9007199254740992"},
        {18446744073709551615.0, "1.8446744073709552e+19"},
        {1700000001000000.0, "1700000001000000"},
        {-42.0, "-42"},
        {-9007199254740991.0, "-9007199254740991"},
        {123456789012345678.0, "1.2345678901234568e+17"},
        {1e15 + 0.5, "1000000000000000.5"},
        {5e-324, "4.9406564584124654e-324"},
        {2.2250738585072009e-308, nullptr},  // largest denormal
        {1e-310, nullptr},
        {1e308, "1e+308"},
        {DBL_MAX, "1.7976931348623157e+308"},
        {-DBL_MAX, "-1.7976931348623157e+308"},
        {9.0, "9"},
        {10.0, "10"},
        {99.0, "99"},
        {100.0, "100"},
    };
    for (const Case& c : cases) {
        std::string ours = our_format(c.number);
        EXPECT_EQ(ours, reference_format(c.number));
        if (c.expected) {
            EXPECT_EQ(ours, c.expected);
        }
    }
    std::string out = "[";
    obx_json_append_number(out, -0.0);
    obx_json_append_number(out, 2.5);
    EXPECT_EQ(out, "[-02.5");
}

// Random doubles of every magnitude and random integers around the digit path's edges
// must come out exactly as snprintf writes them.
TEST(JsonNumber, MatchesSnprintfOnRandomValues)
{
    std::mt19937_64 random(20240301);
    int mismatches = 0;
    auto check = [&](double number) {
        if (!std::isfinite(number)) return;
        if (our_format(number) != reference_format(number) && ++mismatches <= 10)
            ADD_FAILURE() << "mismatch for " << reference_format(number) << ": " << our_format(number);
    };
    for (int i = 0; i < 200000; ++i) {
        uint64_t bits = random();
        double number;
        std::memcpy(&number, &bits, sizeof number);
        check(number);
        // Integers of 1 to 18 digits, both signs.
        uint64_t limit = 1;
        for (int digits = static_cast<int>(random() % 18) + 1; digits > 0; --digits) limit *= 10;
        double integer = static_cast<double>(random() % limit);
        check((random() & 1) ? -integer : integer);
        check(integer + 0.5);
        check(integer / 1024);
    }
    for (double power = 1; power < 1e19; power *= 10) {
        check(power);
        check(std::nextafter(power, 0));
        check(std::nextafter(power, 1e300));
        check(-power);
    }
    EXPECT_EQ(mismatches, 0);
}
