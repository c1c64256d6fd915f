#include <gtest/gtest.h>

#include "fixtures/json_value.h"
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

// Every reference case: parse, print both ways, hash the pretty text.
TEST(JsonVectors, TextPrintsByteForByte) {
    SlashEscaping off(false);
    for_each_vector("json_text_vectors.json", [](const json_t* vector) {
        const std::string input = json_bytes(json_object_get(vector, "input"));
        JsonPtr value(obx_json_parse_buffer(input.data(), input.size()));
        ASSERT_NE(value, nullptr) << input;
        EXPECT_EQ(json_text(value.get(), true), json_bytes(json_object_get(vector, "pretty")));
        EXPECT_EQ(json_text(value.get(), false), json_bytes(json_object_get(vector, "plain")));
        char md5[33] = "";
        EXPECT_TRUE(obx_json_md5_hex(md5, value.get()) && std::string(md5) == obx_json_object_get_string(vector, "pretty_md5")) << md5;
    });
}

TEST(JsonVectors, ValidateGivesReferenceResult) {
    for_each_vector("json_validate_vectors.json", [](const json_t* vector) {
        const json_t* valid = json_object_get(vector, "valid");
        ASSERT_TRUE(json_is_boolean(valid));
        EXPECT_EQ(obx_json_validate(json_object_get(vector, "template"), json_object_get(vector, "value")), json_is_true(valid));
    });
    const JsonPtr two_keys = json_parse("{\"a\":null,\"b\":null}"), other_key = json_parse("{\"a\":1,\"c\":2}");
    EXPECT_FALSE(obx_json_validate(two_keys.get(), other_key.get()));  // enough members, but one key missing
    EXPECT_FALSE(obx_json_validate(nullptr, two_keys.get()) || obx_json_validate(two_keys.get(), nullptr));
}

// The vectors hold valid text only; bytes that are not UTF-8 pass through as they are.
// Both writers (growing string, and a buffer of the announced size) give the same bytes.
TEST(JsonText, StringBytesEscapedOrPassedThrough) {
    const std::pair<std::string, const char*> cases[] = {
        {std::string("\0\x1f\b\"\\/", 6), "\"\\u0000\\u001f\\b\\\"\\\\/\""}, {"\x7f\x80\xff ~", "\"\x7f\x80\xff ~\""},
        {"\x01\x02", "\"\\u0001\\u0002\""}};  // the most room a text can need
    SlashEscaping off(false);
    for (const auto& [bytes, expected] : cases) {
        std::string out = "prefix";
        obx_json_append_string(out, bytes.data(), bytes.size());
        EXPECT_EQ(out, std::string("prefix") + expected);
        std::vector<char> buffer(obx_json_string_max_size(bytes.size()));
        EXPECT_EQ(std::string(buffer.data(), obx_json_write_string(buffer.data(), bytes.data(), bytes.size())), expected);
    }
}

// The flags and checks of our own around Jansson: duplicates, integers as doubles, any
// value at the top, NUL only as an escape in a string, a byte order mark, strictness.
TEST(JsonParse, AcceptsAndRefuses) {
    const std::pair<std::string, const char*> cases[] = {  // nullptr: refused
        {"{\"a\":1,\"a\":2}", nullptr}, {"[-1e400]", nullptr}, {"1e-400", "0"}, {"{} x", nullptr}, {"", nullptr},
        {"123456789012345678901234567890", "1.2345678901234568e+29"}, {"\xEF\xBB\xBF{\"a\":1}", "{\"a\":1}"}, {"\"\xff\"", nullptr},
        {"{\"a\\u0000\":1}", nullptr}, {std::string("1\0", 2), nullptr},
        {std::string(3000, '[') + std::string(3000, ']'), nullptr},  // too deep
    };
    for (const auto& [input, plain] : cases) {
        JsonPtr value(obx_json_parse_buffer(input.data(), input.size()));
        EXPECT_EQ(json_text(value.get()), plain ? plain : "<no text>") << input.substr(0, 40);
    }
    EXPECT_TRUE(!obx_json_parse_string(nullptr) && !obx_json_parse_file(OBX_TEST_DATA_DIR) && !obx_json_parse_file("/no/such.json"));
}

