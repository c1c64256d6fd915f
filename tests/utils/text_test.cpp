// The small text helpers, by table: name tables, booleans, trimming, formatting,
// hexadecimal, concatenation and substrings, bounded and printable copies, counter columns.
#include "utils/text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "utils/logger.h"
#include "utils/name_table.h"

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;
std::string text_of(char* text) { return Text(text, std::free) ? std::string(text) : "<none>"; }

}  // namespace

TEST(Text, NameTablesAndBooleans) {
    static const obx_name_table_t table[] = {{1, "one"}, {2, "two"}, {1, "uno"}, {-1, "minus"}, {0, nullptr}};
    EXPECT_STREQ(obx_enum_to_string(table, 1), "one");  // the first row with the value
    EXPECT_STREQ(obx_enum_to_string(table, -1), "minus");
    EXPECT_EQ(obx_enum_to_string(table, 3), nullptr);
    EXPECT_EQ(obx_enum_from_string(table, "uno"), 1);
    EXPECT_EQ(obx_enum_from_string(table, "One"), -1);
    EXPECT_EQ(obx_enum_from_string(table, "three"), -1);

    const struct { const char* text; bool value; } words[] = {
        {nullptr, true}, {"1", true}, {"True", true}, {"true", true}, {"TRUE", false}, {"yes", false}, {"0", false}, {"", false}, {"true ", false}};
    for (const auto& w : words) EXPECT_EQ(obx_str_to_bool(w.text), w.value) << (w.text ? w.text : "<none>");
    EXPECT_STREQ(obx_bool_to_str(true), "true");
    EXPECT_STREQ(obx_bool_to_str(false), "false");
}

TEST(Text, TrimFormatAndHex) {
    const struct { const char* text; const char* trimmed; } trims[] = {
        {"  a b  ", "a b"}, {"\t\n x\r\v\f", "x"}, {"   ", ""}, {"", ""}, {"ab", "ab"}};
    for (const auto& t : trims) {
        std::string buffer = t.text;
        char* inside = obx_str_trim(&buffer[0]);
        EXPECT_STREQ(inside, t.trimmed) << '"' << t.text << '"';
        EXPECT_TRUE(inside >= buffer.data() && inside <= buffer.data() + buffer.size());  // in place
    }

    EXPECT_EQ(text_of(obx_string_format("%s-%05d/%x", "id", 42, 255u)), "id-00042/ff");
    EXPECT_EQ(text_of(obx_string_format("%s", std::string(5000, 'x').c_str())), std::string(5000, 'x'));
    EXPECT_EQ(text_of(obx_string_format("%s", "")), "");

    const struct { int character, value; } digits[] = {{'0', 0}, {'9', 9}, {'a', 10}, {'f', 15}, {'A', 10}, {'F', 15}, {'g', -1}, {'/', -1}, {':', -1}, {'@', -1}, {'G', -1}, {0, -1}};
    for (const auto& d : digits) EXPECT_EQ(obx_hex_digit_value(d.character), d.value) << d.character;

    const struct { const char* text; bool ok; const char* bytes; } guids[] = {
        {"00112233-4455-6677-8899-aabbccddeeff", true, "\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff"},
        {"--00112233445566778899AABBCCDDEEFF--", true, "\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff"},
        {"00112233445566778899aabbccddeeff00", false, ""}, {"00112233445566778899aabbccddee", false, ""},
        {"00112233445566778899aabbccddeefg", false, ""}, {"0011223344556677-8899aabbccddeef", false, ""}, {"", false, ""}, {nullptr, false, ""},
    };
    for (const auto& g : guids) {
        uint8_t out[16] = {};
        EXPECT_EQ(obx_hex_to_guid(g.text, out), g.ok) << (g.text ? g.text : "<none>");
        if (g.ok) {
            EXPECT_EQ(std::memcmp(out, g.bytes, 16), 0) << g.text;
        }
    }
}

