#include "utils/string_array.h"

#include <gtest/gtest.h>

#include <fstream>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

using obx_test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

// Owns an array (a new one of `texts`, or one adopted) for the length of a test.
struct Array {
    obx_string_array_t* raw = obx_string_array_create();
    Array(std::vector<const char*> texts = {}) { for (const char* text : texts) EXPECT_TRUE(obx_string_array_append(&raw, text)); }
    Array(std::initializer_list<const char*> texts) : Array(std::vector<const char*>(texts)) {}
    explicit Array(obx_string_array_t* adopted) : raw(adopted) {}
    Array(const Array&) = delete;
    ~Array() { obx_string_array_destroy(raw); }
    Texts texts() const { return raw ? Texts(raw->strings, raw->strings + raw->count) : Texts{"<no array>"}; }
};

}  // namespace

TEST(StringArray, AppendJoinContainsAndLog) {
    Array array(static_cast<obx_string_array_t*>(nullptr));  // appending to no array makes one
    char text[] = "first";
    ASSERT_TRUE(obx_string_array_append(&array.raw, text));
    text[0] = 'F';  // the element is a copy
    EXPECT_FALSE(obx_string_array_append(&array.raw, nullptr) || obx_string_array_append(nullptr, "x"));
    ASSERT_TRUE(obx_string_array_join(&array.raw, Array{"", "x.dat"}.raw) && obx_string_array_join(&array.raw, nullptr));
    EXPECT_EQ(array.texts(), (Texts{"first", "", "x.dat"}));
    EXPECT_TRUE(obx_string_array_contains(array.raw, "") && !obx_string_array_contains(array.raw, "First"));
    LogCapture capture(OBX_LOG_DEBUG);
    obx_string_array_log(OBX_LOG_DEBUG, array.raw, "file");
    obx_string_array_log(OBX_LOG_DEBUG, Array{"y"}.raw, nullptr);
    obx_log_set_level(OBX_LOG_INFO);
    obx_string_array_log(OBX_LOG_DEBUG, array.raw, "dropped");
    EXPECT_EQ(capture.at(OBX_LOG_DEBUG), (Texts{"file[0] = first", "file[1] = ", "file[2] = x.dat", "[0] = y"}));
}

TEST(StringArray, CommaListAndDuplicates) {
    struct Row { std::string text; size_t length; Texts elements; };
    const Row rows[] = {
        {",,a,,b,", 7, {"a", "b"}}, {" a , b", 6, {" a ", " b"}},  // no empty elements; white space is kept
        {"a,bcdef", 4, {"a", "bc"}}, {std::string("a,b\0c,d", 7), 7, {"a", "b"}},  // only `length` bytes, up to a NUL
        {std::string(1023, 'x'), 1023, {std::string(1023, 'x')}},  // the longest element that fits
    };
    for (const Row& row : rows) {
        // Copied without a terminator, so that reading past `length` is caught.
        const std::vector<char> bytes(row.text.begin(), row.text.begin() + static_cast<long>(row.length));
        EXPECT_EQ(Array(obx_string_array_from_comma_list(bytes.data(), row.length)).texts(), row.elements) << row.text.substr(0, 9);
    }
    Array array{"a", "a", "b", "b", "b", "a"};
    ASSERT_TRUE(obx_string_array_remove_duplicates(&array.raw, true));
    EXPECT_EQ(array.texts(), (Texts{"a", "b", "a"}));  // only neighbours are compared
    const std::string too_long = "a," + std::string(1024, 'y') + ",b";
    LogCapture capture(OBX_LOG_ERROR);
    EXPECT_EQ(obx_string_array_from_comma_list(too_long.data(), too_long.size()), nullptr);
    EXPECT_FALSE(obx_string_array_remove_duplicates(&array.raw, false));  // only sorted arrays are supported
    EXPECT_EQ(capture.at(OBX_LOG_ERROR),
              (Texts{"Comma list element longer than 1023 bytes", "[obx_string_array_remove_duplicates] not implemented"}));
}

TEST(StringArray, LoadFileSkipsBlanksAndCommentsAndReportsAtInfo) {
    obx_test::TempDir dir;
    const std::string path = dir.file("counters.txt"), missing = dir.file("missing.txt");
    std::ofstream(path) << "# only comments\n   # indented\n\n  port_rcv  \n\t# note\na # not a comment\r\nlast";
    Array array;
    LogCapture capture(OBX_LOG_INFO);
    EXPECT_TRUE(obx_string_array_load_file(&array.raw, path.c_str(), "counters"));
    EXPECT_FALSE(obx_string_array_load_file(&array.raw, missing.c_str(), "counters") ||
                 obx_string_array_load_file(&array.raw, missing.c_str(), nullptr));
    EXPECT_EQ(array.texts(), (Texts{"port_rcv", "a # not a comment", "last"}));
    // A file that cannot be opened is reported at info, not as an error.
    EXPECT_EQ(capture.at(OBX_LOG_INFO), (Texts{"Loading counters from " + path,
                                              "Failed to open counters file " + missing + ": No such file or directory",
                                              "Failed to open  file " + missing + ": No such file or directory"}));
}

