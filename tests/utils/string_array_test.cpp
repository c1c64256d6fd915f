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
