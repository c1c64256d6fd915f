#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>

#include "fixtures/json_value.h"
#include "fixtures/temp_dir.h"
#include "utils/json.h"

using namespace obx_test;

// Runs `check` on every case of a reference file in tests/data/json.
template <typename Check>
static void for_each_vector(const char* file, Check check) {
    JsonPtr vectors(obx_json_parse_file((std::string(OBX_TEST_DATA_DIR) + "/json/" + file).c_str()));
    ASSERT_GT(json_array_size(vectors.get()), 0u) << file;
    for (size_t i = 0; i < json_array_size(vectors.get()); ++i) {
        SCOPED_TRACE(obx_json_object_get_string(json_array_get(vectors.get(), i), "name"));
        check(json_array_get(vectors.get(), i));
    }
}

// Every reference case: parse, print both ways, hash the pretty text, read it back.
TEST(JsonVectors, TextPrintsByteForByte) {
    SlashEscaping off(false);
    for_each_vector("json_text_vectors.json", [](const json_t* vector) {
        const std::string input = json_bytes(json_object_get(vector, "input"));
        const std::string pretty = json_bytes(json_object_get(vector, "pretty"));
        JsonPtr value(obx_json_parse_buffer(input.data(), input.size()));
        ASSERT_NE(value, nullptr) << input;
        EXPECT_EQ(json_text(value.get(), true), pretty);
        EXPECT_EQ(json_text(value.get(), false), json_bytes(json_object_get(vector, "plain")));
        char md5[33] = "";
        EXPECT_TRUE(obx_json_md5_hex(md5, value.get()) && std::string(md5) == obx_json_object_get_string(vector, "pretty_md5")) << md5;
        JsonPtr reread(obx_json_parse_buffer(pretty.data(), pretty.size()));
        EXPECT_EQ(json_text(reread.get(), true), pretty);
    });
}

TEST(JsonVectors, ValidateGivesReferenceResult) {
    for_each_vector("json_validate_vectors.json", [](const json_t* vector) {
        const json_t* valid = json_object_get(vector, "valid");
        ASSERT_TRUE(json_is_boolean(valid));
        EXPECT_EQ(obx_json_validate(json_object_get(vector, "template"), json_object_get(vector, "value")),
                  json_is_true(valid));
    });
}

