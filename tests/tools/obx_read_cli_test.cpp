// The obx_read command line as a user meets it: texts, rejections, exit status and the
// input list, run as a separate process.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>
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

// A working folder with every input the cases name, and an empty "schema" folder so
// that relative inputs need no search.
struct Workspace {
    obx_test::TempDir dir;
    Workspace() {
        for (const char* folder : {"schema", "dir", "deep/a/b/c/d", "found/schema", "found/x", "walk/inner", "walk/empty",
                                   "data", "data.d", "dangling"})
            fs::create_directories(dir.file(folder));
        header("a.bin", "node2", "t1", 300);
        header("b.bin", "node1", "t2", 200);
        header("c.bin", "node1", "t1", 100);
        header("d.bin", "node3", "t0", 200);
        for (const char* name : {"good.bin", "named.x.bin", "data/inner.bin", "data.d/plain", ".hidden", "data.d/x.y.z"})
            header(name, "n", "t", 1);
        raw("short.bin", "abc");
        raw("bad.bin", std::string(300, 'x'));
        raw("walk/inner/deep.txt", "x");
        raw("outside.bin", "x");
        fs::create_symlink(dir.file("outside.bin"), dir.file("walk/link.bin"));
        fs::create_symlink("nowhere", dir.file("dangling/d"));
        if (mkfifo(dir.file("walk/pipe").c_str(), 0644) != 0) throw std::runtime_error("mkfifo failed");
    }
    void header(const std::string& name, const std::string& id, const std::string& tag, uint64_t first_timestamp) {
        obx_test::FileHeaderFields head;
        head.source_id = id;
        head.source_tag = tag;
        head.first_timestamp = first_timestamp;
        obx_test::write_file(dir.file(name), obx_test::file_header(head));
    }
    void raw(const std::string& name, const std::string& text) {
        obx_test::write_file(dir.file(name), obx_test::Bytes(text.begin(), text.end()));
    }
    ProcessResult run(const Args& args) const {
        obx_test::ProcessOptions options;
        options.working_directory = dir.path();
        return obx_test::run_obx_read(args, options);
    }
};

TEST(ObxReadCli, VersionPrintsTwoLines) {
    for (const char* flag : {"-V", "--version"}) {
        const ProcessResult r = obx_test::run_obx_read({flag, "-v", "9"});
        EXPECT_EQ(r.exit_status, 0) << flag;
        EXPECT_EQ(r.err, "") << flag;
        EXPECT_EQ(r.out.rfind("Ombrix binary data reader 1.22.1\nOmbrix build info: build time: ", 0), 0u) << r.out;
        EXPECT_NE(r.out.find("\nversion: 1.22.1 (revision "), std::string::npos) << r.out;
    }
}

struct RunCase {
    Args args;
    int exit_status;
    std::string out;
    std::vector<std::string> err;  // parts of stderr; one led by '!' must not be there, one led by '=' is all of it
};

