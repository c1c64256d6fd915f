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

// The narrow parsers: strtoull, then their upper bound; the int parser works on a copy of
// `length` bytes and keeps to 32 bits.
TEST(NumberParse, NarrowWidthsAndBoundedText) {
    check_rows<uint8_t>(obx_str_to_uint8, {{"255", true, 255}, {"256", false, 0}, {"0xff", true, 255}, {"-0", true, 0}, {"", false, 0}});
    check_rows<uint16_t>(obx_str_to_uint16, {{"65535", true, 65535}, {"65536", false, 0}, {"0177777", true, 65535}, {"1 ", false, 0}});
    check_rows<uint32_t>(obx_str_to_uint32, {{"4294967295", true, 4294967295u}, {"4294967296", false, 0}, {"x", false, 0}});
    check_rows<uint64_t>(obx_str_to_uint64, {{"18446744073709551615", true, UINT64_MAX}, {"18446744073709551616", false, 0}});
    check_rows<unsigned long>(obx_str_to_ulong, {{"18446744073709551615", true, ULONG_MAX}, {"18446744073709551616", false, 0}});
    check_rows<long long>(obx_str_to_longlong, {{"-9223372036854775808", true, LLONG_MIN}, {"-9223372036854775809", false, 0}});
    const struct { const char* text; size_t length; bool ok; int value; } ints[] = {
        {"2147483647", 10, true, INT_MAX}, {"2147483648", 10, false, 0}, {"-2147483648", 11, true, INT_MIN},
        {"-2147483649", 11, false, 0}, {"12345", 3, true, 123}, {"12x", 2, true, 12}, {"12x", 3, false, 0}, {"", 0, false, 0},
    };
    for (const auto& c : ints) {
        int out = 77;
        EXPECT_EQ(obx_strn_to_int(c.text, c.length, &out), c.ok) << c.text << " " << c.length;
        EXPECT_EQ(out, c.ok ? c.value : 77) << c.text;
    }
}

