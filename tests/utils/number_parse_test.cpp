#include "utils/number_parse.h"

#include <gtest/gtest.h>

#include <climits>

// Each row parses `text`; on failure the output must stay untouched.
template <typename T>
struct NumberRow { const char* text; bool ok; T value; };
template <typename T, typename Parse>
static void check_rows(Parse parse, std::initializer_list<NumberRow<T>> rows) {
    for (const NumberRow<T>& row : rows) {
        SCOPED_TRACE(row.text ? row.text : "<null>");
        T out = static_cast<T>(77);
        EXPECT_EQ(parse(row.text, &out), row.ok);
        EXPECT_EQ(out, row.ok ? row.value : static_cast<T>(77));
    }
}

TEST(NumberParse, Signed) {
    check_rows<long>(obx_str_to_long, {{"-42", true, -42}, {"0x10", true, 16}, {"010", true, 8},  // base 0
                                       {"9223372036854775807", true, LONG_MAX}, {"-9223372036854775808", true, LONG_MIN},
                                       {"9223372036854775808", false, 0}, {"-9223372036854775809", false, 0},  // overflow
                                       {"", false, 0}, {"-", false, 0}, {"0x", false, 0},  // "0x" reads "0" and leaves "x"
                                       {"12a", false, 0}, {"12 ", false, 0}, {"1.5", false, 0}, {"08", false, 0}, {nullptr, false, 0}});
    check_rows<long long>(obx_str_to_longlong, {{"-0x10", true, -16}, {"9223372036854775808", false, 0}, {"7 ", false, 0}});
    EXPECT_FALSE(obx_str_to_long("1", nullptr));
}

TEST(NumberParse, Unsigned) {
    check_rows<unsigned long>(obx_str_to_ulong, {{"0xffffffffffffffff", true, ULONG_MAX}, {"18446744073709551616", false, 0}});
    check_rows<unsigned long long>(obx_str_to_ulonglong, {{"-1", true, ULLONG_MAX},  // strtoull wraps without an error
                                                          {"99999999999999999999999", false, 0}, {nullptr, false, 0}});
    check_rows<uint8_t>(obx_str_to_uint8, {{"0xff", true, 255}, {"256", false, 0}, {"-1", false, 0}});
    check_rows<uint16_t>(obx_str_to_uint16, {{"0177777", true, 65535}, {"65536", false, 0}, {"-1", false, 0}});
    check_rows<uint32_t>(obx_str_to_uint32, {{"4294967295", true, UINT32_MAX}, {"0x100000000", false, 0}, {"-1", false, 0}});
    check_rows<uint64_t>(obx_str_to_uint64, {{"18446744073709551615", true, UINT64_MAX}, {"18446744073709551616", false, 0}, {"1e3", false, 0}});
}

TEST(NumberParse, CountedTextToInt) {
    const struct { const char* text; size_t length; bool ok; int value; } rows[] = {
        {"123456", 3, true, 123}, {"42,17", 2, true, 42}, {"0x1F", 4, true, 31}, {"1a", 2, false, 0},  // only the counted bytes
        {"2147483647", 10, true, INT_MAX}, {"-2147483648", 11, true, INT_MIN},
        {"2147483648", 10, false, 0}, {"-2147483649", 11, false, 0},  // beyond 32 bits
        {"12", 0, false, 0}, {"7", 5, true, 7},  // a count past the terminator stops at it
        {"0000000000000000000000000000000000000000000000000000000000000000000001", 70, false, 0},
    };
    for (const auto& row : rows) {
        int out = -5;
        EXPECT_EQ(obx_strn_to_int(row.text, row.length, &out), row.ok) << row.text << "/" << row.length;
        EXPECT_EQ(out, row.ok ? row.value : -5) << row.text << "/" << row.length;
    }
    int out = 0;
    EXPECT_FALSE(obx_strn_to_int(nullptr, 3, &out));
}