TEST(JsonValidate, CasesBeyondTheVectors) {
    struct Case { JsonPtr json_template, value; bool valid; };
    const Case cases[] = {
        {json_parse("{\"a\":null,\"b\":null}"), json_parse("{\"a\":1,\"c\":2}"), false},  // enough members, one key missing
        {json_parse("[[0]]"), json_parse("[[1,2],[],[3]]"), true}, {json_parse("[[0]]"), json_parse("[[1,2],[\"x\"]]"), false},
        {json_parse("0"), json_parse("null"), false}, {nullptr, json_parse("1"), false}, {json_parse("null"), nullptr, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(obx_json_validate(c.json_template.get(), c.value.get()), c.valid) << json_text(c.json_template.get()) << " / " << json_text(c.value.get());
}

// The vectors hold valid text only; bytes that are not UTF-8 pass through as they are.
TEST(JsonText, StringBytesEscapedOrPassedThrough) {
    struct Case { std::string bytes; const char* expected; };
    const Case cases[] = {
        {std::string("\0\x1f\b\"\\/", 6), "\"\\u0000\\u001f\\b\\\"\\\\/\""}, {"", "\"\""},
        {"\x01\x02", "\"\\u0001\\u0002\""},  // the most room a text can need
        {"\x7f\x80\xff ~", "\"\x7f\x80\xff ~\""},
    };
    SlashEscaping off(false);
    for (const Case& c : cases) {
        std::string out = "prefix";
        obx_json_append_string(out, c.bytes.data(), c.bytes.size());
        EXPECT_EQ(out, std::string("prefix") + c.expected);
        // The direct writer gives the same bytes and stays within the size it announces.
        std::vector<char> buffer(obx_json_string_max_size(c.bytes.size()));
        EXPECT_EQ(std::string(buffer.data(), obx_json_write_string(buffer.data(), c.bytes.data(), c.bytes.size())), c.expected);
    }
    // Keys and values are printed by length, so an inner NUL does not cut them.
    JsonPtr object(json_object());
    json_object_setn_new(object.get(), "k\0/", 3, obx_json_stringn("v\0w", 3));
    EXPECT_EQ(json_text(object.get()), "{\"k\\u0000/\":\"v\\u0000w\"}");
    SlashEscaping on(true);  // parson's default, which the tool turns off
    EXPECT_EQ(json_text(object.get()), "{\"k\\u0000\\/\":\"v\\u0000w\"}");
}

TEST(JsonText, PrettyTextIndentsFromTheGivenDepth) {
    JsonPtr nested = json_parse("{\"a\":[1,{}],\"b\":{\"c\":null}}");
    std::string out = "x";
    ASSERT_TRUE(obx_json_append_value(out, nested.get(), true, 1));
    EXPECT_EQ(out, "x{\n        \"a\": [\n            1,\n            {}\n        ],\n"
                   "        \"b\": {\n            \"c\": null\n        }\n    }");
}

TEST(JsonText, RefusedValuesLeaveNoText) {
    std::string out = "kept";
    EXPECT_FALSE(obx_json_append_value(out, nullptr, false, 0));
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

// The flags and checks of our own around Jansson: duplicates, integers as doubles, any
// value at the top, NUL only as an escape in a string, a byte order mark, strictness.
TEST(JsonParse, AcceptsAndRefuses) {
    struct Case { std::string input; const char* plain; };  // plain nullptr: refused
    const Case cases[] = {
        {"{\"a\":1,\"a\":2}", nullptr}, {"[-1e400]", nullptr}, {"1e-400", "0"}, {"-0", "-0"}, {" 42 ", "42"},
        {"123456789012345678901234567890", "1.2345678901234568e+29"}, {"\xEF\xBB\xBF{\"a\":1}", "{\"a\":1}"},
        {"[Infinity]", nullptr}, {"{} x", nullptr}, {"", nullptr}, {"\"\xff\"", nullptr}, {"\"a\tb\"", nullptr},
        {"{\"a\\u0000\":1}", nullptr}, {"\"a\\u0000b\"", "\"a\\u0000b\""},
        {std::string("1\0", 2), nullptr}, {std::string("[1,\0 2]", 7), nullptr},
        {std::string(3000, '[') + std::string(3000, ']'), nullptr},  // too deep
    };
    for (const Case& c : cases) {
        JsonPtr value(obx_json_parse_buffer(c.input.data(), c.input.size()));
        EXPECT_EQ(json_text(value.get()), c.plain ? c.plain : "<no text>") << c.input.substr(0, 40);
    }
    EXPECT_EQ(obx_json_parse_string(nullptr), nullptr);
}

TEST(JsonParse, FilesAndMakersRefuseWhatHasNoJsonForm) {
    obx_test::TempDir dir;
    std::ofstream(dir.file("bad.json")) << "{\"b\":";
    for (const std::string& path : {dir.file("bad.json"), dir.file("missing.json"), dir.path()})
        EXPECT_EQ(obx_json_parse_file(path.c_str()), nullptr) << path;
    for (double number : {NAN, INFINITY, -INFINITY}) EXPECT_EQ(obx_json_number(number), nullptr) << number;
    EXPECT_TRUE(std::signbit(json_real_value(JsonPtr(obx_json_number(-0.0)).get())));
    EXPECT_TRUE(!obx_json_string("\xc0\xaf") && !obx_json_string(nullptr) && !obx_json_stringn(nullptr, 0));  // overlong '/'
}

TEST(JsonSet, ReplacesInPlaceAppendsNewAndFreesWhatItRefuses) {
    JsonPtr object = json_parse("{\"a\":1,\"b\":2,\"c\":3}");
    JsonPtr array(json_array());
    EXPECT_TRUE(obx_json_object_set_number(object.get(), "b", 9) && obx_json_object_set_string(object.get(), "d", "new") &&
                obx_json_array_append(array.get(), obx_json_number(1)));
    // Each refusal frees the value it was given (the leak checker watches) and changes nothing.
    EXPECT_FALSE(obx_json_object_set(array.get(), "k", json_true()) || obx_json_object_set(object.get(), "bad\xff", obx_json_string("v")) ||
                 obx_json_object_set_number(object.get(), "b", NAN) || obx_json_array_append(object.get(), obx_json_number(2)));
    EXPECT_EQ(json_text(object.get()) + json_text(array.get()), "{\"a\":1,\"b\":9,\"c\":3,\"d\":\"new\"}[1]");
}

TEST(JsonSet, DottedNames) {
    struct Case { const char* start; const char* name; const char* expected; };  // nullptr: refused, nothing changed
    const Case cases[] = {
        {"{\"a\":{\"k\":0},\"z\":0}", "a.b.c", "{\"a\":{\"k\":0,\"b\":{\"c\":1}},\"z\":0}"},
        {"{\"a\":{\"b\":{\"c\":0,\"d\":1}}}", "a.b.c", "{\"a\":{\"b\":{\"c\":1,\"d\":1}}}"},
        {"{\"a\":{\"b\":\"s\"}}", "a.b.c", nullptr},
        {"{}", "a.\xff", nullptr},              // bad leaf key: the new branch is dropped
        {"{\"a\":{}}", "a.b.\xff.c", nullptr},  // bad inner key below an existing object
    };
    for (const Case& c : cases) {
        JsonPtr object = json_parse(c.start);
        EXPECT_EQ(obx_json_object_dotset_value(object.get(), c.name, json_real(1)), c.expected != nullptr);
        EXPECT_EQ(json_text(object.get()), c.expected ? c.expected : c.start) << c.start << " " << c.name;
    }
}
