#include "utils/number_format.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

using u128 = unsigned __int128;

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

struct Pow10Table {
    u128 value[23];
    constexpr Pow10Table() : value() {
        u128 power = 1;
        for (int i = 0; i < 23; ++i) {
            value[i] = power;
            power *= 10;
        }
    }
};
constexpr Pow10Table kPow10;

// 1e-20 to 1e40 as doubles, nearest to the true powers.
constexpr int kPow10DoubleBias = 20;
constexpr int kPow10DoubleEnd = 41;
constexpr double kPow10Double[kPow10DoubleBias + kPow10DoubleEnd] = {
    1e-20, 1e-19, 1e-18, 1e-17, 1e-16, 1e-15, 1e-14, 1e-13, 1e-12, 1e-11, 1e-10, 1e-9, 1e-8, 1e-7, 1e-6,
    1e-5,  1e-4,  1e-3,  1e-2,  1e-1,  1e0,   1e1,   1e2,   1e3,   1e4,   1e5,   1e6,  1e7,  1e8,  1e9,
    1e10,  1e11,  1e12,  1e13,  1e14,  1e15,  1e16,  1e17,  1e18,  1e19,  1e20,  1e21, 1e22, 1e23, 1e24,
    1e25,  1e26,  1e27,  1e28,  1e29,  1e30,  1e31,  1e32,  1e33,  1e34,  1e35,  1e36, 1e37, 1e38, 1e39,
    1e40};

constexpr uint64_t kTen16 = 10000000000000000ull;
constexpr uint64_t kTen17 = 100000000000000000ull;

// Decimal digits of `value` ending just before `end`; returns the first one.
inline char* digits_backwards(char* end, uint64_t value)
{
    char* p = end;
    while (value >= 100) {
        const unsigned pair = static_cast<unsigned>(value % 100) * 2;
        value /= 100;
        *--p = kDigitPairs[pair + 1];
        *--p = kDigitPairs[pair];
    }
    if (value >= 10) {
        const unsigned pair = static_cast<unsigned>(value) * 2;
        *--p = kDigitPairs[pair + 1];
        *--p = kDigitPairs[pair];
    } else {
        *--p = static_cast<char>('0' + value);
    }
    return p;
}

constexpr uint64_t kPow10U64[20] = {1ull,
                                    10ull,
                                    100ull,
                                    1000ull,
                                    10000ull,
                                    100000ull,
                                    1000000ull,
                                    10000000ull,
                                    100000000ull,
                                    1000000000ull,
                                    10000000000ull,
                                    100000000000ull,
                                    1000000000000ull,
                                    10000000000000ull,
                                    100000000000000ull,
                                    1000000000000000ull,
                                    10000000000000000ull,
                                    100000000000000000ull,
                                    1000000000000000000ull,
                                    10000000000000000000ull};

// Number of decimal digits of `value` (1 for 0).
inline size_t decimal_length(uint64_t value)
{
    // 1233 / 4096 is just above log10(2): from the bit length this gives the number of
    // digits or one less, and one comparison settles which.
    const unsigned guess = static_cast<unsigned>((64 - __builtin_clzll(value | 1)) * 1233) >> 12;
    const size_t length = guess + (value >= kPow10U64[guess] ? 1 : 0);
    return length ? length : 1;
}

// Exactly `count` digits of `value` (zero-padded on the left) at `out`.
inline void digits_fixed(char* out, uint64_t value, int count)
{
    char* p = out + count;
    while (count >= 2) {
        const unsigned pair = static_cast<unsigned>(value % 100) * 2;
        value /= 100;
        *--p = kDigitPairs[pair + 1];
        *--p = kDigitPairs[pair];
        count -= 2;
    }
    if (count == 1) *--p = static_cast<char>('0' + value % 10);
}

inline size_t finish(char* out, char* end)
{
    *end = '\0';
    return static_cast<size_t>(end - out);
}