// Whole runs: rejections, the option quirks, the input list, the schema search and the
// -S ordering.
TEST(ObxReadCli, RunsOverTheInputList) {
    Workspace ws;
    const auto abcd = [](Args args) {
        for (const char* name : {"a.bin", "b.bin", "c.bin", "d.bin"}) args.push_back(name);
        return args;
    };
    const std::string none = "=No input files specified\n";
    const std::string bad_header = "Failed processing file bad.bin: Invalid data file header\n";
    const std::string v = "=Verbosity level is a number between 0 and 7, ", t = "=Timestamp must be a number, ";
    // Five levels above this input hold no schema folder; the workspace's, a sixth level up, is too far.
    const std::string lost = ws.dir.file("deep/a/b/c/d/x.bin");
    const RunCase cases[] = {
        // Rejections: the message alone on stderr, the usage on stdout. The first one ends
        // parsing, so a later bad value is never reported. Help is no rejection.
        {{"-h", "-v", "9"}, 0, kUsage, {"="}},
        {{"--help"}, 0, kUsage, {"="}},
        {{"-v", "8"}, 1, kUsage, {v + "8 is given."}},
        {{"-v", "-1"}, 1, kUsage, {v + "-1 is given."}},
        {{"--verbose=abc"}, 1, kUsage, {v + "abc is given."}},
        {{"-v", "7x"}, 1, kUsage, {v + "7x is given."}},
        {{"-v", "9", "-f", "xml"}, 1, kUsage, {v + "9 is given."}},
        {{"-g", "abc"}, 1, kUsage, {t + "abc is given."}},
        {{"-l", "12x"}, 1, kUsage, {t + "12x is given."}},
        {{"--timestamp-gt", ""}, 1, kUsage, {t + " is given."}},
        {{"-f", "xml", "a.bin"}, 1, kUsage, {"=Unsupported output format xml"}},
        {{"-f", "JSON"}, 1, kUsage, {"=Unsupported output format JSON"}},
        {{"-f", "json "}, 1, kUsage, {"=Unsupported output format json "}},
        {{"-f", "bin"}, 1, kUsage, {"=Output folder 'output' does not exits\n"}},
        {{"-f", "bin", "--output-dir", "nowhere"}, 1, kUsage, {"=Output folder 'nowhere' does not exits\n"}},
        {{"-d", "no_such_dir"}, 1, kUsage, {"=Failed to open directory 'no_such_dir': No such file or directory\n"}},
        {{"-d", "dangling"}, 1, kUsage, {"=Failed to stat path 'dangling/d': No such file or directory\n"}},
        {{"-s", "/missing", lost}, 1, kUsage, {"=Schema folder not found within 5 levels of " + lost + "\n"}},
        // No input is no failure: the run goes on, with an empty document in format json.
        {{}, 0, "{}", {none}},
        {{"-f", "txt"}, 0, "", {none}},
        {{"-f", "ndjson"}, 0, "", {none}},
        {{"-f", "influx"}, 0, "", {none}},
        {{"-f", "csv"}, 0, "", {none}},
        // -o is not a short option: getopt complains, its word is an input, the folder stays.
        {{"-o", "dir", "file.bin"}, 1, "{}",
         {"invalid option -- 'o'", "Failed processing file dir: Failed reading data file header",
          "Failed to open data file file.bin: No such file or directory", "Failed to read 2 of 2 files\n"}},
        {{"-f", "bin", "-o", "dir"}, 1, kUsage, {"invalid option -- 'o'", "Output folder 'output' does not exits\n"}},
        {{"-f", "bin", "--output-dir", "dir"}, 0, "", {none}},
        // --print-headers is the usage's name, not the parser's; unknown options never stop.
        {{"--print-headers"}, 0, "{}", {"obx_read: ", "No input files specified\n"}},
        {{"-s"}, 0, "{}", {"obx_read: ", "No input files specified\n"}},
        // Failed files are counted and the run goes on.
        {{"missing.bin", "short.bin"}, 1, "{}",
         {"Failed to open data file missing.bin: No such file or directory", "Failed to initialize reader context",
          "Failed processing file short.bin: Failed reading data file header: ", "Failed to read 2 of 2 files\n"}},
        // Named inputs first, then every regular file of the -d walk (links followed).
        {{"-v", "7", "-f", "txt", "-d", "walk", "first.bin"}, 1, "",
         {"data file[0] = first.bin", "] = walk/inner/deep.txt", "] = walk/link.bin", "!data file[3]", "!walk/pipe",
          "Failed to read 3 of 3 files\n"}},
        {{"-d", "walk", "--data-dir", "data", "named.x.bin"}, 0, "{\"named\":[],\"inner\":[]}", {"!walk/"}},
        // A file's key is its base name up to the first dot; only format json has frames.
        {{"data.d/plain", ".hidden", "data.d/x.y.z"}, 0, "{\"plain\":[],\"\":[],\"x\":[]}", {"!Failed"}},
        {{"-f", "ndjson", "good.bin"}, 0, "", {"!Failed"}},
        // Without a schema folder at -s, "schema" is looked for above the first input, from
        // "." for a relative one.
        {{"-s", "/missing", ws.dir.file("found/x/y.bin")}, 1, "{}", {"!Schema folder", "Failed to read 1 of 1 files\n"}},
        {{"-s", "/missing", "y.bin"}, 1, "{}", {"!Schema folder", "Failed to read 1 of 1 files\n"}},
        // A header failure stops a sorted run before any file and leaves the document open.
        {{"-S", "good.bin", "short.bin"}, 1, "{", {"[error] Failed to read header from file: short.bin\n"}},
        {{"-S", "good.bin", "bad.bin", "good.bin"}, 1, "{",
         {"[error] Invalid header in file: bad.bin\n", "[error] Failed to read file header: bad.bin\n",
          "!" + bad_header, "Failed to read 1 of 3 files\n"}},
        {{"good.bin", "bad.bin", "good.bin"}, 1, "{\"good\":[],\"good\":[]}",
         {bad_header, "Failed to read 1 of 3 files\n"}},
        // Commas go by position: a first file failing before its key leaves one behind the brace.
        {{"bad.bin", "named.x.bin"}, 1, "{,\"named\":[]}", {bad_header, "Failed to read 1 of 2 files\n"}},
        // -S reads every header first, then processes the files by the keys; a bad order
        // falls back to the default and never stops the run.
        {abcd({}), 0, "{\"a\":[],\"b\":[],\"c\":[],\"d\":[]}", {}},
        {abcd({"-S"}), 0, "{\"c\":[],\"b\":[],\"d\":[],\"a\":[]}", {}},
        {abcd({"--sort-files=source_tag, first_timestamp"}), 0, "{\"d\":[],\"c\":[],\"a\":[],\"b\":[]}", {}},
        {abcd({"--sort-files=bogus"}), 0, "{\"c\":[],\"b\":[],\"d\":[],\"a\":[]}",
         {"[error] [sort] Unknown sort key: 'bogus'", "[warning] Invalid sort order string 'bogus'. Using default."}},
    };
    for (const RunCase& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const ProcessResult r = ws.run(c.args);
        EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
        EXPECT_EQ(r.out, c.out);
        for (const std::string& part : c.err) {
            const std::string text = part.substr(part[0] == '!' || part[0] == '=' ? 1 : 0);
            const bool met = part[0] == '=' ? r.err == text : (r.err.find(text) == std::string::npos) == (part[0] == '!');
            EXPECT_TRUE(met) << part << "\n" << r.err;
        }
    }
}

}  // namespace
