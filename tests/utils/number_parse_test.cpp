#include "utils/number_parse.h"

#include <gtest/gtest.h>

#include <climits>

// Each row parses `text`; on failure the output must stay untouched.
template <typename T>
static void check_rows(bool (*parse)(const char*, T*), std::initializer_list<std::tuple<const char*, bool, T>> rows) {
    for (const auto& [text, ok, value] : rows) {
        T out = 77;
        EXPECT_EQ(parse(text, &out), ok) << (text ? text : "<null>");
        EXPECT_EQ(out, ok ? value : 77) << (text ? text : "<null>");
    }
}

// The two parsers of command-line numbers: -v and timestamps.
TEST(NumberParse, SignedAndUnsigned) {
    // Base 0 (hex, octal, decimal); whole text only; overflow refused.
    check_rows<long>(obx_str_to_long, {{"-42", true, -42}, {"0x10", true, 16}, {"010", true, 8}, {"08", false, 0}, {"0x", false, 0},
                                       {"9223372036854775807", true, LONG_MAX}, {"9223372036854775808", false, 0},
                                       {"-9223372036854775809", false, 0}, {"", false, 0}, {"12a", false, 0}, {"12 ", false, 0},
                                       {nullptr, false, 0}});
    // "-1" is taken: strtoull wraps it without an error.
    check_rows<unsigned long long>(obx_str_to_ulonglong, {{"18446744073709551615", true, ULLONG_MAX}, {"-1", true, ULLONG_MAX},
                                                          {"18446744073709551616", false, 0}, {"1e3", false, 0}, {nullptr, false, 0}});
    EXPECT_FALSE(obx_str_to_long("1", nullptr));
}
