// Parsing of the command line into the options record, and the two folder helpers.
#include "tools/read_options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "fixtures/temp_dir.h"

namespace {

using obx_test::TempDir;

std::string list(const obx_string_array_t* array) {
    std::string text = "[";
    for (uint64_t i = 0; array && i < array->count; ++i) text += (i ? "," : "") + std::string(array->strings[i]);
    return text + "]";
}

// Parses the words (behind "-s ." so that no schema search runs) and sums up the record
// in one line, or gives what it wrote when it failed.
std::string parse(std::vector<std::string> words) {
    words.insert(words.begin(), {"obx_read", "-s", "."});
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    obx_read_options_t o{};
    testing::internal::CaptureStderr();
    const obx_read_parse_result_t result =
        obx_read_options_parse_command_line(&o, static_cast<int>(argv.size() - 1), argv.data());
    std::string text = "failed: " + testing::internal::GetCapturedStderr();
    if (result == OBX_READ_PARSE_OK)
        text = "v" + std::to_string(o.verbosity) + " f" + std::to_string(o.format) + " g" +
               std::to_string(o.timestamp_gt) + " l" + std::to_string(o.timestamp_lt) + " i" +
               list(o.include_counters) + " e" + list(o.exclude_counters) + " in" + list(o.data_files) + " p" +
               std::to_string(o.print_headers) + " S" + std::to_string(o.sort_files) + ":" +
               (o.sort_order ? o.sort_order : "-");
    obx_read_options_release(&o);
    return text;
}

// The table also parses many times in one process: getopt must start over each time.
TEST(ReadOptions, ParseTable) {
    const std::string flags = " i[*] e[] in[] p0 S0:-";  // defaults of the lists and flags
    const std::string num = "v6 f0 g0 l18446744073709551615";  // and of the numbers
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, num + flags},
        {{"-v", "0x3"}, "v3 f0 g0 l18446744073709551615" + flags},
        {{"-v", "07"}, "v7 f0 g0 l18446744073709551615" + flags},
        {{"--verbose=0", "-f", "txt"}, "v0 f2 g0 l18446744073709551615" + flags},
        {{"-g", "0x10", "-l", "100"}, "v6 f0 g16 l100" + flags},
        {{"--timestamp-gt=18446744073709551615", "-l0"}, "v6 f0 g18446744073709551615 l0" + flags},
        {{"-i", "cpu*", "--include-counters", "mem", "-e", "x", "--exclude-counters=y"},
         num + " i[cpu*,mem] e[x,y] in[] p0 S0:-"},
        {{"-e", "*"}, num + " i[*] e[*] in[] p0 S0:-"},
        {{"-p"}, num + " i[*] e[] in[] p1 S0:-"},
        {{"--print-page-info", "a", "b"}, num + " i[*] e[] in[a,b] p1 S0:-"},
        // -S takes only an attached argument; an empty one means none.
        {{"-S"}, num + " i[*] e[] in[] p0 S1:-"},
        {{"-Ssource_id"}, num + " i[*] e[] in[] p0 S1:source_id"},
        {{"--sort-files=source_tag, first_timestamp"}, num + " i[*] e[] in[] p0 S1:source_tag, first_timestamp"},
        {{"--sort-files="}, num + " i[*] e[] in[] p0 S1:-"},
        {{"--sort-files"}, num + " i[*] e[] in[] p0 S1:-"},
        {{"-S", "first_timestamp"}, num + " i[*] e[] in[first_timestamp] p0 S1:-"},
        {{"-Sa", "-Sb"}, num + " i[*] e[] in[] p0 S1:b"},
        {{"-g", "18446744073709551616"}, "failed: Timestamp must be a number, 18446744073709551616 is given."},
    };
    for (const auto& [args, expected] : cases) EXPECT_EQ(parse(args), expected) << testing::PrintToString(args);
}

TEST(ReadOptions, FolderSearchUpwardsStopsAtLevelsAndNeverAtRoot) {
    const struct {
        std::string start;                 // relative to the temp folder
        std::vector<std::string> folders;  // "schema" folders to create, relative
        int levels;
        std::string expected;              // relative; empty: not found
    } cases[] = {
        {"/a/b/c/f.bin", {"/a/b/c/schema"}, 5, "/a/b/c/schema"},
        {"/a/b/c/f.bin", {"/a/schema", "/a/b/schema"}, 5, "/a/b/schema"},
        {"/a/b/c/f.bin", {"/a/schema"}, 3, "/a/schema"},
        {"/a/b/c/f.bin", {"/a/schema"}, 2, ""},
        {"/a/b/c/", {"/a/b/schema"}, 1, "/a/b/schema"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        std::filesystem::create_directories(dir.path() + "/a/b/c");
        for (const std::string& folder : c.folders) std::filesystem::create_directory(dir.path() + folder);
        char* found = obx_read_find_folder_upwards((dir.path() + c.start).c_str(), "schema", c.levels);
        EXPECT_EQ(found ? std::string(found) : "", c.expected.empty() ? "" : dir.path() + c.expected)
            << c.start << " levels " << c.levels;
        free(found);
    }
    // The root is never searched, whatever it holds.
    for (const char* start : {"/f.bin", "/x/f.bin"}) EXPECT_EQ(obx_read_find_folder_upwards(start, "tmp", 5), nullptr);
}

// A link back to a parent cannot make the walk run forever.
TEST(ReadOptions, CollectDirectoryEndsOnLinkCycle) {
    TempDir dir;
    std::filesystem::create_directory(dir.file("d"));
    std::filesystem::create_directory_symlink("..", dir.file("d/up"));
    EXPECT_EQ(parse({"-d", dir.file("d")}).rfind("failed: Failed to stat path '" + dir.file("d/up/d/up/"), 0), 0u);
}

}  // namespace
