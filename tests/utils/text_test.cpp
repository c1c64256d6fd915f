#include "utils/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fresh_process.h"
#include "utils/logger.h"

using obx_test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

// Takes ownership of a text returned by the functions under test.
std::string take(char* text) {
    if (!text) return "<null>";
    std::string copy(text);
    std::free(text);
    return copy;
}

const char* show(const char* text) { return text ? text : "<null>"; }

}  // namespace

TEST(Text, BooleansAreExactWords) {
    const struct {
        const char* text;
        bool value;
    } rows[] = {{nullptr, true},  // no text at all means on
                {"1", true}, {"true", true}, {"True", true}, {"TRUE", false}, {"yes", false},
                {"", false}, {"true ", false}, {"11", false}};
    for (const auto& row : rows) EXPECT_EQ(obx_str_to_bool(row.text), row.value) << show(row.text);
    EXPECT_STREQ(obx_bool_to_str(false), "false");
}

TEST(Text, TrimWorksInPlace) {
    const struct {
        const char* text;
        size_t offset;  // where the result starts inside the buffer
        const char* result;
    } rows[] = {{"  a b  ", 2, "a b"}, {"a", 0, "a"}, {"", 0, ""}, {"   ", 3, ""}, {"\t\n x\r\n", 3, "x"}};
    for (const auto& row : rows) {
        std::vector<char> buffer(row.text, row.text + std::strlen(row.text) + 1);
        char* result = obx_str_trim(buffer.data());
        EXPECT_EQ(result, buffer.data() + row.offset) << '"' << row.text << '"';
        EXPECT_STREQ(result, row.result) << '"' << row.text << '"';
    }
}

TEST(Text, FormatExpandsIntoANewText) {
    EXPECT_EQ(take(obx_string_format("%s/schema_%s.json", "/data", "ab12")), "/data/schema_ab12.json");
    const std::string long_text(5000, 'z');
    EXPECT_EQ(take(obx_string_format("<%s>", long_text.c_str())), "<" + long_text + ">");

    LogCapture capture(OBX_LOG_ERROR);
    // A wide character that the C locale cannot encode makes the sizing print fail.
    const wchar_t wide[] = {static_cast<wchar_t>(0x263A), 0};
    EXPECT_EQ(obx_string_format("%ls", wide), nullptr);
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), Texts{"Failed to calculate length of expanded string template"});
}

TEST(Text, HexDigitsAndGuids) {
    const struct {
        int character;
        int value;
    } digits[] = {{'0', 0}, {'9', 9}, {'a', 10}, {'f', 15}, {'A', 10}, {'F', 15},
                  {'g', -1}, {'/', -1}, {':', -1}, {'@', -1}, {'`', -1}, {0, -1}, {0xE9, -1}};
    for (const auto& row : digits) EXPECT_EQ(obx_hex_digit_value(row.character), row.value) << row.character;

    const uint8_t counting[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    const struct {
        const char* text;
        bool ok;
    } guids[] = {
        {"00112233445566778899aabbccddeeff", true}, {"00112233-4455-6677-8899-AABBCCDDEEFF", true},
        {"-0-011-2233445566778899aabbccddeeff-", true},  // every dash is skipped, even inside a pair
        {"00112233445566778899aabbccddee", false},      // 15 bytes
        {"00112233445566778899aabbccddeeff00", false},  // 17 bytes
        {"00112233445566778899aabbccddeef", false},     // half a byte left
        {"00112233445566778899aabbccddeefg", false},    {"0011 2233445566778899aabbccddeeff", false},
        {"", false}, {"----", false}, {nullptr, false},
    };
    for (const auto& row : guids) {
        uint8_t out[16];
        std::memset(out, 0x5A, sizeof(out));
        EXPECT_EQ(obx_hex_to_guid(row.text, out), row.ok) << show(row.text);
        if (row.ok) {
            EXPECT_EQ(std::memcmp(out, counting, 16), 0) << row.text;
        }
    }
}

TEST(Text, Concatenation) {
    EXPECT_EQ(take(string_concat("ab", "cd")), "abcd");
    const struct {
        const char* list;
        const char* token;
        const char* result;
    } rows[] = {{"a,b", "c", "a,b,c"}, {"", "c", "c"}, {nullptr, "c", "c"}, {"a", "", "a,"}};
    for (const auto& row : rows)
        EXPECT_EQ(take(string_concat_comma_separated_token(row.list, row.token)), row.result) << show(row.list);

    LogCapture capture(OBX_LOG_ERROR);
    EXPECT_EQ(string_concat(nullptr, "x"), nullptr);
    EXPECT_EQ(string_concat_comma_separated_token("a", nullptr), nullptr);
    EXPECT_EQ(capture.at(OBX_LOG_ERROR),
              (Texts{"[string_concat] invalid input", "[string_concat_comma_separated_token] invalid input"}));
}

TEST(Text, IthSubstringCountsOverlaps) {
    const struct {
        const char* text;
        const char* pattern;
        size_t index;
        bool found;
        size_t position;
    } rows[] = {{"aaaa", "aa", 0, true, 0}, {"aaaa", "aa", 1, true, 1}, {"aaaa", "aa", 2, true, 2},
                {"aaaa", "aa", 3, false, 0}, {"a.b.c", ".", 1, true, 3}, {"abc", "abcd", 0, false, 0},
                {"", "a", 0, false, 0}};
    for (const auto& row : rows) {
        size_t position = 99;
        EXPECT_EQ(find_ith_substr(row.text, row.pattern, row.index, &position), row.found) << row.text << row.index;
        EXPECT_EQ(position, row.found ? row.position : 99) << row.text << " " << row.index;
    }
    LogCapture capture(OBX_LOG_ERROR);
    size_t position = 0;
    EXPECT_FALSE(find_ith_substr(nullptr, "a", 0, &position));
    EXPECT_FALSE(find_ith_substr("a", nullptr, 0, &position));
    EXPECT_FALSE(find_ith_substr("a", "", 0, &position));  // would match everywhere
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), Texts(3, "[find_ith_substr] invalid input"));
}

