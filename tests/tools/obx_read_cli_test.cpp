// The obx_read command line: parsed into the options record, and as a user meets it
// (texts, rejections, exit status, the input list and its order), run as a separate process.
#include "tools/read_options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using obx_test::ProcessResult;
using Args = std::vector<std::string>;

const char kUsage[] =
    "\nOmbrix export collected binary data as text or JSON.\n"
    "Usage: obx_read --schema-path ./schema data1.bin [data2.bin...]\n"
    "General options:\n"
    "  -h, --help                        Print this message.\n"
    "  -V, --version                     Print Ombix version number.\n"
    "  -v, --verbose level               Level of verbosity 0-7 (6).\n"
    "  -p, --print-headers               Print data headers (false).\n"
    "\nInput options:\n"
    "  -s, --schema-path dir             Path to the schema files (schema).\n"
    "\nFiltering options:\n"
    "  -g, --timestamp-gt value          Take data with timestamp greater than value.\n"
    "  -l, --timestamp-lt value          Take data with timestamp less than value.\n"
    "  -i, --include-counters pattern    Take counters that match pattern.\n"
    "  -e, --exclude-counters pattern    Do not take counters that match pattern.\n"
    "  -o, --output-dir dir              Specifies location for .bin files output (output)\n"
    "\nOutput format:\n"
    "  -f, --format [json|ndjson|txt|csv|influx|bin] Output format (json).\n"
    "\n";

std::string list(const obx_string_array_t* array) {
    std::string text;
    for (uint64_t i = 0; array && i < array->count; ++i) text += (i ? "," : "") + std::string(array->strings[i]);
    return "[" + text + "]";
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
    const obx_read_parse_result_t result = obx_read_options_parse_command_line(&o, static_cast<int>(argv.size() - 1), argv.data());
    std::string text = "failed: " + testing::internal::GetCapturedStderr();
    if (result == OBX_READ_PARSE_OK)
        text = "v" + std::to_string(o.verbosity) + " f" + std::to_string(o.format) + " g" + std::to_string(o.timestamp_gt) + " l" + std::to_string(o.timestamp_lt) + " i" + list(o.include_counters) +
               " e" + list(o.exclude_counters) + " in" + list(o.data_files) + " p" + std::to_string(o.print_headers) + " S" + std::to_string(o.sort_files) + ":" + (o.sort_order ? o.sort_order : "-");
    obx_read_options_release(&o);
    return text;
}

// The table also parses many times in one process: getopt must start over each time.
// Numbers take any C base; -S takes only an attached argument, an empty one means none.
TEST(ReadOptions, ParseTable) {
    const std::string num = "v6 f0 g0 l18446744073709551615", flags = " i[*] e[] in[] p0 S0:-";  // the defaults
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-v", "0x3", "-f", "txt"}, "v3 f2 g0 l18446744073709551615" + flags},  // the other defaults
        {{"--timestamp-gt=18446744073709551615", "-l", "010", "-i", "cpu*", "--include-counters", "mem", "-e", "x", "--exclude-counters=y"}, "v6 f0 g18446744073709551615 l8 i[cpu*,mem] e[x,y] in[] p0 S0:-"},
        {{"--print-page-info", "a", "-S", "first_timestamp", "-Ssource_id"}, num + " i[*] e[] in[a,first_timestamp] p1 S1:source_id"},
        {{"-g", "18446744073709551616"}, "failed: Timestamp must be a number, 18446744073709551616 is given."},
    };
    for (const auto& [args, expected] : cases) EXPECT_EQ(parse(args), expected) << testing::PrintToString(args);
}

// All of stdout, or its start when it ends in '*'; parts of stderr: one led by '!' must not
// be there, one led by '=' is all of it.
struct RunCase { Args args; int exit_status; std::string out; std::vector<std::string> err; };

