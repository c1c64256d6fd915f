#include "utils/number_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "utils/json.h"
#include "utils/utf8.h"

namespace {

std::string printf_text(const char* format, double value)
{
    char text[512];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string g17(double value)
{
    char text[OBX_NUMBER_TEXT_MAX];
    const size_t length = obx_format_g17(text, value);
    EXPECT_EQ(length, std::strlen(text));
    return std::string(text, length);
}

std::string fixed6(double value)
{
    char text[OBX_FIXED6_TEXT_MAX];
    const size_t length = obx_format_fixed6(text, value);
    EXPECT_EQ(length, std::strlen(text));
    return std::string(text, length);
}

// Values where a printer must decide something: the switch to exponent form, carries
// into a new digit, ties on the last digit, the ends of the fast ranges.
std::vector<double> edge_values()
{
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> values = {0.0,
                                  -0.0,
                                  1e17,
                                  99999999999999999.0,
                                  1e16 + 0.5,
                                  9007199254740993.0,
                                  18446744073709551615.0,
                                  9223372036854775807.0,
                                  123456789012345678.0,
                                  1e-5,
                                  1e-4,
                                  9.9999999999999995e-5,
                                  0.0001,
                                  0.1,
                                  0.5,
                                  1.5,
                                  2.5,
                                  0.5e-6,
                                  1.5e-6,
                                  2.5e-6,
                                  999999.9999995,
                                  9.9999999999999995,
                                  0.99999999999999989,
                                  1.0000076293945312,   // 1 + 2^-17: a tie at digit 18
                                  1.00002288818359375,  // 1 + 3 * 2^-17
                                  std::ldexp(1.0, -17),
                                  std::ldexp(1.0, -18),
                                  std::ldexp(1.0, 126),
                                  std::ldexp(1.0, 127),
                                  std::ldexp(1.0, 63),
                                  std::ldexp(1.0, 63) - 1024,
                                  std::numeric_limits<double>::max(),
                                  std::numeric_limits<double>::min(),
                                  std::numeric_limits<double>::denorm_min(),
                                  std::numeric_limits<double>::epsilon(),
                                  1e300,
                                  1e-300,
                                  1e22,
                                  1e23,
                                  inf,
                                  -inf,
                                  std::numeric_limits<double>::quiet_NaN()};
    for (int exponent = -25; exponent <= 40; ++exponent) {
        const double power = std::pow(10.0, exponent);
        values.push_back(power);
        values.push_back(std::nextafter(power, 0.0));
        values.push_back(std::nextafter(power, inf));
    }
    const size_t count = values.size();
    for (size_t i = 0; i < count; ++i) values.push_back(-values[i]);
    return values;
}

TEST(NumberFormat, G17AndFixed6MatchPrintfAtTheEdges)
{
    for (double value : edge_values()) {
        EXPECT_EQ(g17(value), printf_text("%1.17g", value)) << std::hexfloat << value;
        EXPECT_EQ(fixed6(value), printf_text("%f", value)) << std::hexfloat << value;
    }
}

// Random bit patterns cover every exponent; random decimals and float-widened values are
// what collectors report.
TEST(NumberFormat, G17AndFixed6MatchPrintfOnRandomValues)
{
    std::mt19937_64 random(42);
    for (int i = 0; i < 60000; ++i) {
        const uint64_t bits = random();
        double values[5];
        std::memcpy(&values[0], &bits, 8);
        values[1] = std::ldexp(static_cast<double>(random() >> 11), static_cast<int>(random() % 200) - 133);
        values[2] = static_cast<double>(static_cast<int64_t>(random())) / 1000.0;
        values[3] = static_cast<double>(static_cast<float>((random() % 10000000) / 1000.0));
        values[4] = (random() % 1000000) * 1e-6;
        for (double value : values) {
            ASSERT_EQ(g17(value), printf_text("%1.17g", value)) << std::hexfloat << value;
            ASSERT_EQ(fixed6(value), printf_text("%f", value)) << std::hexfloat << value;
        }
    }
}

TEST(NumberFormat, IntegersMatchPrintf)
{
    std::vector<uint64_t> values = {0, 1, 9, 10, 99, 100, 4294967295ull, 4294967296ull, ~0ull, 1ull << 63};
    for (int digits = 1; digits <= 19; ++digits) {
        uint64_t power = 1;
        for (int i = 0; i < digits; ++i) power *= 10;
        values.push_back(power - 1);
        values.push_back(power);
        values.push_back(power + 1);
    }
    std::mt19937_64 random(3);
    for (int i = 0; i < 2000; ++i) values.push_back(random() >> (random() % 64));
    for (uint64_t value : values) {
        char text[OBX_NUMBER_TEXT_MAX];
        char expected[64];
        std::snprintf(expected, sizeof expected, "%lu", static_cast<unsigned long>(value));
        EXPECT_EQ(std::string(text, obx_format_u64(text, value)), expected);
        const int64_t as_signed = static_cast<int64_t>(value);
        std::snprintf(expected, sizeof expected, "%ld", static_cast<long>(as_signed));
        EXPECT_EQ(std::string(text, obx_format_i64(text, as_signed)), expected);
    }
}

// The integer entries of the JSON layer give what printing the nearest double gives.
TEST(NumberFormat, JsonIntegersPrintAsTheirDoubles)
{
    const std::vector<uint64_t> values = {0,
                                          1,
                                          (1ull << 53) - 1,
                                          1ull << 53,
                                          (1ull << 53) + 1,
                                          99999999999999999ull,
                                          100000000000000000ull,
                                          0x7fffffffffffffffull,
                                          0x8000000000000000ull,
                                          0x8000000000000001ull,
                                          ~0ull,
                                          1700000000123456ull};
    for (uint64_t value : values) {
        char direct[OBX_NUMBER_TEXT_MAX];
        char through_double[OBX_NUMBER_TEXT_MAX];
        EXPECT_EQ(std::string(direct, obx_json_format_uint64(direct, value)),
                  std::string(through_double, obx_json_format_number(through_double, static_cast<double>(value))))
            << value;
        const int64_t as_signed = static_cast<int64_t>(value);
        EXPECT_EQ(std::string(direct, obx_json_format_int64(direct, as_signed)),
                  std::string(through_double,
                              obx_json_format_number(through_double, static_cast<double>(as_signed))))
            << as_signed;
    }
}

// The validator agrees with what the JSON layer (Jansson) takes as a string.
TEST(Utf8, AgreesWithTheJsonLayer)
{
    struct Case {
        std::string bytes;
        bool valid;
    };
    const std::vector<Case> cases = {
        {"", true},
        {"plain", true},
        {std::string("a\0b", 3), true},
        {"\xC3\xA9", true},
        {"\xC3", false},
        {"\xC0\xAF", false},          // overlong
        {"\xE0\x80\xAF", false},      // overlong
        {"\xED\xA0\x80", false},      // surrogate
        {"\xEF\xBF\xBF", true},
        {"\xF0\x90\x80\x80", true},
        {"\xF4\x8F\xBF\xBF", true},   // U+10FFFF
        {"\xF4\x90\x80\x80", false},  // above
        {"\xF5\x80\x80\x80", false},
        {"\x80", false},
        {"\xE2\x82", false},
        {"\xE2\x28\xA1", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(obx_utf8_is_valid(c.bytes.data(), c.bytes.size()), c.valid) << c.bytes;
        json_t* value = obx_json_stringn(c.bytes.data(), c.bytes.size());
        EXPECT_EQ(value != nullptr, c.valid) << c.bytes;
        json_decref(value);
    }
    std::mt19937_64 random(5);
    for (int i = 0; i < 20000; ++i) {
        std::string bytes(random() % 6, '\0');
        for (char& b : bytes) b = static_cast<char>(random() % 4 == 0 ? random() : 0x80 | (random() & 0x7f));
        json_t* value = obx_json_stringn(bytes.data(), bytes.size());
        ASSERT_EQ(obx_utf8_is_valid(bytes.data(), bytes.size()), value != nullptr);
        json_decref(value);
    }
    EXPECT_TRUE(obx_utf8_is_valid(nullptr, 0));
    EXPECT_FALSE(obx_utf8_is_valid(nullptr, 3));
}

}  // namespace
