#include "utils/string_array.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

using obx_test::LogCapture;

namespace {

using Texts = std::vector<std::string>;

// Owns an obx_string_array_t for the length of a test.
class Array {
public:
    Array() = default;
    Array(std::initializer_list<const char*> texts) : Array(std::vector<const char*>(texts)) {}
    explicit Array(const std::vector<const char*>& texts) {
        for (const char* text : texts) EXPECT_TRUE(obx_string_array_append(&array_, text));
    }
    explicit Array(obx_string_array_t* adopted) : array_(adopted) {}
    ~Array() { obx_string_array_destroy(array_); }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;

    obx_string_array_t* get() const { return array_; }
    obx_string_array_t** address() { return &array_; }
    Texts texts() const {
        Texts out;
        if (array_)
            for (uint64_t i = 0; i < array_->count; ++i) out.emplace_back(array_->strings[i]);
        return out;
    }

private:
    obx_string_array_t* array_ = nullptr;
};

}  // namespace

TEST(StringArray, AppendCopiesAndKeepsOrder) {
    Array array(obx_string_array_create());
    ASSERT_NE(array.get(), nullptr);
    EXPECT_EQ(array.get()->count, 0u);
    char text[] = "first";
    ASSERT_TRUE(obx_string_array_append(array.address(), text));
    text[0] = 'F';  // the element is a copy
    ASSERT_TRUE(obx_string_array_append(array.address(), ""));
    ASSERT_TRUE(obx_string_array_append(array.address(), "third"));
    EXPECT_EQ(array.texts(), (Texts{"first", "", "third"}));

    EXPECT_FALSE(obx_string_array_append(array.address(), nullptr));
    EXPECT_EQ(array.get()->count, 3u);
    EXPECT_FALSE(obx_string_array_append(nullptr, "x"));
    obx_string_array_destroy(nullptr);

    Array made;  // appending to no array makes one
    ASSERT_TRUE(obx_string_array_append(made.address(), "a"));
    EXPECT_EQ(made.texts(), Texts{"a"});
}

TEST(StringArray, ContainsAndJoin) {
    Array array{"a", "b"};
    const Array other{"c", "a"};
    EXPECT_TRUE(obx_string_array_contains(array.get(), "b"));
    EXPECT_FALSE(obx_string_array_contains(array.get(), "B"));
    EXPECT_FALSE(obx_string_array_contains(array.get(), nullptr));
    EXPECT_FALSE(obx_string_array_contains(nullptr, "a"));
    ASSERT_TRUE(obx_string_array_join(array.address(), other.get()));
    EXPECT_EQ(array.texts(), (Texts{"a", "b", "c", "a"}));
    ASSERT_TRUE(obx_string_array_join(array.address(), nullptr));
    EXPECT_EQ(array.get()->count, 4u);
    Array empty;
    ASSERT_TRUE(obx_string_array_join(empty.address(), other.get()));
    EXPECT_EQ(empty.texts(), (Texts{"c", "a"}));
}

TEST(StringArray, LogWritesOneLinePerElement) {
    const Array array{"x.dat", "y.dat"};
    LogCapture capture(OBX_LOG_DEBUG);
    obx_string_array_log(OBX_LOG_DEBUG, array.get(), "data file");
    obx_string_array_log(OBX_LOG_DEBUG, array.get(), nullptr);
    EXPECT_EQ(capture.at(OBX_LOG_DEBUG), (Texts{"data file[0] = x.dat", "data file[1] = y.dat", "[0] = x.dat", "[1] = y.dat"}));
    capture.clear();
    obx_log_set_level(OBX_LOG_INFO);
    obx_string_array_log(OBX_LOG_DEBUG, array.get(), "data file");
    EXPECT_TRUE(capture.lines().empty());
}

TEST(StringArray, CommaList) {
    struct Row {
        std::string text;
        size_t length;
        Texts elements;
    };
    const Row rows[] = {
        {"a,b,c", 5, {"a", "b", "c"}},
        {",,a,,b,", 7, {"a", "b"}},  // no empty elements from runs or ends
        {" a , b", 6, {" a ", " b"}},  // white space is kept
        {"a,bcdef", 4, {"a", "bc"}},   // only `length` bytes are read
        {"", 0, {}},
        {",,,", 3, {}},
        {"one", 3, {"one"}},
        {std::string("a,b\0c,d", 7), 7, {"a", "b"}},  // a NUL ends the text early
        {std::string("\0\0x", 3), 3, {}},
    };
    for (const Row& row : rows) {
        // The text is copied without its terminator, so reading past `length` is caught.
        std::vector<char> bytes(row.text.begin(), row.text.begin() + static_cast<long>(row.length));
        Array array(obx_string_array_from_comma_list(bytes.data(), row.length));
        ASSERT_NE(array.get(), nullptr) << row.text;
        EXPECT_EQ(array.texts(), row.elements) << row.text;
    }
}