TEST(Text, BasenameAndSuffix) {
    const struct {
        const char* path;
        const char* base;
    } bases[] = {{"/a/b/file.json", "file.json"}, {"file.json", "file.json"}, {"/a/b/", ""},
                 {"/", ""}, {"", "<null>"}, {nullptr, "<null>"}};
    for (const auto& row : bases) EXPECT_EQ(take(obx_str_basename(row.path)), row.base) << show(row.path);

    const struct {
        const char* text;
        const char* suffix;
        bool result;
    } suffixes[] = {{"data.obx.gz", ".gz", true}, {"data.obx", ".gz", false}, {"gz", ".gz", false},
                    {".gz", ".gz", true}, {"abc", "", true}, {nullptr, "a", false}};
    for (const auto& row : suffixes)
        EXPECT_EQ(obx_str_ends_with(row.text, row.suffix), row.result) << show(row.text) << " " << row.suffix;
}

TEST(Text, BoundedCopyAlwaysTerminates) {
    const struct {
        size_t size;
        size_t length;
        size_t copied;
        const char* result;
    } rows[] = {{8, 3, 3, "abc"}, {4, 4, 3, "abc"},  // a length equal to the size leaves room for the NUL
                {4, 9, 3, "abc"}, {1, 5, 0, ""}, {8, 0, 0, ""}};
    for (const auto& row : rows) {
        char buffer[16];
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(obx_str_copy_bounded(buffer, row.size, "abcdefghi", row.length), row.copied) << row.size << "/" << row.length;
        EXPECT_STREQ(buffer, row.result) << row.size << "/" << row.length;
        EXPECT_EQ(buffer[row.size], '#') << "wrote past the destination";
    }
    char untouched = '#';
    EXPECT_EQ(obx_str_copy_bounded(&untouched, 0, "abc", 3), 0u);
    EXPECT_EQ(untouched, '#');
}

TEST(Text, VisibleCopyTakesThePrintableRun) {
    const struct {
        std::string source;
        size_t length;
        std::string result;
    } rows[] = {
        {"hello", 16, "hello"}, {"hello", 4, "hel"},  // at most length - 1
        {"ab\x80" "c", 16, "ab"},                     // stops at the first unprintable byte
        {"\x80" "abc", 16, "N/A"}, {"\x1f" "abc", 16, "N/A"}, {"\x7f" "abc", 16, "N/A"},
        {"\x80" "abc", 3, "N/"},  // the marker is cut but terminated
        {"", 16, ""}, {"a\tb", 16, "a"}, {" ~", 16, " ~"},
    };
    for (const auto& row : rows) {
        char buffer[32];
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(strncpy_visible_ascii(buffer, row.source.c_str(), row.length), buffer);
        EXPECT_EQ(std::string(buffer), row.result) << row.source;
        EXPECT_EQ(buffer[row.length], '#') << "wrote past the destination for " << row.source;
    }
}

TEST(Text, VisibleCopyRateLimitsEachComplaintOnItsOwn) {
    obx_test::expect_in_fresh_process([]() -> std::string {
        LogCapture capture(OBX_LOG_ERROR);
        char buffer[4] = "xyz";
        for (int round = 0; round < 3; ++round) {
            strncpy_visible_ascii(nullptr, "a", 4);
            strncpy_visible_ascii(buffer, nullptr, 4);
            strncpy_visible_ascii(buffer, "a", 0);
        }
        const Texts expected = {"strncpy_visible_ascii: Destination buffer is NULL",
                                "strncpy_visible_ascii: Source string is NULL", "strncpy_visible_ascii: Length is 0"};
        if (capture.at(OBX_LOG_ERROR) != expected) return "logged:\n" + capture.all();
        return std::string(buffer) == "xyz" ? "" : "destination changed";
    });
}

TEST(Text, CounterColumnShowsThousandsWithAK) {
    const struct {
        int width;
        long long value;
        const char* text;
    } rows[] = {{5, 0, "     0 |"}, {5, 999, "   999 |"}, {5, 1000, "   1 k |"},
                {5, 1999, "   1 k |"},  // cut, not rounded
                {5, 123456, " 123 k |"}, {5, -5, "    -5 |"}, {3, 1000, " 1 k |"}};
    for (const auto& row : rows) {
        char* text = nullptr;
        size_t size = 0;
        FILE* stream = open_memstream(&text, &size);
        ASSERT_NE(stream, nullptr);
        obx_print_counter_value(stream, row.width, row.value);
        std::fclose(stream);
        EXPECT_EQ(std::string(text, size), row.text) << row.width << "/" << row.value;
        std::free(text);
    }
}
