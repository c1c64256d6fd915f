#include "utils/string_array.h"

#include <gtest/gtest.h>

namespace {

// Owns an array of `texts` for the length of a test.
struct Array {
    obx_string_array_t* raw = nullptr;  // appending to no array makes one, and each element is a copy
    Array(std::vector<std::string> texts) { for (const auto& text : texts) EXPECT_TRUE(obx_string_array_append(&raw, text.c_str())); }
    Array(const Array&) = delete;
    ~Array() { obx_string_array_destroy(raw); }
};

}  // namespace

// The include and exclude lists of counter names: wildcards, case-insensitive, and "p"
// also selects "p.<anything>".
TEST(StringArray, Match) {
    const struct { std::vector<std::string> patterns; const char* name; bool hit; } rows[] = {
        {{"port"}, "PORT.tx", true}, {{"port"}, "report", false}, {{"port"}, "portx", false}, {{"*"}, "", true},
        {{"x", "eth?", "z"}, "ETH0.rx_bytes", true}};
    for (const auto& row : rows) EXPECT_EQ(obx_string_array_match(row.name, Array(row.patterns).raw, OBX_MATCH_WILDCARD), row.hit) << row.name;
    EXPECT_FALSE(obx_string_array_match("port", nullptr, OBX_MATCH_WILDCARD) || obx_string_array_append(nullptr, "x") ||
                 obx_string_array_match(nullptr, Array({"*"}).raw, OBX_MATCH_WILDCARD));
}

// Every one of `length` bytes is scanned; a zero byte stays in its token, which then ends
// there as a text.
TEST(StringArray, CommaList) {
    const struct {
        std::string bytes;
        std::vector<std::string> elements;
    } rows[] = {
        {"a,,b,", {"a", "b"}},
        {std::string("a\0b,c", 5), {"a", "c"}},
        {std::string(",\0,", 3), {""}},
        {" x ,y", {" x ", "y"}},
        {"", {}},
    };
    for (const auto& row : rows) {
        obx_string_array_t* array = obx_string_array_from_comma_list(row.bytes.data(), row.bytes.size());
        ASSERT_NE(array, nullptr);
        std::vector<std::string> got(array->strings, array->strings + array->count);
        EXPECT_EQ(got, row.elements) << row.bytes;
        obx_string_array_destroy(array);
    }
    obx_string_array_t* cut = obx_string_array_from_comma_list("abc,d", 2);  // only the bytes given
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(std::vector<std::string>(cut->strings, cut->strings + cut->count), std::vector<std::string>{"ab"});
    obx_string_array_destroy(cut);
}