TEST(Text, ConcatenationAndSubstrings) {
    EXPECT_EQ(text_of(string_concat("ab", "cd")), "abcd");
    EXPECT_EQ(text_of(string_concat("", "")), "");
    EXPECT_EQ(text_of(string_concat_comma_separated_token("a,b", "c")), "a,b,c");
    EXPECT_EQ(text_of(string_concat_comma_separated_token("", "c")), "c");
    EXPECT_EQ(text_of(string_concat_comma_separated_token(nullptr, "c")), "c");

    const struct { const char* text; const char* pattern; size_t index; bool found; size_t position; } finds[] = {
        {"aaaa", "aa", 0, true, 0}, {"aaaa", "aa", 2, true, 2}, {"aaaa", "aa", 3, false, 0},  // overlaps count
        {"x.y.z", ".", 1, true, 3}, {"x.y.z", "/", 0, false, 0}, {"", "a", 0, false, 0},
    };
    for (const auto& f : finds) {
        size_t position = 99;
        EXPECT_EQ(find_ith_substr(f.text, f.pattern, f.index, &position), f.found) << f.text << " " << f.pattern << " " << f.index;
        if (f.found) {
            EXPECT_EQ(position, f.position) << f.text << " " << f.index;
        }
    }
    obx_test::LogCapture log;
    size_t position = 0;
    EXPECT_FALSE(find_ith_substr(nullptr, "a", 0, &position));
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"[find_ith_substr] invalid input"});

    const struct { const char* path; const char* base; } bases[] = {
        {"/a/b/c.bin", "c.bin"}, {"c.bin", "c.bin"}, {"/a/b/", ""}, {"/", ""}, {"", "<none>"}, {nullptr, "<none>"}};
    for (const auto& b : bases) EXPECT_EQ(text_of(obx_str_basename(b.path)), b.base) << (b.path ? b.path : "<none>");

    const struct { const char* text; const char* suffix; bool ends; } ends[] = {
        {"data.json", ".json", true}, {"data.json", "data.json", true}, {"json", ".json", false}, {"data.json", "", true}, {"a.JSON", ".json", false}};
    for (const auto& e : ends) EXPECT_EQ(obx_str_ends_with(e.text, e.suffix), e.ends) << e.text << " " << e.suffix;
}

TEST(Text, BoundedAndPrintableCopies) {
    const struct { size_t size, length, copied; const char* result; } bounded[] = {
        {8, 3, 3, "abc"}, {4, 3, 3, "abc"}, {3, 3, 2, "ab"}, {1, 5, 0, ""}, {8, 0, 0, ""}};
    for (const auto& b : bounded) {
        char out[10];
        std::memset(out, '#', sizeof(out));
        EXPECT_EQ(obx_str_copy_bounded(out, b.size, "abcdef", b.length), b.copied) << b.size << " " << b.length;
        EXPECT_STREQ(out, b.result);
        EXPECT_EQ(out[b.size], '#');  // nothing past the destination
    }
    char untouched[2] = {'#', '#'};
    EXPECT_EQ(obx_str_copy_bounded(untouched, 0, "abc", 3), 0u);
    EXPECT_EQ(untouched[0], '#');

    const struct { std::string source; size_t length; std::string result; } visible[] = {
        {"ab\x80" "c", 8, "ab"}, {"\x80" "abc", 8, "N/A"}, {"\x1f" "abc", 8, "N/A"}, {"abcdef", 4, "abc"},
        {"a~ b", 8, "a~ b"}, {"a\x7f" "b", 8, "a"}, {"", 8, ""},
    };
    for (const auto& v : visible) {
        char out[12];
        std::memset(out, '#', sizeof(out));
        EXPECT_EQ(strncpy_visible_ascii(out, v.source.c_str(), v.length), out);
        EXPECT_STREQ(out, v.result.c_str()) << v.source;
    }
}

TEST(Text, CounterColumns) {
    const struct { int width; long long value; const char* text; } cells[] = {
        {6, 999, "    999 |"}, {6, 1000, "    1 k |"}, {6, 123456, "  123 k |"}, {6, -5000, "  -5000 |"}, {2, 1234567, " 1234 k |"}};
    for (const auto& c : cells)
        EXPECT_EQ(obx_test::written([&](FILE* stream) { obx_print_counter_value(stream, c.width, c.value); }), c.text) << c.value;
}