// Whole runs: rejections, the option quirks, the input list, the schema search and the
// -S ordering.
TEST(ObxReadCli, RunsOverTheInputList) {
    // A working folder with every input the cases name, and an empty "schema" folder so
    // that relative inputs need no search.
    obx_test::TempDir dir;
    for (const char* folder : {"schema", "dir", "deep/a/b/c/d", "found/schema", "found/x", "walk/inner", "data.d", "cycle"}) fs::create_directories(dir.file(folder));
    // Timestamps compare unsigned, ids by strcmp; b and d tie on time, and id and tag order them
    // differently.
    const std::tuple<const char*, const char*, const char*, uint64_t> headers[] = {{"a.bin", "node2", "t1", 1ull << 63}, {"b.bin", "node9", "t2", 200}, {"c.bin", "node1", "t1", 100}, {"d.bin", "node10", "t3", 200},
        {"good.bin", "n", "t", 1}, {"named.x.bin", "n", "t", 1}, {"data.d/plain", "n", "t", 1}, {".hidden", "n", "t", 1}, {"data.d/x.y.z", "n", "t", 1}};
    for (const auto& [name, id, tag, first_timestamp] : headers) {
        obx_test::FileHeaderFields head;
        std::tie(head.source_id, head.source_tag, head.first_timestamp) = std::make_tuple(id, tag, first_timestamp);
        obx_test::write_file(dir.file(name), obx_test::file_header(head));
    }
    for (const auto& [name, text] : std::vector<std::pair<const char*, std::string>>{{"short.bin", "abc"}, {"bad.bin", std::string(300, 'x')}, {"walk/inner/deep.txt", "x"}, {"outside.bin", "x"}})
        obx_test::write_file(dir.file(name), obx_test::Bytes(text.begin(), text.end()));
    fs::create_symlink(dir.file("outside.bin"), dir.file("walk/link.bin"));
    fs::create_directory_symlink(".", dir.file("cycle/up"));
    ASSERT_EQ(mkfifo(dir.file("walk/pipe").c_str(), 0644), 0);
    obx_test::ProcessOptions in_dir;
    in_dir.working_directory = dir.path();
    const auto abcd = [](Args args) { args.insert(args.end(), {"a.bin", "b.bin", "c.bin", "d.bin"}); return args; };
    const std::string none = "=No input files specified\n";
    const std::string bad_header = "Failed processing file bad.bin: Invalid data file header\n";
    const std::string v = "=Verbosity level is a number between 0 and 7, ", t = "=Timestamp must be a number, ";
    // Five levels above this input hold no schema folder; the workspace's, a sixth level up, is too far.
    const std::string lost = dir.file("deep/a/b/c/d/x.bin");
    const RunCase cases[] = {
        // Rejections: the message alone on stderr, the usage on stdout. The first one ends
        // parsing, so a later bad value is never reported. Help is no rejection.
        {{"-h", "-v", "9"}, 0, kUsage, {"="}},
        {{"-V", "-v", "9"}, 0, "Ombrix binary data reader 1.22.1\nOmbrix build info: build time: *", {"="}},
        {{"-v", "8"}, 1, kUsage, {v + "8 is given."}},
        {{"-v", "9", "-f", "xml"}, 1, kUsage, {v + "9 is given."}},
        {{"-g", "abc"}, 1, kUsage, {t + "abc is given."}},
        {{"-f", "JSON", "a.bin"}, 1, kUsage, {"=Unsupported output format JSON"}},
        {{"-f", "bin"}, 1, kUsage, {"=Output folder 'output' does not exits\n"}},
        {{"-d", "no_such_dir"}, 1, kUsage, {"=Failed to open directory 'no_such_dir': No such file or directory\n"}},
        {{"-d", "cycle"}, 1, kUsage, {"Failed to stat path 'cycle/up/up/up/up/"}},  // a link cycle ends the walk
        {{"-s", "/missing", lost}, 1, kUsage, {"=Schema folder not found within 5 levels of " + lost + "\n"}},
        // No input is no failure: the run goes on, with an empty document in format json.
        {{}, 0, "{}", {none}},
        {{"-f", "bin", "--output-dir", "dir"}, 0, "", {none}},
        // -o is not a short option: getopt complains, its word is an input, the folder stays.
        {{"-o", "dir", "file.bin"}, 1, "{}", {"invalid option -- 'o'", "Failed processing file dir: Failed reading data file header", "Failed to open data file file.bin: No such file or directory", "Failed to read 2 of 2 files\n"}},
        // --print-headers is the usage's name, not the parser's; unknown options never stop.
        {{"--print-headers"}, 0, "{}", {"obx_read: ", "No input files specified\n"}},
        // Failed files are counted and the run goes on.
        {{"missing.bin", "short.bin"}, 1, "{}", {"Failed to open data file missing.bin: No such file or directory", "Failed to initialize reader context", "Failed processing file short.bin: Failed reading data file header: ", "Failed to read 2 of 2 files\n"}},
        // Named inputs first, then every regular file of the -d walk (links followed).
        {{"-v", "7", "-f", "txt", "-d", "walk", "first.bin"}, 1, "", {"data file[0] = first.bin", "] = walk/inner/deep.txt", "] = walk/link.bin", "!data file[3]", "!walk/pipe", "Failed to read 3 of 3 files\n"}},
        // A file's key is its base name up to the first dot.
        {{"data.d/plain", ".hidden", "data.d/x.y.z"}, 0, "{\"plain\":[],\"\":[],\"x\":[]}", {"!Failed"}},
        // Without a schema folder at -s, "schema" is looked for above the first input, from
        // "." for a relative one.
        {{"-s", "/missing", dir.file("found/x/y.bin")}, 1, "{}", {"!Schema folder", "Failed to read 1 of 1 files\n"}},
        {{"-s", "/missing", "y.bin"}, 1, "{}", {"!Schema folder", "Failed to read 1 of 1 files\n"}},
        // A header failure stops a sorted run before any file and leaves the document open.
        {{"-S", "good.bin", "short.bin"}, 1, "{", {"[error] Failed to read header from file: short.bin\n"}},
        {{"-S", "good.bin", "bad.bin", "good.bin"}, 1, "{", {"[error] Invalid header in file: bad.bin\n", "[error] Failed to read file header: bad.bin\n", "!" + bad_header, "Failed to read 1 of 3 files\n"}},
        // Commas go by position: a first file failing before its key leaves one behind the brace.
        {{"bad.bin", "named.x.bin"}, 1, "{,\"named\":[]}", {bad_header, "Failed to read 1 of 2 files\n"}},
        // -S reads every header first, then processes the files by the keys (default: first_timestamp,
        // source_id, source_tag). Keys are matched exactly, blanks around them and empty ones are
        // skipped; a bad order falls back to the default and never stops the run.
        {abcd({}), 0, "{\"a\":[],\"b\":[],\"c\":[],\"d\":[]}", {}},
        {abcd({"-S"}), 0, "{\"c\":[],\"d\":[],\"b\":[],\"a\":[]}", {"Sort order not specified. Using default."}},
        {abcd({"--sort-files=source_tag, first_timestamp"}), 0, "{\"c\":[],\"a\":[],\"b\":[],\"d\":[]}", {"!Using default"}},
        {abcd({"--sort-files= \tfirst_timestamp ,,source_id,  source_tag "}), 0, "{\"c\":[],\"d\":[],\"b\":[],\"a\":[]}", {"!Using default"}},
        {abcd({"--sort-files=source_id,Source_Tag"}), 0, "{\"c\":[],\"d\":[],\"b\":[],\"a\":[]}", {"[error] [sort] Unknown sort key: 'Source_Tag'", "[warning] Invalid sort order string 'source_id,Source_Tag'. Using default."}},
        {abcd({"--sort-files=,,"}), 0, "{\"c\":[],\"d\":[],\"b\":[],\"a\":[]}", {"!Unknown", "[warning] Invalid sort order string ',,'. Using default."}},
    };
    for (const RunCase& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const ProcessResult r = obx_test::run_obx_read(c.args, in_dir);
        EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
        EXPECT_EQ(!c.out.empty() && c.out.back() == '*' ? r.out.substr(0, c.out.size() - 1) + "*" : r.out, c.out);
        if (c.err.empty()) {
            EXPECT_EQ(r.err, "");
        }
        for (const std::string& part : c.err) {
            const std::string text = part.substr(part[0] == '!' || part[0] == '=' ? 1 : 0);
            const bool met = part[0] == '=' ? r.err == text : (r.err.find(text) == std::string::npos) == (part[0] == '!');
            EXPECT_TRUE(met) << part << "\n" << r.err;
        }
    }
}

}  // namespace