size_t printf_fallback(char* out, size_t room, const char* format, double value)
{
    const int length = std::snprintf(out, room, format, value);
    if (length <= 0) {
        out[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(length) < room ? static_cast<size_t>(length) : room - 1;
}

// Fields of a finite double: value = mantissa * 2^exponent.
struct Binary {
    bool negative;
    int biased;  // stored exponent; 0 for zero and subnormals, 0x7ff for inf and NaN
    uint64_t mantissa;
    int exponent;
};

inline Binary decompose(double value)
{
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    Binary b;
    b.negative = (bits >> 63) != 0;
    b.biased = static_cast<int>((bits >> 52) & 0x7ff);
    const uint64_t fraction = bits & ((uint64_t{1} << 52) - 1);
    if (b.biased == 0) {
        b.mantissa = fraction;
        b.exponent = -1074;
    } else {
        b.mantissa = fraction | (uint64_t{1} << 52);
        b.exponent = b.biased - 1075;
    }
    return b;
}

// Rounds quotient + remainder/divisor to the nearest integer, ties to even.
inline u128 round_half_even(u128 quotient, u128 remainder, u128 divisor)
{
    // Compares 2 * remainder with the divisor without overflow.
    const u128 other = divisor - remainder;
    if (remainder > other || (remainder == other && (quotient & 1))) ++quotient;
    return quotient;
}

// value * 10^scale, truncated, and rounded to nearest-even; false when it does not fit
// the 128-bit arithmetic used here.
bool scaled_digits(const Binary& b, int scale, u128* rounded, u128* truncated)
{
    if (scale >= 0) {
        if (scale > 22) return false;
        u128 n = static_cast<u128>(b.mantissa) * kPow10.value[scale];  // below 2^126
        if (b.exponent >= 0) {
            if (b.exponent > 74 - 4 * scale) return false;  // keeps the shift inside 128 bits
            n <<= b.exponent;
            *truncated = *rounded = n;
            return true;
        }
        const int shift = -b.exponent;
        if (shift >= 127) return false;
        const u128 quotient = n >> shift;
        const u128 remainder = n & ((static_cast<u128>(1) << shift) - 1);
        *truncated = quotient;
        *rounded = round_half_even(quotient, remainder, static_cast<u128>(1) << shift);
        return true;
    }
    const int divide = -scale;
    if (divide > 22 || b.exponent < 0 || b.exponent > 74) return false;
    const u128 n = static_cast<u128>(b.mantissa) << b.exponent;
    const u128 divisor = kPow10.value[divide];
    const u128 quotient = n / divisor;
    *truncated = quotient;
    *rounded = round_half_even(quotient, n - quotient * divisor, divisor);
    return true;
}

}  // namespace

size_t obx_format_u64(char* out, uint64_t value)
{
    const size_t length = decimal_length(value);
    digits_backwards(out + length, value);
    out[length] = '\0';
    return length;
}

size_t obx_format_i64(char* out, int64_t value)
{
    if (value >= 0) return obx_format_u64(out, static_cast<uint64_t>(value));
    out[0] = '-';
    return 1 + obx_format_u64(out + 1, uint64_t{0} - static_cast<uint64_t>(value));
}

size_t obx_format_g17(char* out, double value)
{
    const Binary b = decompose(value);
    if (b.biased == 0x7ff) return printf_fallback(out, OBX_NUMBER_TEXT_MAX, "%1.17g", value);

    // An integer below 1e17 has at most 17 digits: all of them are shown, none rounded.
    const double magnitude = std::fabs(value);
    if (magnitude < 1e17 && magnitude == std::floor(magnitude)) {
        char* p = out;
        if (b.negative) *p++ = '-';  // -0.0 prints "-0" too
        return static_cast<size_t>(p - out) + obx_format_u64(p, static_cast<uint64_t>(magnitude));
    }

    // 2^-17 up to 2^127: the 17 digits come out of 128-bit integer arithmetic. Below
    // and above, printf does it.
    const int binary_exponent = b.biased - 1023;
    if (b.biased == 0 || binary_exponent < -17 || binary_exponent > 126)
        return printf_fallback(out, OBX_NUMBER_TEXT_MAX, "%1.17g", value);

    // floor(binary_exponent * log10(2)) is the decimal exponent or one below it; a double
    // comparison nearly always settles which, and the loop below mends the rare miss.
    int exponent = (binary_exponent * 78913) >> 18;
    if (exponent + 1 >= -kPow10DoubleBias && exponent + 1 < kPow10DoubleEnd &&
        magnitude >= kPow10Double[exponent + 1 + kPow10DoubleBias])
        ++exponent;
    u128 rounded = 0;
    u128 truncated = 0;
    bool found = false;
    for (int attempt = 0; attempt < 3 && !found; ++attempt) {
        if (!scaled_digits(b, 16 - exponent, &rounded, &truncated)) break;
        if (truncated >= kTen17)
            ++exponent;
        else if (truncated < kTen16)
            --exponent;
        else
            found = true;
    }
    if (!found) return printf_fallback(out, OBX_NUMBER_TEXT_MAX, "%1.17g", value);
    if (rounded == kTen17) {  // 9.99...95 and up round to the next power of ten
        rounded = kTen16;
        ++exponent;
    }

    char digits[17];
    digits_fixed(digits, static_cast<uint64_t>(rounded), 17);
    int last = 16;  // last digit that is kept: trailing zeros go
    while (last > 0 && digits[last] == '0') --last;

    char* p = out;
    if (b.negative) *p++ = '-';
    if (exponent < -4 || exponent >= 17) {
        *p++ = digits[0];
        if (last > 0) {
            *p++ = '.';
            std::memcpy(p, digits + 1, static_cast<size_t>(last));
            p += last;
        }
        *p++ = 'e';
        *p++ = exponent < 0 ? '-' : '+';
        const int shown = exponent < 0 ? -exponent : exponent;
        if (shown >= 100) *p++ = static_cast<char>('0' + shown / 100);
        *p++ = static_cast<char>('0' + shown / 10 % 10);
        *p++ = static_cast<char>('0' + shown % 10);
    } else if (exponent >= 0) {
        std::memcpy(p, digits, static_cast<size_t>(exponent) + 1);
        p += exponent + 1;
        if (last > exponent) {
            *p++ = '.';
            std::memcpy(p, digits + exponent + 1, static_cast<size_t>(last - exponent));
            p += last - exponent;
        }
    } else {
        *p++ = '0';
        *p++ = '.';
        for (int i = 0; i < -exponent - 1; ++i) *p++ = '0';
        std::memcpy(p, digits, static_cast<size_t>(last) + 1);
        p += last + 1;
    }
    return finish(out, p);
}

size_t obx_format_fixed6(char* out, double value)
{
    const Binary b = decompose(value);
    // Infinities, NaNs and values of 2^63 and up (up to 309 integer digits) go to printf.
    if (b.biased == 0x7ff || b.biased - 1023 >= 63) return printf_fallback(out, OBX_FIXED6_TEXT_MAX, "%f", value);

    // value * 10^6, rounded to an integer: below 2^83.
    u128 scaled = 0;
    if (b.mantissa != 0) {
        const u128 n = static_cast<u128>(b.mantissa) * 1000000u;  // below 2^73
        if (b.exponent >= 0) {
            scaled = n << b.exponent;
        } else if (-b.exponent < 120) {
            const int shift = -b.exponent;
            const u128 divisor = static_cast<u128>(1) << shift;
            scaled = round_half_even(n >> shift, n & (divisor - 1), divisor);
        }  // smaller than 2^-119: far below half of the last decimal, so 0
    }
    const uint64_t whole = static_cast<uint64_t>(scaled / 1000000u);
    const uint64_t fraction = static_cast<uint64_t>(scaled % 1000000u);

    char* p = out;
    if (b.negative) *p++ = '-';  // "-0.000000" too, as printf does
    p += obx_format_u64(p, whole);
    *p++ = '.';
    digits_fixed(p, fraction, 6);
    return finish(out, p + 6);
}
