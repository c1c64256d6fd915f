// Sort-order strings and the ordering of input files by header keys.
#include "tools/file_sort.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fixtures/log_capture.h"

namespace {

using obx_test::LogCapture;

// The chosen key codes joined by commas, then every logged line as " | <level> <text>".
std::string choose(const char* text) {
    LogCapture log;
    obx_sort_spec_t rule;
    std::memset(&rule, 0xAB, sizeof(rule));
    obx_sort_spec_choose(text, &rule);
    std::string out;
    for (uint32_t i = 0; i < rule.num_keys; ++i) out += (i ? "," : "") + std::to_string(rule.keys[i]);
    for (const obx_test::LogLine& line : log.lines()) out += " | " + std::to_string(line.level) + " " + line.text;
    return out;
}

// Codes: 0 source_id, 1 source_tag, 2 first_timestamp; the default is 2,0,1. A bad order
// logs why (error, then warning) and falls back to the default.
TEST(SortOrder, ParseOrFallBackToDefault) {
    const auto unknown = [](const std::string& key, const std::string& text) {
        return "2,0,1 | 3 [sort] Unknown sort key: '" + key + "' | 4 Invalid sort order string '" + text +
               "'. Using default.";
    };
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "2,0,1 | 6 Sort order not specified. Using default."},
        {"", "2,0,1 | 6 Sort order not specified. Using default."},
        {"source_id", "0"},
        {"source_tag, first_timestamp", "1,2"},
        {" \tfirst_timestamp ,source_id,  source_tag ", "2,0,1"},
        {"source_id,source_id", "0,0"},
        {",,source_tag,,", "1"},
        {"source_id,source_tag,first_timestamp,bogus", "0,1,2"},  // a fourth key is never read
        {"source_id,source_id,source_id,source_id", "0,0,0"},
        {"bogus", unknown("bogus", "bogus")},
        {"source_id,Source_Tag", unknown("Source_Tag", "source_id,Source_Tag")},
        {"first timestamp", unknown("first timestamp", "first timestamp")},
        {",,", "2,0,1 | 4 Invalid sort order string ',,'. Using default."},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(choose(text), expected) << (text ? text : "(none)");
}

obx_file_entry_t entry(const char* path, const char* id, const char* tag, uint64_t ts) {
    obx_file_entry_t e = {{}, {}, ts, const_cast<char*>(path)};
    std::strcpy(e.source_id, id);
    std::strcpy(e.source_tag, tag);
    return e;
}

// Keys compare in turn, all ascending: ids and tags by strcmp ("node10" sorts between
// "node1" and "node2"), timestamps as unsigned numbers.
TEST(FileSort, OrdersByKeysInTurnAscending) {
    const std::vector<obx_file_entry_t> entries = {
        entry("a", "node2", "x", 30), entry("b", "node1", "y", 30), entry("c", "node1", "x", 10),
        entry("d", "node10", "x", 20), entry("e", "node1", "x", 0x8000000000000000ull),
    };
    const std::pair<const char*, std::string> cases[] = {  // order, paths in their new order
        {"first_timestamp,source_id,source_tag", "cdbae"},
        {"source_id, first_timestamp", "cbeda"},
        {"source_tag,source_id,first_timestamp", "cedab"},
        {"first_timestamp,source_tag", "cdabe"},
    };
    obx_sort_spec_t rule;
    for (const auto& [order, expected] : cases) {
        ASSERT_TRUE(obx_sort_spec_parse(order, &rule)) << order;
        std::vector<obx_file_entry_t> sorted = entries;
        obx_file_entries_sort(sorted.data(), sorted.size(), &rule);
        std::string paths;
        for (const obx_file_entry_t& e : sorted) paths += e.path;
        EXPECT_EQ(paths, expected) << order;
    }
    EXPECT_FALSE(obx_file_entry_before(entries[0], entries[0], rule)) << "equal entries: neither goes first";
    obx_file_entries_sort(nullptr, 0, &rule);
}

TEST(FileSort, LogsEveryEntryBeforeAndAfterAtDebug) {
    std::vector<obx_file_entry_t> entries = {entry("/d/late.bin", "n2", "t", 200), entry("/d/early.bin", "n1", "", 100)};
    obx_sort_spec_t rule;
    obx_sort_spec_set_default(&rule);
    LogCapture log(7);
    obx_file_entries_sort(entries.data(), entries.size(), &rule);
    EXPECT_EQ(log.at(7), (std::vector<std::string>{
                             "before sort: /d/late.bin \xE2\x86\x92 source_id = n2 | source_tag = t | ts = 200",
                             "before sort: /d/early.bin \xE2\x86\x92 source_id = n1 | source_tag =  | ts = 100",
                             "after sort:  /d/early.bin \xE2\x86\x92 source_id = n1 | source_tag =  | ts = 100",
                             "after sort:  /d/late.bin \xE2\x86\x92 source_id = n2 | source_tag = t | ts = 200",
                         }));
}

}  // namespace
