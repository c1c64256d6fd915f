#include "utils/text.h"

#include <gtest/gtest.h>

#include <cstring>

#include "fixtures/log_capture.h"
#include "fresh_process.h"
#include "utils/logger.h"

using obx_test::LogCapture;
using Texts = std::vector<std::string>;
using namespace std::string_literals;

// Takes ownership of a text returned by the functions under test.
static std::string take(char* text) {
    const std::string copy = text ? text : "<null>";
    std::free(text);
    return copy;
}

TEST(Text, BooleansTrimAndSuffixes) {
    for (const char* text : {"1", "true", "True"}) EXPECT_TRUE(obx_str_to_bool(text)) << text;
    for (const char* text : {"TRUE", "yes", "", "true "}) EXPECT_FALSE(obx_str_to_bool(text)) << text;
    EXPECT_TRUE(obx_str_to_bool(nullptr));  // no text at all means on
    const struct { const char* text; size_t offset; const char* result; } trims[] = {  // offset: where the result starts
        {"  a b  ", 2, "a b"}, {"a", 0, "a"}, {"   ", 3, ""}, {"\t\n x\r\n", 3, "x"}};
    for (const auto& row : trims) {
        std::vector<char> buffer(row.text, row.text + std::strlen(row.text) + 1);
        EXPECT_EQ(obx_str_trim(buffer.data()), buffer.data() + row.offset) << '"' << row.text << '"';
        EXPECT_STREQ(buffer.data() + row.offset, row.result) << '"' << row.text << '"';
    }
    EXPECT_TRUE(obx_str_ends_with("data.obx.gz", ".gz") && obx_str_ends_with(".gz", ".gz") && obx_str_ends_with("abc", ""));
    EXPECT_FALSE(obx_str_ends_with("gz", ".gz") || obx_str_ends_with(nullptr, "a"));
}

TEST(Text, NewTextsAndTheirFailures) {
    const std::string long_text(5000, 'z');
    EXPECT_EQ(take(obx_string_format("<%s>", long_text.c_str())), "<" + long_text + ">");
    EXPECT_EQ(take(string_concat("ab", "cd")), "abcd");
    const char* const lists[][3] = {{"a,b", "c", "a,b,c"}, {"", "c", "c"}, {nullptr, "c", "c"}, {"a", "", "a,"}};  // list, token, result
    for (const auto& row : lists) EXPECT_EQ(take(string_concat_comma_separated_token(row[0], row[1])), row[2]) << row[2];
    const char* const bases[][2] = {{"/a/b/f.json", "f.json"}, {"f.json", "f.json"}, {"/a/b/", ""}, {"", "<null>"}, {nullptr, "<null>"}};
    for (const auto& row : bases) EXPECT_EQ(take(obx_str_basename(row[0])), row[1]) << row[1];
    LogCapture capture(OBX_LOG_ERROR);
    const wchar_t wide[] = {static_cast<wchar_t>(0x263A), 0};  // the C locale cannot encode it, so sizing fails
    EXPECT_EQ(obx_string_format("%ls", wide), nullptr);
    EXPECT_EQ(string_concat(nullptr, "x"), nullptr);
    EXPECT_EQ(string_concat_comma_separated_token("a", nullptr), nullptr);
    size_t position = 0;
    EXPECT_FALSE(find_ith_substr(nullptr, "a", 0, &position) || find_ith_substr("a", "", 0, &position));  // "" would match everywhere
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), (Texts{"Failed to calculate length of expanded string template", "[string_concat] invalid input",
                                               "[string_concat_comma_separated_token] invalid input",
                                               "[find_ith_substr] invalid input", "[find_ith_substr] invalid input"}));
}

TEST(Text, IthSubstringHexDigitsAndGuids) {
    size_t position = 99;
    EXPECT_TRUE(find_ith_substr("aaaa", "aa", 2, &position) && position == 2);  // overlaps count
    EXPECT_FALSE(find_ith_substr("aaaa", "aa", 3, &position) || find_ith_substr("abc", "abcd", 0, &position));
    EXPECT_EQ(position, 2u);
    const int digits[][2] = {{'0', 0}, {'9', 9}, {'a', 10}, {'F', 15}, {'g', -1}, {'/', -1}, {':', -1}, {'@', -1}, {'`', -1}, {0xE9, -1}};
    for (const auto& row : digits) EXPECT_EQ(obx_hex_digit_value(row[0]), row[1]) << row[0];
    const uint8_t counting[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    uint8_t out[16] = {};
    EXPECT_TRUE(obx_hex_to_guid("-0-011-2233445566778899aaBBccddeeff-", out));  // every dash is skipped, even inside a pair
    EXPECT_EQ(std::memcmp(out, counting, 16), 0);
    for (const char* text : {"00112233445566778899aabbccddee", "00112233445566778899aabbccddeeff00",  // 15 and 17 bytes
                             "00112233445566778899aabbccddeef", "00112233445566778899aabbccddeefg", "----"})
        EXPECT_FALSE(obx_hex_to_guid(text, out)) << text;
    EXPECT_FALSE(obx_hex_to_guid(nullptr, out));
}

TEST(Text, BoundedAndVisibleCopiesStayInTheirBuffer) {
    const struct { size_t size, length, copied; std::string bytes; } bounded[] = {  // the destination and one byte more
        {8, 3, 3, "abc\0#####"s}, {4, 4, 3, "abc\0#"s},  // a length equal to the size leaves room for the NUL
        {1, 5, 0, "\0#"s}, {0, 3, 0, "#"s}};
    const struct { std::string source; size_t length; std::string result; } visible[] = {
        {"hello", 4, "hel"},                          // at most length - 1
        {"ab\x80" "c", 16, "ab"}, {"a\tb", 16, "a"},  // stops at the first unprintable byte
        {"\x80" "abc", 16, "N/A"}, {"\x7f" "abc", 16, "N/A"}, {"\x80" "abc", 3, "N/"},  // the marker is cut but ended
        {"", 16, ""}, {" ~", 16, " ~"},
    };
    char buffer[32];
    for (const auto& row : bounded) {
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(obx_str_copy_bounded(buffer, row.size, "abcdefghi", row.length), row.copied) << row.size << "/" << row.length;
        EXPECT_EQ(std::string(buffer, row.size + 1), row.bytes) << row.size << "/" << row.length;
    }
    for (const auto& row : visible) {
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(strncpy_visible_ascii(buffer, row.source.c_str(), row.length), buffer);
        EXPECT_EQ(std::string(buffer), row.result) << row.source;
        EXPECT_EQ(buffer[row.length], '#') << "wrote past the destination for " << row.source;
    }
}

// In a fresh process, so that no earlier complaint has started a clock.
TEST(Text, VisibleCopyRateLimitsEachComplaintOnItsOwn) {
    obx_test::expect_in_fresh_process([]() -> std::string {
        LogCapture capture(OBX_LOG_ERROR);
        char buffer[4] = "xyz";
        for (int round = 0; round < 3; ++round) {
            strncpy_visible_ascii(nullptr, "a", 4);
            strncpy_visible_ascii(buffer, nullptr, 4);
            strncpy_visible_ascii(buffer, "a", 0);
        }
        const std::string expected = "strncpy_visible_ascii: Destination buffer is NULL\nstrncpy_visible_ascii: Source string is NULL\n"
                                     "strncpy_visible_ascii: Length is 0\n";
        return capture.all() == expected && std::string(buffer) == "xyz" ? "" : "logged:\n" + capture.all();
    });
}
