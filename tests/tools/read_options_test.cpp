// Parsing of the command line into the options record, and the two folder helpers.
#include "tools/read_options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fixtures/temp_dir.h"

namespace {

using obx_test::TempDir;

// Owns an options record filled by the parser from a list of words.
struct Parsed {
    obx_read_options_t options;
    obx_read_parse_result_t result;
    std::string err;  // what the parser (or getopt) wrote to stderr
    explicit Parsed(std::vector<std::string> words) {
        std::memset(&options, 0, sizeof(options));
        words.insert(words.begin(), "obx_read");
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(&word[0]);
        argv.push_back(nullptr);
        testing::internal::CaptureStderr();
        result = obx_read_options_parse_command_line(&options, static_cast<int>(argv.size() - 1), argv.data());
        err = testing::internal::GetCapturedStderr();
    }
    ~Parsed() { obx_read_options_release(&options); }
    std::vector<std::string> list(const obx_string_array_t* array) const {
        std::vector<std::string> out;
        for (uint64_t i = 0; array && i < array->count; ++i) out.push_back(array->strings[i]);
        return out;
    }
};

TEST(ReadOptions, DefaultsOfAFreshRecord) {
    const Parsed p({});
    ASSERT_EQ(p.result, OBX_READ_PARSE_OK);
    EXPECT_EQ(p.options.verbosity, 6u);
    EXPECT_EQ(p.options.format, OBX_OUTPUT_FORMAT_JSON);
    EXPECT_STREQ(p.options.schema_path, "schema");
    EXPECT_STREQ(p.options.output_dir, "output");
    EXPECT_EQ(p.options.timestamp_gt, 0u);
    EXPECT_EQ(p.options.timestamp_lt, UINT64_MAX);
    EXPECT_EQ(p.list(p.options.include_counters), std::vector<std::string>{"*"});
    EXPECT_TRUE(p.list(p.options.exclude_counters).empty());
    EXPECT_TRUE(p.list(p.options.data_files).empty());
    EXPECT_FALSE(p.options.print_headers);
    EXPECT_EQ(p.options.data_dir, nullptr);
    EXPECT_FALSE(p.options.sort_files);
    EXPECT_EQ(p.options.sort_order, nullptr);
}

TEST(ReadOptions, FormatTableBothWays) {
    const struct {
        const char* name;
        int32_t value;
    } rows[] = {{"json", 0}, {"ndjson", 1}, {"txt", 2}, {"csv", 3}, {"influx", 4}, {"bin", 5}};
    for (const auto& row : rows) {
        EXPECT_EQ(obx_output_format_from_string(row.name), row.value) << row.name;
        EXPECT_STREQ(obx_output_format_to_string(row.value), row.name);
    }
    for (const char* unknown : {"xml", "Json", "json ", ""}) EXPECT_EQ(obx_output_format_from_string(unknown), -1);
    EXPECT_EQ(obx_output_format_to_string(6), nullptr);
    EXPECT_EQ(obx_output_format_to_string(-1), nullptr);
}

TEST(ReadOptions, NumbersAreParsedInAnyBase) {
    const struct {
        std::vector<std::string> args;
        uint32_t verbosity;
        uint64_t gt;
        uint64_t lt;
    } cases[] = {
        {{"-v", "0x3"}, 3, 0, UINT64_MAX},
        {{"-v", "07"}, 7, 0, UINT64_MAX},
        {{"--verbose=0"}, 0, 0, UINT64_MAX},
        {{"-g", "0x10", "-l", "100"}, 6, 16, 100},
        {{"--timestamp-gt=18446744073709551615"}, 6, UINT64_MAX, UINT64_MAX},
        {{"-l0"}, 6, 0, 0},
    };
    for (const auto& c : cases) {
        const Parsed p(c.args);
        ASSERT_EQ(p.result, OBX_READ_PARSE_OK) << c.args[0];
        EXPECT_EQ(p.options.verbosity, c.verbosity) << c.args[0];
        EXPECT_EQ(p.options.timestamp_gt, c.gt) << c.args[0];
        EXPECT_EQ(p.options.timestamp_lt, c.lt) << c.args[0];
    }
    for (const char* bad : {"", "0x", "3 ", "99999999999999999999"}) {
        const Parsed p({"-v", bad});
        EXPECT_EQ(p.result, OBX_READ_PARSE_FAILED) << "'" << bad << "'";
    }
    const Parsed overflow({"-g", "18446744073709551616"});
    EXPECT_EQ(overflow.result, OBX_READ_PARSE_FAILED);
    EXPECT_EQ(overflow.err, "Timestamp must be a number, 18446744073709551616 is given.");
}

TEST(ReadOptions, PatternListsKeepOrderAndDefaultOnlyWhenEmpty) {
    const Parsed p({"-i", "cpu*", "--include-counters", "mem", "-e", "x", "--exclude-counters=y"});
    ASSERT_EQ(p.result, OBX_READ_PARSE_OK);
    EXPECT_EQ(p.list(p.options.include_counters), (std::vector<std::string>{"cpu*", "mem"}));
    EXPECT_EQ(p.list(p.options.exclude_counters), (std::vector<std::string>{"x", "y"}));

    const Parsed only_excludes({"-e", "*"});
    EXPECT_EQ(only_excludes.list(only_excludes.options.include_counters), std::vector<std::string>{"*"});
}

struct SortCase {
    std::vector<std::string> args;
    bool sort_files;
    const char* sort_order;  // nullptr: none
    std::vector<std::string> inputs;
};

// The optional argument needs the attached form; an empty one means none.
TEST(ReadOptions, SortOptionTakesOnlyAttachedArgument) {
    TempDir dir;
    const std::string schema = dir.path();
    const SortCase cases[] = {
        {{"-S"}, true, nullptr, {}},
        {{"-Ssource_id"}, true, "source_id", {}},
        {{"--sort-files=source_tag, first_timestamp"}, true, "source_tag, first_timestamp", {}},
        {{"--sort-files="}, true, nullptr, {}},
        {{"--sort-files"}, true, nullptr, {}},
        {{"-S", "first_timestamp"}, true, nullptr, {"first_timestamp"}},
        {{"-Sa", "-Sb"}, true, "b", {}},
        {{"-Sa", "-S"}, true, nullptr, {}},
        {{}, false, nullptr, {}},
    };
    for (const SortCase& c : cases) {
        std::vector<std::string> args = {"-s", schema};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Parsed p(args);
        const std::string label = c.args.empty() ? "(none)" : c.args[0];
        ASSERT_EQ(p.result, OBX_READ_PARSE_OK) << label;
        EXPECT_EQ(p.options.sort_files, c.sort_files) << label;
        if (c.sort_order)
            EXPECT_STREQ(p.options.sort_order, c.sort_order) << label;
        else
            EXPECT_EQ(p.options.sort_order, nullptr) << label;
        EXPECT_EQ(p.list(p.options.data_files), c.inputs) << label;
    }
}

TEST(ReadOptions, HelpAndVersionAskToStop) {
    for (const char* flag : {"-h", "--help", "-V", "--version"}) {
        testing::internal::CaptureStdout();
        const Parsed p({flag, "-v", "9"});
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(p.result, OBX_READ_PARSE_EXIT) << flag;
        EXPECT_FALSE(out.empty()) << flag;
    }
}

// The parser may run again in the same process: optind starts over.
TEST(ReadOptions, ParsingTwiceGivesTheSameResult) {
    for (int round = 0; round < 2; ++round) {
        const Parsed p({"-f", "txt", "-g", "5"});
        ASSERT_EQ(p.result, OBX_READ_PARSE_OK) << round;
        EXPECT_EQ(p.options.format, OBX_OUTPUT_FORMAT_TXT) << round;
        EXPECT_EQ(p.options.timestamp_gt, 5u) << round;
    }
}

struct UpwardsCase {
    std::string start;        // relative to the temp folder
    std::vector<std::string> folders;  // "schema" folders to create, relative
    int levels;
    std::string expected;     // relative; empty: not found
};

TEST(ReadOptions, FolderSearchUpwardsStopsAtLevelsAndNeverAtRoot) {
    const UpwardsCase cases[] = {
        {"/a/b/c/f.bin", {"/a/b/c/schema"}, 5, "/a/b/c/schema"},
        {"/a/b/c/f.bin", {"/a/schema", "/a/b/schema"}, 5, "/a/b/schema"},
        {"/a/b/c/f.bin", {"/a/schema"}, 3, "/a/schema"},
        {"/a/b/c/f.bin", {"/a/schema"}, 2, ""},
        {"/a/b/c/f.bin", {"/a/schema"}, 0, ""},
        {"/a/b/c/f.bin", {}, 5, ""},
        {"/a/b/c/", {"/a/b/schema"}, 1, "/a/b/schema"},
    };
    for (const UpwardsCase& c : cases) {
        TempDir dir;
        ASSERT_EQ(system(("mkdir -p " + dir.path() + "/a/b/c").c_str()), 0);
        for (const std::string& folder : c.folders) ASSERT_EQ(mkdir((dir.path() + folder).c_str(), 0755), 0);
        char* found = obx_read_find_folder_upwards((dir.path() + c.start).c_str(), "schema", c.levels);
        if (c.expected.empty()) {
            EXPECT_EQ(found, nullptr) << c.start << " levels " << c.levels << " gave " << found;
        } else {
            ASSERT_NE(found, nullptr) << c.start << " levels " << c.levels;
            EXPECT_EQ(std::string(found), dir.path() + c.expected);
        }
        free(found);
    }
}

TEST(ReadOptions, FolderSearchNeverLooksInTheRoot) {
    // "/tmp" is below the root: whatever /tmp holds, only /tmp itself may be tried.
    char* found = obx_read_find_folder_upwards("/f.bin", "tmp", 5);
    EXPECT_EQ(found, nullptr) << found;
    free(found);
    found = obx_read_find_folder_upwards("/x/f.bin", "tmp", 5);
    EXPECT_EQ(found, nullptr) << "the root's tmp was taken: " << found;
    free(found);
}

TEST(ReadOptions, FolderSearchFromRelativePathTriesTheCurrentFolder) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.file("schema").c_str(), 0755), 0);
    char old_cwd[4096];
    ASSERT_NE(getcwd(old_cwd, sizeof(old_cwd)), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    char* found = obx_read_find_folder_upwards("x.bin", "schema", 5);
    ASSERT_EQ(chdir(old_cwd), 0);
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found, "./schema");
    free(found);
}

// A link back to a parent cannot make the walk run forever.
TEST(ReadOptions, CollectDirectoryEndsOnLinkCycle) {
    TempDir dir;
    ASSERT_EQ(mkdir(dir.file("d").c_str(), 0755), 0);
    ASSERT_EQ(symlink("..", dir.file("d/up").c_str()), 0);
    obx_read_options_t options;
    std::memset(&options, 0, sizeof(options));
    ASSERT_TRUE(obx_read_options_init(&options));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(obx_read_collect_directory(&options, dir.file("d").c_str()));
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty());
    obx_read_options_release(&options);
}

}  // namespace