TEST(StringArray, CommaListRefusesAnElementLongerThanItsBuffer) {
    const std::string fits(1023, 'x');
    Array ok(obx_string_array_from_comma_list(fits.data(), fits.size()));
    ASSERT_NE(ok.get(), nullptr);
    EXPECT_EQ(ok.texts(), Texts{fits});

    const std::string too_long = "a," + std::string(1024, 'y') + ",b";
    LogCapture capture(OBX_LOG_ERROR);
    EXPECT_EQ(obx_string_array_from_comma_list(too_long.data(), too_long.size()), nullptr);
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), Texts{"Comma list element longer than 1023 bytes"});
    EXPECT_EQ(obx_string_array_from_comma_list(nullptr, 3), nullptr);
}

TEST(StringArray, RemoveDuplicatesComparesNeighbours) {
    struct Row {
        std::vector<const char*> input;
        Texts output;
    };
    const Row rows[] = {
        {{"a", "a", "b"}, {"a", "b"}},
        {{"a", "b", "a"}, {"a", "b", "a"}},  // only neighbours are compared
        {{"a", "a", "a"}, {"a"}},
        {{"a", "b", "b", "c", "c"}, {"a", "b", "c"}},
        {{"x"}, {"x"}},
    };
    for (const Row& row : rows) {
        Array array(row.input);
        ASSERT_TRUE(obx_string_array_remove_duplicates(array.address(), true));
        EXPECT_EQ(array.texts(), row.output);
        EXPECT_EQ(array.get()->count, row.output.size());
    }
}

TEST(StringArray, RemoveDuplicatesOfUnsortedIsRefused) {
    Array empty(obx_string_array_create());
    EXPECT_TRUE(obx_string_array_remove_duplicates(empty.address(), false));  // empty: no further test
    Array array{"b", "a", "b"};
    LogCapture capture(OBX_LOG_ERROR);
    EXPECT_FALSE(obx_string_array_remove_duplicates(array.address(), false));
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), Texts{"[obx_string_array_remove_duplicates] not implemented"});
    EXPECT_EQ(array.texts(), (Texts{"b", "a", "b"}));
}

TEST(StringArray, LoadFileSkipsBlanksAndComments) {
    struct Row {
        std::string content;
        Texts elements;
    };
    const Row rows[] = {
        {"# only comments\n   # indented comment\n\n", {}},
        {"  port_rcv  \nport_xmit\n\n\t# note\nlast", {"port_rcv", "port_xmit", "last"}},
        {"a # not a comment\r\n", {"a # not a comment"}},
        {"", {}},
    };
    obx_test::TempDir dir;
    for (const Row& row : rows) {
        const std::string path = dir.file("list.txt");
        std::ofstream(path) << row.content;
        Array array(obx_string_array_create());
        EXPECT_TRUE(obx_string_array_load_file(array.address(), path.c_str(), nullptr)) << row.content;
        EXPECT_EQ(array.texts(), row.elements) << row.content;
    }
}

TEST(StringArray, LoadFileReportsWhatItDoes) {
    obx_test::TempDir dir;
    const std::string path = dir.file("counters.txt");
    std::ofstream(path) << "a\n";
    const std::string missing = dir.file("missing.txt");
    Array array;
    LogCapture capture(OBX_LOG_INFO);
    EXPECT_TRUE(obx_string_array_load_file(array.address(), path.c_str(), "counters"));
    EXPECT_FALSE(obx_string_array_load_file(array.address(), missing.c_str(), "counters"));
    EXPECT_FALSE(obx_string_array_load_file(array.address(), missing.c_str(), nullptr));
    // A file that cannot be opened is reported at info, not as an error.
    EXPECT_EQ(capture.at(OBX_LOG_INFO), (Texts{"Loading counters from " + path,
                                              "Failed to open counters file " + missing + ": No such file or directory",
                                              "Failed to open  file " + missing + ": No such file or directory"}));
    EXPECT_TRUE(capture.at(OBX_LOG_ERROR).empty());
    EXPECT_EQ(array.texts(), Texts{"a"});
}

