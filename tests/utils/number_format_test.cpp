#include "utils/number_format.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "fixtures/json_value.h"
#include "utils/json.h"
#include "utils/utf8.h"

namespace {

// Every printer's text against the one it must equal: printf's, or for the JSON layer's
// integer entries, that of printing the nearest double. Empty when all agree.
std::string differences(double real, uint64_t integer) {
    const auto as_signed = static_cast<int64_t>(integer);
    char got[OBX_FIXED6_TEXT_MAX], want[OBX_FIXED6_TEXT_MAX];
    std::string out;
    const auto check = [&](size_t length) {
        if (length != std::strlen(got) || std::strcmp(got, want) != 0) out += std::string(got) + " for " + want + "; ";
    };
    check((std::snprintf(want, sizeof want, "%1.17g", real), obx_format_g17(got, real))), check((std::snprintf(want, sizeof want, "%f", real), obx_format_fixed6(got, real)));
    check((std::snprintf(want, sizeof want, "%lu", static_cast<unsigned long>(integer)), obx_format_u64(got, integer)));
    check((std::snprintf(want, sizeof want, "%ld", static_cast<long>(as_signed)), obx_format_i64(got, as_signed)));
    check((obx_json_format_number(want, static_cast<double>(integer)), obx_json_format_uint64(got, integer))), check((obx_json_format_number(want, static_cast<double>(as_signed)), obx_json_format_int64(got, as_signed)));
    return out;
}

// Values where a printer must decide something: the switch to exponent form, carries into
// a new digit, ties on the last digit, the ends of the fast ranges; each also negated.
// Then random values: bit patterns cover every exponent; random decimals and
// float-widened values are what collectors report.
TEST(NumberFormat, MatchesPrintf) {
    // 1.0000076293945312 is a tie at digit 18.
    std::vector<double> reals = {0.0, 1e17, 99999999999999999.0, 1e16 + 0.5, 9007199254740993.0, 0x1p64, 0x1p63, 0x1p63 - 1024, 123456789012345678.0, 9.9999999999999995e-5, 0.5, 2.5,
                                 0.5e-6, 1.5e-6, 2.5e-6, 999999.9999995, 9.9999999999999995, 0.99999999999999989, 1.0000076293945312, 1.00002288818359375, 0x1p-17, 0x1p-18, 0x1p126, 0x1p127,
                                 DBL_MAX, DBL_MIN, DBL_TRUE_MIN, HUGE_VAL, NAN, -NAN};
    for (double e = -25, power; (power = std::pow(10.0, e)) < 1e41; ++e)
        reals.insert(reals.end(), {power, std::nextafter(power, 0.0), std::nextafter(power, HUGE_VAL)});
    std::vector<uint64_t> integers = {0, 4294967295, 4294967296, 1ull << 63, (1ull << 63) + 1, (1ull << 53) + 1, 1700000000123456};
    for (uint64_t power = 1, digits = 0; digits < 20; power *= 10, ++digits) integers.insert(integers.end(), {power - 1, power, power + 1});
    for (size_t i = 0; i < 2 * reals.size(); ++i) {
        const double real = i < reals.size() ? reals[i] : -reals[i - reals.size()];
        const uint64_t integer = i < reals.size() ? integers[i % integers.size()] : 0 - integers[i % integers.size()];
        EXPECT_EQ(differences(real, integer), "") << std::hexfloat << real << " " << integer;
    }
    std::mt19937_64 random(42);
    for (int i = 0; i < 60000; ++i) {
        const uint64_t bits = random();
        double values[5] = {0, std::ldexp(static_cast<double>(random() >> 11), static_cast<int>(random() % 200) - 133),
                            static_cast<double>(static_cast<int64_t>(random())) / 1000.0,
                            static_cast<float>((random() % 10000000) / 1000.0), (random() % 1000000) * 1e-6};
        std::memcpy(&values[0], &bits, 8);
        for (double value : values) ASSERT_EQ(differences(value, bits >> (random() % 64)), "") << std::hexfloat << value;
    }
}

// The validator agrees with what the JSON layer (Jansson) takes as a string: overlong
// forms, surrogates, values above U+10FFFF, cut and stray sequences.
TEST(Utf8, AgreesWithTheJsonLayer) {
    const std::string texts[] = {std::string("a\0b", 3), "\xC3\xA9", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                                      "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\x80", "\xE2\x28\xA1"};
    for (const std::string& s : texts)
        ASSERT_EQ(obx_utf8_is_valid(s.data(), s.size()), obx_test::JsonPtr(obx_json_stringn(s.data(), s.size())) != nullptr) << s;
    EXPECT_TRUE(obx_utf8_is_valid(nullptr, 0) && !obx_utf8_is_valid(nullptr, 3));
}

}  // namespace
