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
// also selects "p.<anything>". Other modes are the library's, not the tool's.
TEST(StringArray, Match) {
    const struct { std::vector<std::string> patterns; int32_t mode; const char* name; bool hit; } rows[] = {
        {{"port"}, OBX_MATCH_WILDCARD, "PORT.tx", true}, {{"port"}, OBX_MATCH_WILDCARD, "report", false},
        {{"port"}, OBX_MATCH_WILDCARD, "portx", false}, {{"*"}, OBX_MATCH_WILDCARD, "", true},
        {{"x", "eth?", "z"}, OBX_MATCH_WILDCARD, "ETH0.rx_bytes", true},
        {{"rcv"}, OBX_MATCH_CONTAINS, "port_rcv_data", true}, {{"*"}, 7, "port", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(obx_string_array_match(row.name, Array(row.patterns).raw, row.mode), row.hit) << row.mode << " '" << row.name << "'";
    EXPECT_FALSE(obx_string_array_match("port", nullptr, OBX_MATCH_WILDCARD) || obx_string_array_append(nullptr, "x") ||
                 obx_string_array_match(nullptr, Array({"*"}).raw, OBX_MATCH_WILDCARD));
}