TEST(MatchMode, TableKeepsItsQuirks) {
    struct Row {
        const char* text;
        int32_t value;
    };
    const Row rows[] = {
        {"exact", 0}, {"wildcard", 1}, {"regexp", 0},  // selects exact matching
        {"contains", 3}, {"Exact", -1}, {"", -1}, {nullptr, -1},
    };
    for (const Row& row : rows)
        EXPECT_EQ(obx_match_mode_from_string(row.text), row.value) << (row.text ? row.text : "<null>");
    EXPECT_STREQ(obx_match_mode_to_string(0), "exact");  // the first row with the value
    EXPECT_STREQ(obx_match_mode_to_string(1), "wildcard");
    EXPECT_STREQ(obx_match_mode_to_string(3), "contains");
    EXPECT_EQ(obx_match_mode_to_string(2), nullptr);
    EXPECT_EQ(obx_match_mode_to_string(-1), nullptr);  // the end row is no entry

    const obx_name_table_t* end = obx_match_mode_names;
    while (end->name) ++end;
    EXPECT_EQ(end->value, -1);
    EXPECT_EQ(end - obx_match_mode_names, 4);
}

TEST(Match, ModesOverOneList) {
    struct Row {
        std::vector<const char*> patterns;
        int32_t mode;
        const char* name;
        bool hit;
    };
    const int32_t regexp = obx_match_mode_from_string("regexp");
    const Row rows[] = {
        // wildcard: case-insensitive, and "p" also selects "p.<anything>"
        {{"port"}, OBX_MATCH_WILDCARD, "port", true},
        {{"port"}, OBX_MATCH_WILDCARD, "PORT", true},
        {{"port"}, OBX_MATCH_WILDCARD, "port.rx", true},
        {{"port"}, OBX_MATCH_WILDCARD, "PORT.tx", true},
        {{"port"}, OBX_MATCH_WILDCARD, "report", false},
        {{"port"}, OBX_MATCH_WILDCARD, "portx", false},
        {{"port"}, OBX_MATCH_WILDCARD, "port.", true},
        {{"*"}, OBX_MATCH_WILDCARD, "", true},
        {{"*"}, OBX_MATCH_WILDCARD, "anything.at.all", true},
        {{"eth?"}, OBX_MATCH_WILDCARD, "ETH0.rx_bytes", true},
        {{"[ab]*"}, OBX_MATCH_WILDCARD, "Beta", true},
        {{"x", "y*", "z"}, OBX_MATCH_WILDCARD, "yes", true},
        // exact
        {{"port"}, OBX_MATCH_EXACT, "port", true},
        {{"port"}, OBX_MATCH_EXACT, "PORT", false},
        {{"port"}, OBX_MATCH_EXACT, "port.rx", false},
        {{"p.*"}, regexp, "port", false},  // "regexp" is exact: a pattern matches only itself
        {{"p.*"}, regexp, "p.*", true},
        // contains: the element inside the name
        {{"rcv"}, OBX_MATCH_CONTAINS, "port_rcv_data", true},
        {{"RCV"}, OBX_MATCH_CONTAINS, "port_rcv_data", false},
        {{"port_rcv_data_x"}, OBX_MATCH_CONTAINS, "port_rcv_data", false},
        // mode 2 and unknown modes find nothing
        {{"port", "*"}, 2, "port", false},
        {{"port"}, 7, "port", false},
        {{"port"}, -1, "port", false},
        // an empty list matches nothing, not even with "*" semantics
        {{}, OBX_MATCH_WILDCARD, "port", false},
    };
    for (const Row& row : rows) {
        const Array patterns(row.patterns);
        EXPECT_EQ(obx_string_array_match(row.name, patterns.get(), row.mode), row.hit)
            << "mode " << row.mode << " name '" << row.name << "' first pattern "
            << (row.patterns.empty() ? "<none>" : row.patterns[0]);
    }
    const Array any{"*"};
    EXPECT_FALSE(obx_string_array_match("port", nullptr, OBX_MATCH_WILDCARD));
    EXPECT_FALSE(obx_string_array_match(nullptr, any.get(), OBX_MATCH_WILDCARD));
}

