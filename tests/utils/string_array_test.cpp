#include "utils/string_array.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

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
// also selects "p.<anything>".
TEST(StringArray, Match) {
    const struct { std::vector<std::string> patterns; const char* name; bool hit; } rows[] = {
        {{"port"}, "PORT.tx", true}, {{"port"}, "report", false}, {{"port"}, "portx", false}, {{"*"}, "", true},
        {{"x", "eth?", "z"}, "ETH0.rx_bytes", true}};
    for (const auto& row : rows) EXPECT_EQ(obx_string_array_match(row.name, Array(row.patterns).raw, OBX_MATCH_WILDCARD), row.hit) << row.name;
    EXPECT_FALSE(obx_string_array_match("port", nullptr, OBX_MATCH_WILDCARD) || obx_string_array_append(nullptr, "x") ||
                 obx_string_array_match(nullptr, Array({"*"}).raw, OBX_MATCH_WILDCARD));
}

// Every one of `length` bytes is scanned; a zero byte stays in its token, which then ends
// there as a text.
TEST(StringArray, CommaList) {
    const struct {
        std::string bytes;
        std::vector<std::string> elements;
    } rows[] = {
        {"a,,b,", {"a", "b"}},
        {std::string("a\0b,c", 5), {"a", "c"}},
        {std::string(",\0,", 3), {""}},
        {" x ,y", {" x ", "y"}},
        {"", {}},
    };
    for (const auto& row : rows) {
        obx_string_array_t* array = obx_string_array_from_comma_list(row.bytes.data(), row.bytes.size());
        ASSERT_NE(array, nullptr);
        std::vector<std::string> got(array->strings, array->strings + array->count);
        EXPECT_EQ(got, row.elements) << row.bytes;
        obx_string_array_destroy(array);
    }
    obx_string_array_t* cut = obx_string_array_from_comma_list("abc,d", 2);  // only the bytes given
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(std::vector<std::string>(cut->strings, cut->strings + cut->count), std::vector<std::string>{"ab"});
    obx_string_array_destroy(cut);
}

namespace {

std::vector<std::string> texts_of(const obx_string_array_t* array) {
    return array ? std::vector<std::string>(array->strings, array->strings + array->count) : std::vector<std::string>{"<none>"};
}

// The texts of a new array, which is then freed.
std::vector<std::string> taken(obx_string_array_t* array) {
    std::vector<std::string> texts = texts_of(array);
    obx_string_array_destroy(array);
    return texts;
}

}  // namespace

// Every mode by text and by value; "regexp" is read as exact, and mode 2 matches nothing.
TEST(StringArray, ModesFilterAndSelection) {
    EXPECT_EQ(obx_match_mode_from_string("exact"), 0);
    EXPECT_EQ(obx_match_mode_from_string("wildcard"), 1);
    EXPECT_EQ(obx_match_mode_from_string("regexp"), 0);
    EXPECT_EQ(obx_match_mode_from_string("contains"), 3);
    EXPECT_EQ(obx_match_mode_from_string("Exact"), -1);
    EXPECT_STREQ(obx_match_mode_to_string(0), "exact");
    EXPECT_STREQ(obx_match_mode_to_string(3), "contains");
    EXPECT_EQ(obx_match_mode_to_string(2), nullptr);

    const Array list({"rx.*", "port", "tx"});
    const struct { const char* name; int32_t mode; bool hit; } rows[] = {
        {"port", OBX_MATCH_EXACT, true}, {"PORT", OBX_MATCH_EXACT, false}, {"rx.bytes", OBX_MATCH_EXACT, false},
        {"rx.*", OBX_MATCH_EXACT, true},  // a pattern matches only itself when exact
        {"report", OBX_MATCH_CONTAINS, true}, {"t_x", OBX_MATCH_CONTAINS, false},
        {"RX.bytes", OBX_MATCH_WILDCARD, true}, {"port.rx", OBX_MATCH_WILDCARD, true}, {"txt", OBX_MATCH_WILDCARD, false},
        {"port", 2, false}, {"port", 4, false}, {"port", -1, false},
    };
    for (const auto& row : rows) EXPECT_EQ(obx_string_array_match(row.name, list.raw, row.mode), row.hit) << row.name << " " << row.mode;
    const Array empty({});
    EXPECT_FALSE(obx_string_array_match("x", empty.raw, OBX_MATCH_WILDCARD));

    const Array names({"rx_bytes", "tx_bytes", "rx_errors", "temp"});
    EXPECT_EQ(taken(obx_string_array_filter(names.raw, Array({"rx_*"}).raw, OBX_MATCH_WILDCARD, true)),
              (std::vector<std::string>{"rx_bytes", "rx_errors"}));
    EXPECT_EQ(taken(obx_string_array_filter(names.raw, Array({"rx_*"}).raw, OBX_MATCH_WILDCARD, false)),
              (std::vector<std::string>{"tx_bytes", "temp"}));
    // Includes, then excludes (which win), then the mandatory names, sorted, repeats gone;
    // without mandatory names the result is sorted and repeats stay.
    const Array repeated({"b", "a", "b", "c"});
    EXPECT_EQ(taken(obx_string_array_match_names(names.raw, Array({"*_bytes", "temp"}).raw, Array({"tx*"}).raw,
                                                 Array({"temp", "zz"}).raw, OBX_MATCH_WILDCARD)),
              (std::vector<std::string>{"rx_bytes", "temp", "zz"}));
    EXPECT_EQ(taken(obx_string_array_match_names(repeated.raw, Array({"*"}).raw, Array({}).raw, nullptr, OBX_MATCH_WILDCARD)),
              (std::vector<std::string>{"a", "b", "b", "c"}));
    EXPECT_EQ(obx_string_array_match_names(nullptr, names.raw, nullptr, nullptr, OBX_MATCH_WILDCARD), nullptr);
}

