// Sort-order strings and the ordering of input files by header keys.
#include "tools/file_sort.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"

namespace {

using obx_test::LogCapture;

const uint32_t ID = OBX_SORT_KEY_SOURCE_ID;
const uint32_t TAG = OBX_SORT_KEY_SOURCE_TAG;
const uint32_t TS = OBX_SORT_KEY_FIRST_TIMESTAMP;

struct ParseCase {
    const char* text;
    bool ok;
    std::vector<uint32_t> keys;  // checked when ok
    const char* error;           // logged at error, or nullptr for none
};

TEST(SortOrder, ParseTable) {
    const ParseCase cases[] = {
        {"source_id", true, {ID}, nullptr},
        {"source_tag, first_timestamp", true, {TAG, TS}, nullptr},
        {" \tfirst_timestamp ,source_id,  source_tag ", true, {TS, ID, TAG}, nullptr},
        {"source_id,source_id", true, {ID, ID}, nullptr},
        {",,source_tag,,", true, {TAG}, nullptr},
        {"source_id,source_tag,first_timestamp,bogus", true, {ID, TAG, TS}, nullptr},
        {"source_id,source_id,source_id,source_id", true, {ID, ID, ID}, nullptr},
        {"bogus", false, {}, "[sort] Unknown sort key: 'bogus'"},
        {"source_id,Source_Tag", false, {}, "[sort] Unknown sort key: 'Source_Tag'"},
        {"source_id;source_tag", false, {}, "[sort] Unknown sort key: 'source_id;source_tag'"},
        {"first timestamp", false, {}, "[sort] Unknown sort key: 'first timestamp'"},
        {",,", false, {}, nullptr},
        {"  ", false, {}, nullptr},
        {"", false, {}, nullptr},
    };
    for (const ParseCase& c : cases) {
        LogCapture log;
        obx_sort_spec_t spec;
        std::memset(&spec, 0xAB, sizeof(spec));
        EXPECT_EQ(obx_sort_spec_parse(c.text, &spec), c.ok) << "'" << c.text << "'";
        if (c.ok) {
            ASSERT_EQ(spec.num_keys, c.keys.size()) << c.text;
            for (size_t i = 0; i < c.keys.size(); ++i) EXPECT_EQ(spec.keys[i], c.keys[i]) << c.text << " key " << i;
        }
        const std::vector<std::string> errors = log.at(3);
        if (c.error) {
            EXPECT_EQ(errors, std::vector<std::string>{c.error}) << log.all();
        } else {
            EXPECT_TRUE(errors.empty()) << c.text << ": " << log.all();
        }
    }
    obx_sort_spec_t spec;
    EXPECT_FALSE(obx_sort_spec_parse(nullptr, &spec));
    EXPECT_FALSE(obx_sort_spec_parse("source_id", nullptr));
}

TEST(SortOrder, ChooseFallsBackToDefaultWithTheRightLevel) {
    const struct {
        const char* text;
        uint32_t level;  // of the one line expected; 0 for none
        std::string line;
        std::vector<uint32_t> keys;
    } cases[] = {
        {nullptr, 6, "Sort order not specified. Using default.", {TS, ID, TAG}},
        {"", 6, "Sort order not specified. Using default.", {TS, ID, TAG}},
        {"bogus", 4, "Invalid sort order string 'bogus'. Using default.", {TS, ID, TAG}},
        {",,", 4, "Invalid sort order string ',,'. Using default.", {TS, ID, TAG}},
        {"source_tag", 0, "", {TAG}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        obx_sort_spec_t spec;
        obx_sort_spec_choose(c.text, &spec);
        ASSERT_EQ(spec.num_keys, c.keys.size());
        for (size_t i = 0; i < c.keys.size(); ++i) EXPECT_EQ(spec.keys[i], c.keys[i]);
        if (c.level) {
            EXPECT_EQ(log.at(c.level), std::vector<std::string>{c.line}) << log.all();
        } else {
            EXPECT_TRUE(log.at(4).empty() && log.at(6).empty()) << log.all();
        }
    }
}

obx_file_entry_t entry(const char* path, const char* id, const char* tag, uint64_t ts) {
    obx_file_entry_t e;
    std::memset(&e, 0, sizeof(e));
    std::strncpy(e.source_id, id, sizeof(e.source_id) - 1);
    std::strncpy(e.source_tag, tag, sizeof(e.source_tag) - 1);
    e.first_timestamp = ts;
    e.path = const_cast<char*>(path);
    return e;
}

std::vector<std::string> sorted_paths(std::vector<obx_file_entry_t> entries, const obx_sort_spec_t& spec) {
    obx_file_entries_sort(entries.data(), entries.size(), &spec);
    std::vector<std::string> paths;
    for (const obx_file_entry_t& e : entries) paths.push_back(e.path);
    return paths;
}

TEST(FileSort, OrdersByKeysInTurnAscending) {
    const std::vector<obx_file_entry_t> entries = {
        entry("a", "node2", "x", 30), entry("b", "node1", "y", 30), entry("c", "node1", "x", 10),
        entry("d", "node10", "x", 20), entry("e", "node1", "x", 0xFFFFFFFFFFFFFFFFull),
    };
    obx_sort_spec_t spec;
    obx_sort_spec_set_default(&spec);
    EXPECT_EQ(sorted_paths(entries, spec), (std::vector<std::string>{"c", "d", "b", "a", "e"}));

    const struct {
        const char* order;
        std::vector<std::string> paths;
    } cases[] = {
        // strcmp: "node10" sorts between "node1" and "node2"
        {"source_id, first_timestamp", {"c", "b", "e", "d", "a"}},
        {"source_tag,source_id,first_timestamp", {"c", "e", "d", "a", "b"}},
        {"first_timestamp,source_tag", {"c", "d", "a", "b", "e"}},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(obx_sort_spec_parse(c.order, &spec)) << c.order;
        EXPECT_EQ(sorted_paths(entries, spec), c.paths) << c.order;
    }
}

// Timestamps compare as unsigned numbers, not as signed or as text.
TEST(FileSort, TimestampsCompareUnsigned) {
    obx_sort_spec_t spec = {{TS, 0, 0}, 1};
    const obx_file_entry_t high = entry("high", "", "", 0x8000000000000000ull);
    const obx_file_entry_t low = entry("low", "", "", 9);
    const obx_file_entry_t mid = entry("mid", "", "", 10);
    EXPECT_TRUE(obx_file_entry_before(low, high, spec));
    EXPECT_FALSE(obx_file_entry_before(high, low, spec));
    EXPECT_TRUE(obx_file_entry_before(low, mid, spec));
    EXPECT_FALSE(obx_file_entry_before(mid, mid, spec)) << "equal entries: neither goes first";
}

TEST(FileSort, EmptyAndSingleListsAreLeftAlone) {
    obx_sort_spec_t spec;
    obx_sort_spec_set_default(&spec);
    obx_file_entries_sort(nullptr, 0, &spec);
    EXPECT_EQ(sorted_paths({entry("only", "a", "b", 1)}, spec), std::vector<std::string>{"only"});
}

TEST(FileSort, LogsEveryEntryBeforeAndAfterAtDebug) {
    std::vector<obx_file_entry_t> entries = {entry("/d/late.bin", "n2", "t", 200), entry("/d/early.bin", "n1", "", 100)};
    obx_sort_spec_t spec;
    obx_sort_spec_set_default(&spec);
    LogCapture log(7);
    obx_file_entries_sort(entries.data(), entries.size(), &spec);
    EXPECT_EQ(log.at(7), (std::vector<std::string>{
                             "before sort: /d/late.bin \xE2\x86\x92 source_id = n2 | source_tag = t | ts = 200",
                             "before sort: /d/early.bin \xE2\x86\x92 source_id = n1 | source_tag =  | ts = 100",
                             "after sort:  /d/early.bin \xE2\x86\x92 source_id = n1 | source_tag =  | ts = 100",
                             "after sort:  /d/late.bin \xE2\x86\x92 source_id = n2 | source_tag = t | ts = 200",
                         }));
    LogCapture quiet(6);
    obx_file_entries_sort(entries.data(), entries.size(), &spec);
    EXPECT_TRUE(quiet.lines().empty());
}

}  // namespace