TEST(Match, MatchNamesSelectsSortsAndAddsMandatory) {
    struct Row {
        std::vector<const char*> includes;
        std::vector<const char*> excludes;
        std::vector<const char*> mandatory;
        Texts result;
    };
    // "b" appears twice in the input on purpose.
    const Row rows[] = {
        {{"*"}, {}, {}, {"a", "b", "b", "c", "d_err"}},                // sorted, duplicates stay
        {{"*"}, {"*err*"}, {}, {"a", "b", "b", "c"}},                  // exclude wins
        {{"b", "d*"}, {"d*"}, {}, {"b", "b"}},
        {{"c"}, {}, {"a", "c"}, {"a", "c"}},                          // mandatory joined, repeats removed
        {{"*"}, {}, {"zz"}, {"a", "b", "c", "d_err", "zz"}},          // also the input's own repeats
        {{}, {}, {"m"}, {"m"}},                                        // nothing included
        {{"*"}, {"*"}, {}, {}},
    };
    const Array names{"c", "b", "d_err", "a", "b"};
    for (const Row& row : rows) {
        const Array includes(row.includes), excludes(row.excludes), mandatory(row.mandatory);
        Array result(obx_string_array_match_names(names.get(), includes.get(), excludes.get(), mandatory.get(),
                                                  OBX_MATCH_WILDCARD));
        ASSERT_NE(result.get(), nullptr);
        EXPECT_EQ(result.texts(), row.result);
    }
    EXPECT_EQ(obx_string_array_match_names(nullptr, names.get(), nullptr, nullptr, OBX_MATCH_WILDCARD), nullptr);
}

TEST(Match, NameIsEnabledByTwoLists) {
    struct Row {
        const char* name;
        std::vector<const char*> enable;
        std::vector<const char*> disable;
        bool enabled;
        bool warned;
    };
    const Row rows[] = {
        {"ib_provider", {"ib*"}, {}, true, false},        // wildcard
        {"my_ib_provider", {"ib"}, {}, true, false},      // contains
        {"IB_PROVIDER", {"ib*"}, {}, true, false},        // wildcard ignores case
        {"eth_provider", {"ib"}, {}, false, false},
        {"ib_provider", {"ib*"}, {"provider"}, false, true},  // disabled by contains
        {"ib_provider", {"ib*"}, {"ib*"}, true, false},   // disable list is contains only
        {"ib_provider", {}, {}, false, false},
    };
    for (const Row& row : rows) {
        const Array enable(row.enable), disable(row.disable);
        LogCapture capture(OBX_LOG_WARNING);
        EXPECT_EQ(obx_name_is_enabled(row.name, enable.get(), disable.get()), row.enabled) << row.name;
        const Texts expected = row.warned ? Texts{std::string("'") + row.name +
                                                  "' will not run. specified in disable-provider and in enable-provider."}
                                          : Texts{};
        EXPECT_EQ(capture.at(OBX_LOG_WARNING), expected) << row.name;
    }
}

TEST(Match, NameIsEnabledByConfiguration) {
    const Array enable{"ib*"};
    const Array disable{"*diag*"};
    struct Row {
        const char* name;
        const obx_string_array_t* enable;
        const obx_string_array_t* disable;
        bool enabled;
        bool warned;
    };
    const Row rows[] = {
        {"ib_counters", enable.get(), disable.get(), true, false},
        {"ib_diag", enable.get(), disable.get(), false, true},
        {"eth", enable.get(), disable.get(), false, false},
        {"eth", nullptr, nullptr, true, false},  // no lists: everything runs
        {"eth", nullptr, disable.get(), false, false},
        {"ib_counters", enable.get(), nullptr, true, false},
        {"diag", nullptr, disable.get(), false, false},
    };
    for (const Row& row : rows) {
        const obx_name_config_t configuration = {row.enable, row.disable};
        LogCapture capture(OBX_LOG_WARNING);
        EXPECT_EQ(obx_name_is_enabled_by_config(row.name, &configuration), row.enabled) << row.name;
        EXPECT_EQ(capture.at(OBX_LOG_WARNING).size(), row.warned ? 1u : 0u) << row.name;
    }
    EXPECT_TRUE(obx_name_is_enabled_by_config("x", nullptr));
}

TEST(Match, NameMatchesComponent) {
    struct Row {
        const char* name;
        std::vector<const char*> components;
        bool hit;
    };
    const Row rows[] = {
        {"mlx5_0.port1", {"mlx5_0.counters"}, true},       // text before the last '.'
        {"mlx5_0", {"a.b.mlx5_0.x"}, false},               // "a.b.mlx5_0" is not inside
        {"xx_a.b_yy", {"a.b.c"}, true},
        {"mlx5_0", {"mlx5_0"}, false},                     // no '.': skipped
        {"anything", {".x"}, true},                        // empty component is inside every name
        {"mlx5_1", {"nodot", "mlx5_0.p", "mlx5_1.p"}, true},
        {"mlx5_1", {}, false},
    };
    for (const Row& row : rows) {
        const Array components(row.components);
        EXPECT_EQ(obx_name_matches_component(row.name, components.get()), row.hit) << row.name;
    }
    EXPECT_FALSE(obx_name_matches_component(nullptr, nullptr));
}