TEST(StringArray, JoinContainsDuplicatesAndFiles) {
    Array joined({"a"});
    EXPECT_TRUE(obx_string_array_join(&joined.raw, Array({"b", "a"}).raw));
    EXPECT_EQ(texts_of(joined.raw), (std::vector<std::string>{"a", "b", "a"}));
    EXPECT_TRUE(obx_string_array_contains(joined.raw, "b"));
    EXPECT_FALSE(obx_string_array_contains(joined.raw, "B"));
    EXPECT_FALSE(obx_string_array_append(&joined.raw, nullptr));
    EXPECT_EQ(joined.raw->count, 3u);

    // Only neighbours are compared; an unsorted array is refused.
    const struct { std::vector<std::string> texts; bool sorted, ok; std::vector<std::string> left; } dedup[] = {
        {{"a", "a", "b"}, true, true, {"a", "b"}}, {{"a", "b", "a"}, true, true, {"a", "b", "a"}},
        {{"a", "a", "a"}, true, true, {"a"}}, {{"a", "a"}, false, false, {"a", "a"}}, {{}, false, true, {}},
    };
    for (const auto& d : dedup) {
        Array array(d.texts);
        if (!array.raw) array.raw = obx_string_array_create();
        EXPECT_EQ(obx_string_array_remove_duplicates(&array.raw, d.sorted), d.ok);
        EXPECT_EQ(texts_of(array.raw), d.left);
    }

    // Lines trimmed; blank lines and comments skipped; a missing file is told at info level.
    obx_test::TempDir dir;
    std::ofstream(dir.file("list")) << "  first  \n\n# comment\n   # indented comment\nsecond\n\t\n";
    std::ofstream(dir.file("comments")) << "# only\n";
    obx_string_array_t* loaded = nullptr;
    EXPECT_TRUE(obx_string_array_load_file(&loaded, dir.file("list").c_str(), "providers"));
    EXPECT_EQ(texts_of(loaded), (std::vector<std::string>{"first", "second"}));
    obx_string_array_destroy(loaded);
    loaded = obx_string_array_create();
    EXPECT_TRUE(obx_string_array_load_file(&loaded, dir.file("comments").c_str(), nullptr));
    EXPECT_EQ(loaded->count, 0u);
    obx_test::LogCapture log(OBX_LOG_DEBUG);
    EXPECT_FALSE(obx_string_array_load_file(&loaded, dir.file("none").c_str(), "providers"));
    EXPECT_EQ(log.at(OBX_LOG_INFO), std::vector<std::string>{"Failed to open providers file " + dir.file("none") + ": No such file or directory"});
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty());
    obx_string_array_destroy(loaded);
}

// Providers: enabled by wildcard or contains, disabled by contains (wins, with a warning);
// by configuration both lists are wildcard, and no lists at all enable everything.
TEST(StringArray, NamesEnabledAndComponents) {
    const Array enable({"net*", "disk"}), disable({"net_b"});
    const struct { const char* name; bool enabled; bool warned; } rows[] = {
        {"net_a", true, false}, {"my_disk_x", true, false}, {"net_b", false, true}, {"cpu", false, false}};
    for (const auto& row : rows) {
        obx_test::LogCapture log;
        EXPECT_EQ(obx_name_is_enabled(row.name, enable.raw, disable.raw), row.enabled) << row.name;
        EXPECT_EQ(log.at(OBX_LOG_WARNING).size(), row.warned ? 1u : 0u) << row.name;
    }
    obx_test::LogCapture log;
    EXPECT_FALSE(obx_name_is_enabled("net_b", enable.raw, disable.raw));
    EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>{"'net_b' will not run. specified in disable-provider and in enable-provider."});

    const obx_name_config_t config{enable.raw, disable.raw}, none{nullptr, nullptr};
    EXPECT_TRUE(obx_name_is_enabled_by_config("anything", nullptr));
    EXPECT_TRUE(obx_name_is_enabled_by_config("anything", &none));
    EXPECT_TRUE(obx_name_is_enabled_by_config("net_a", &config));
    EXPECT_FALSE(obx_name_is_enabled_by_config("my_disk_x", &config));  // wildcard here, not contains
    EXPECT_FALSE(obx_name_is_enabled_by_config("net_b", &config));

    const Array components({"hca.port.rx", "nodot", "eth.tx"});
    EXPECT_TRUE(obx_name_matches_component("my_hca.port_x", components.raw));  // text before the last '.'
    EXPECT_TRUE(obx_name_matches_component("eth0", components.raw));
    EXPECT_FALSE(obx_name_matches_component("nodot", components.raw));
    EXPECT_FALSE(obx_name_matches_component("hca", components.raw));
}