TEST(Match, ModesOverOneList) {
    const int32_t regexp = obx_match_mode_from_string("regexp");  // the value of exact: a pattern matches only itself
    EXPECT_TRUE(regexp == OBX_MATCH_EXACT && obx_match_mode_from_string("Exact") == -1 && !obx_match_mode_to_string(2));
    struct Row { std::vector<const char*> patterns; int32_t mode; const char* name; bool hit; };
    const Row rows[] = {
        // wildcard: case-insensitive, and "p" also selects "p.<anything>"
        {{"port"}, OBX_MATCH_WILDCARD, "PORT.tx", true}, {{"port"}, OBX_MATCH_WILDCARD, "report", false},
        {{"port"}, OBX_MATCH_WILDCARD, "portx", false}, {{"*"}, OBX_MATCH_WILDCARD, "", true},
        {{"x", "eth?", "z"}, OBX_MATCH_WILDCARD, "ETH0.rx_bytes", true}, {{}, OBX_MATCH_WILDCARD, "port", false},
        {{"p.*"}, regexp, "port", false}, {{"p.*"}, regexp, "p.*", true}, {{"port"}, OBX_MATCH_EXACT, "PORT", false},
        {{"rcv"}, OBX_MATCH_CONTAINS, "port_rcv_data", true}, {{"RCV"}, OBX_MATCH_CONTAINS, "port_rcv_data", false},
        {{"port", "*"}, 2, "port", false}, {{"port"}, 7, "port", false},  // no such modes
    };
    for (const Row& row : rows)
        EXPECT_EQ(obx_string_array_match(row.name, Array(row.patterns).raw, row.mode), row.hit) << "mode " << row.mode << " name '" << row.name << "'";
    EXPECT_FALSE(obx_string_array_match("port", nullptr, OBX_MATCH_WILDCARD) || obx_string_array_match(nullptr, Array{"*"}.raw, 1));
}

TEST(Match, MatchNamesSelectsSortsAndAddsMandatory) {
    struct Row { std::vector<const char*> includes, excludes, mandatory; Texts result; };
    const Row rows[] = {  // "b" stands twice in the names
        {{"*"}, {"*err*"}, {}, {"a", "b", "b", "c"}},         // sorted, exclude wins, repeats stay
        {{"*"}, {}, {"zz"}, {"a", "b", "c", "d_err", "zz"}},  // mandatory joined, all repeats removed
    };
    const Array names{"c", "b", "d_err", "a", "b"};
    for (const Row& row : rows)
        EXPECT_EQ(Array(obx_string_array_match_names(names.raw, Array(row.includes).raw, Array(row.excludes).raw,
                                                     Array(row.mandatory).raw, OBX_MATCH_WILDCARD)).texts(), row.result);
}

TEST(Match, NameIsEnabledByTwoListsOrAConfiguration) {
    const Array ib{"ib"}, ib_any{"ib*"}, provider{"provider"}, diag{"*diag*"};
    struct Row { bool by_config; const char* name; const Array* enable; const Array* disable; bool enabled, warned; };
    const Row rows[] = {
        {false, "my_ib_provider", &ib, nullptr, true, false}, {false, "IB_PROVIDER", &ib_any, nullptr, true, false},  // contains, wildcard
        {false, "eth_provider", &ib, nullptr, false, false}, {false, "ib_provider", &ib_any, &provider, false, true},
        {false, "ib_provider", &ib_any, &ib_any, true, false},  // the disable list is contains only
        {true, "ib_diag", &ib_any, &diag, false, true}, {true, "my_ib", &ib, nullptr, false, false},  // both lists wildcard
        {true, "diag", nullptr, &diag, false, false}, {true, "eth", nullptr, nullptr, true, false},  // no lists: everything runs
    };
    for (const Row& row : rows) {
        const obx_name_config_t config = {row.enable ? row.enable->raw : nullptr, row.disable ? row.disable->raw : nullptr};
        LogCapture capture(OBX_LOG_WARNING);
        EXPECT_EQ(row.by_config ? obx_name_is_enabled_by_config(row.name, &config)
                                : obx_name_is_enabled(row.name, config.enable_list, config.disable_list), row.enabled) << row.name;
        const std::string warning = std::string("'") + row.name + "' will not run. specified in disable-provider and in enable-provider.";
        EXPECT_EQ(capture.at(OBX_LOG_WARNING), row.warned ? Texts{warning} : Texts{}) << row.name;
    }
    EXPECT_TRUE(obx_name_is_enabled_by_config("x", nullptr));
}

TEST(Match, NameMatchesComponent) {
    struct Row { const char* name; std::vector<const char*> components; bool hit; };
    const Row rows[] = {
        {"mlx5_0", {"a.b.mlx5_0.x"}, false}, {"xx_a.b_yy", {"a.b.c"}, true},  // the text before the last '.' is inside the name
        {"mlx5_0", {"mlx5_0"}, false}, {"mlx5_1", {"nodot", "mlx5_0.p", ".x"}, true},  // no '.': skipped; "" is in every name
    };
    for (const Row& row : rows) EXPECT_EQ(obx_name_matches_component(row.name, Array(row.components).raw), row.hit) << row.name;
    EXPECT_FALSE(obx_name_matches_component(nullptr, nullptr));
}
