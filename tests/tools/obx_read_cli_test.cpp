// The obx_read command line as a user meets it: texts, rejections, exit status and the
// input list, run as a separate process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"

namespace {

using obx_test::ProcessOptions;
using obx_test::ProcessResult;
using obx_test::run_obx_read;
using obx_test::TempDir;

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

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A valid data file with an empty body and the given sort keys.
void write_data_file(const std::string& path, const std::string& source_id, const std::string& source_tag,
                     uint64_t first_timestamp) {
    obx_test::FileHeaderSpec spec;
    spec.source_id = source_id;
    spec.source_tag = source_tag;
    spec.first_timestamp = first_timestamp;
    obx_test::write_file(path, obx_test::file_header(spec));
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A working folder with an empty "schema" folder, so that inputs need no search.
struct Workspace {
    TempDir dir;
    Workspace() { mkdir(dir.file("schema").c_str(), 0755); }
    ProcessOptions in_dir() const {
        ProcessOptions options;
        options.working_directory = dir.path();
        return options;
    }
};

TEST(ObxReadCli, HelpPrintsUsageAndSucceeds) {
    for (const char* flag : {"-h", "--help"}) {
        const ProcessResult r = run_obx_read({flag});
        EXPECT_EQ(r.exit_status, 0) << flag;
        EXPECT_EQ(r.out, kUsage) << flag;
        EXPECT_EQ(r.err, "") << flag;
    }
}

TEST(ObxReadCli, VersionPrintsTwoLinesAndBuildRecord) {
    const ProcessResult r = run_obx_read({"-V"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out.rfind("Ombrix binary data reader 1.22.1\nOmbrix build info: build time: ", 0), 0u) << r.out;
    for (const char* line : {"\nversion: 1.22.1 (revision ", "\ncompiler: ", "\nzlib: ", "\nOpenSSL: ", "\nsnappy: ",
                             "\nBoost: ", "\nJansson: "})
        EXPECT_TRUE(contains(r.out, line)) << line;
    EXPECT_EQ(r.out.back(), '\n');
    EXPECT_FALSE(contains(r.out, "\n\n")) << "no empty line in the record";
}

struct Rejection {
    std::vector<std::string> args;
    std::string err;
};

// Each rejected value: its message alone on stderr, the usage on stdout, status 1.
TEST(ObxReadCli, RejectedValuesPrintMessageThenUsage) {
    const Rejection cases[] = {
        {{"-v", "8"}, "Verbosity level is a number between 0 and 7, 8 is given."},
        {{"-v", "-1"}, "Verbosity level is a number between 0 and 7, -1 is given."},
        {{"--verbose=abc"}, "Verbosity level is a number between 0 and 7, abc is given."},
        {{"-v", "7x"}, "Verbosity level is a number between 0 and 7, 7x is given."},
        {{"-g", "abc"}, "Timestamp must be a number, abc is given."},
        {{"-l", "12x"}, "Timestamp must be a number, 12x is given."},
        {{"--timestamp-gt", ""}, "Timestamp must be a number,  is given."},
        {{"-f", "xml", "a.bin"}, "Unsupported output format xml"},
        {{"-f", "JSON"}, "Unsupported output format JSON"},
        {{"-f", "bin"}, "Output folder 'output' does not exits\n"},
        {{"-f", "bin", "--output-dir", "nowhere"}, "Output folder 'nowhere' does not exits\n"},
        {{"-d", "no_such_dir"}, "Failed to open directory 'no_such_dir': No such file or directory\n"},
    };
    Workspace ws;
    for (const Rejection& c : cases) {
        const ProcessResult r = run_obx_read(c.args, ws.in_dir());
        EXPECT_EQ(r.exit_status, 1) << c.args[0] << " " << c.err;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, kUsage) << c.err;
    }
}

// The first rejected value ends parsing: a later bad value is not reported.
TEST(ObxReadCli, OnlyFirstRejectionIsReported) {
    const ProcessResult r = run_obx_read({"-v", "9", "-f", "xml"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Verbosity level is a number between 0 and 7, 9 is given.");
}

struct EmptyRun {
    std::vector<std::string> args;
    std::string out;
};

TEST(ObxReadCli, EmptyInputListRunsAndSucceeds) {
    const EmptyRun cases[] = {
        {{}, "{}"},
        {{"-f", "json"}, "{}"},
        {{"-v", "0x3"}, "{}"},
        {{"-v", "0"}, "{}"},
        {{"-f", "txt"}, ""},
        {{"-f", "ndjson"}, ""},
        {{"-f", "influx"}, ""},
        {{"-f", "csv"}, ""},
    };
    Workspace ws;
    for (const EmptyRun& c : cases) {
        const ProcessResult r = run_obx_read(c.args, ws.in_dir());
        const std::string label = c.args.empty() ? "(none)" : c.args[0] + " " + c.args.back();
        EXPECT_EQ(r.exit_status, 0) << label;
        EXPECT_EQ(r.out, c.out) << label;
        EXPECT_EQ(r.err, "No input files specified\n") << label;
    }
}

// -o is not a short option: getopt complains, its word becomes an input, and the output
// folder keeps its default.
TEST(ObxReadCli, ShortOutputOptionIsRejectedAndItsArgumentBecomesAnInput) {
    Workspace ws;
    mkdir(ws.dir.file("dir").c_str(), 0755);
    const ProcessResult r = run_obx_read({"-o", "dir", "file.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "{}");
    EXPECT_TRUE(contains(r.err, "invalid option -- 'o'")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed processing file dir: Failed reading data file header")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to open data file file.bin: No such file or directory")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 2 of 2 files\n")) << r.err;

    const ProcessResult bin = run_obx_read({"-f", "bin", "-o", "dir"}, ws.in_dir());
    EXPECT_EQ(bin.exit_status, 1);
    EXPECT_TRUE(contains(bin.err, "Output folder 'output' does not exits\n")) << bin.err;

    const ProcessResult long_form = run_obx_read({"-f", "bin", "--output-dir", "dir"}, ws.in_dir());
    EXPECT_EQ(long_form.exit_status, 0) << long_form.err;
    EXPECT_EQ(long_form.out, "");
}

// --print-headers is the usage's name, not the parser's: unknown, and the run goes on.
TEST(ObxReadCli, UnknownOptionsAreReportedByGetoptOnly) {
    const std::vector<std::vector<std::string>> cases = {
        {"--print-headers"}, {"--bogus"}, {"-x"}, {"-s"}};
    Workspace ws;
    for (const auto& args : cases) {
        const ProcessResult r = run_obx_read(args, ws.in_dir());
        EXPECT_EQ(r.exit_status, 0) << args[0];
        EXPECT_EQ(r.out, "{}") << args[0];
        EXPECT_TRUE(contains(r.err, "obx_read: ")) << r.err;
        EXPECT_TRUE(contains(r.err, "No input files specified\n")) << r.err;
    }
    const ProcessResult page_info = run_obx_read({"--print-page-info"}, ws.in_dir());
    EXPECT_EQ(page_info.err, "No input files specified\n");
}

// An input that does not exist counts as failed; the run goes on with the next one.
TEST(ObxReadCli, FailedFilesAreCountedAndTheRunGoesOn) {
    Workspace ws;
    write_file(ws.dir.file("short.bin"), "abc");
    const ProcessResult r = run_obx_read({"missing.bin", "short.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "{}");
    EXPECT_TRUE(contains(r.err, "Failed to open data file missing.bin: No such file or directory")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to initialize reader context")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed processing file short.bin: Failed reading data file header: ")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 2 of 2 files\n")) << r.err;
}

// Free arguments first, then the -d walk, depth first; every regular file is an input,
// whatever its name; links are followed, other kinds of entry are left.
TEST(ObxReadCli, DataDirectoryWalkAppendsEveryRegularFile) {
    Workspace ws;
    const std::string root = ws.dir.file("data");
    mkdir(root.c_str(), 0755);
    mkdir((root + "/inner").c_str(), 0755);
    mkdir((root + "/empty").c_str(), 0755);
    write_file(root + "/inner/deep.txt", "x");
    write_file(ws.dir.file("outside.bin"), "x");
    ASSERT_EQ(symlink((ws.dir.path() + "/outside.bin").c_str(), (root + "/link.bin").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/pipe").c_str(), 0644), 0);

    const ProcessResult r = run_obx_read({"-v", "7", "-f", "txt", "-d", "data", "first.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_TRUE(contains(r.err, "data file[0] = first.bin")) << r.err;
    EXPECT_TRUE(contains(r.err, "= data/inner/deep.txt")) << r.err;
    EXPECT_TRUE(contains(r.err, "= data/link.bin")) << r.err;
    EXPECT_FALSE(contains(r.err, "data file[3]")) << "the fifo and the empty folder are no inputs\n" << r.err;
    EXPECT_FALSE(contains(r.err, "data/pipe")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 3 of 3 files\n")) << r.err;
}

TEST(ObxReadCli, LaterDataDirectoryReplacesEarlierOne) {
    Workspace ws;
    mkdir(ws.dir.file("a").c_str(), 0755);
    mkdir(ws.dir.file("b").c_str(), 0755);
    write_file(ws.dir.file("a/one"), "x");
    write_file(ws.dir.file("b/two"), "x");
    const ProcessResult r = run_obx_read({"-v", "7", "-d", "a", "--data-dir", "b"}, ws.in_dir());
    EXPECT_TRUE(contains(r.err, "data file[0] = b/two")) << r.err;
    EXPECT_FALSE(contains(r.err, "a/one")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 1 of 1 files\n")) << r.err;
}

TEST(ObxReadCli, UnreadableEntryInDataDirectoryFailsParsing) {
    Workspace ws;
    mkdir(ws.dir.file("d").c_str(), 0755);
    ASSERT_EQ(symlink("nowhere", ws.dir.file("d/dangling").c_str()), 0);
    const ProcessResult r = run_obx_read({"-d", "d"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Failed to stat path 'd/dangling': No such file or directory\n");
    EXPECT_EQ(r.out, kUsage);
}

// Without a schema folder at -s, the folder is looked for above the first input.
TEST(ObxReadCli, SchemaFolderIsSearchedAboveFirstInput) {
    TempDir dir;
    const std::string deep = dir.path() + "/a/b/c";
    ASSERT_EQ(system(("mkdir -p " + deep).c_str()), 0);

    ProcessOptions in_dir;
    in_dir.working_directory = dir.path();
    const std::string input = deep + "/x.bin";
    const ProcessResult missing = run_obx_read({"-s", "/missing", input}, in_dir);
    EXPECT_EQ(missing.exit_status, 1);
    EXPECT_EQ(missing.err, "Schema folder not found within 5 levels of " + input + "\n");
    EXPECT_EQ(missing.out, kUsage);

    ASSERT_EQ(mkdir((dir.path() + "/a/schema").c_str(), 0755), 0);
    const ProcessResult found = run_obx_read({"-s", "/missing", input}, in_dir);
    EXPECT_FALSE(contains(found.err, "Schema folder not found")) << found.err;
    EXPECT_TRUE(contains(found.err, "Failed to read 1 of 1 files\n")) << found.err;
}

struct SortOrderCase {
    std::string arg;
    std::vector<std::string> log;  // lines that must be there
};

// A bad sort order never stops the run: it falls back to the default with a warning.
TEST(ObxReadCli, BadSortOrdersFallBackToDefault) {
    const SortOrderCase cases[] = {
        {"--sort-files=bogus",
         {"[error] [sort] Unknown sort key: 'bogus'", "[warning] Invalid sort order string 'bogus'. Using default."}},
        {"--sort-files=,,", {"[warning] Invalid sort order string ',,'. Using default."}},
        {"-SSource_id",
         {"[sort] Unknown sort key: 'Source_id'", "Invalid sort order string 'Source_id'. Using default."}},
        {"--sort-files=", {"[info] Sort order not specified. Using default."}},
        {"-S", {"[info] Sort order not specified. Using default."}},
    };
    Workspace ws;
    for (const SortOrderCase& c : cases) {
        const ProcessResult r = run_obx_read({c.arg}, ws.in_dir());
        EXPECT_EQ(r.exit_status, 0) << c.arg;
        EXPECT_EQ(r.out, "{}") << c.arg;
        for (const std::string& line : c.log) EXPECT_TRUE(contains(r.err, line)) << c.arg << "\n" << r.err;
    }
    const ProcessResult good = run_obx_read({"--sort-files=source_id,source_tag,first_timestamp,bogus"}, ws.in_dir());
    EXPECT_FALSE(contains(good.err, "Unknown sort key")) << good.err;
    EXPECT_FALSE(contains(good.err, "Using default")) << good.err;
}

// In "-S word" the word is an input, not the sort order.
TEST(ObxReadCli, SortOrderMustBeAttached) {
    Workspace ws;
    const ProcessResult r = run_obx_read({"-S", "source_id"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_TRUE(contains(r.err, "Failed to read file header: source_id")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 1 of 1 files\n")) << r.err;
    EXPECT_EQ(r.out, "{") << "a header failure before the first file leaves the document open";
}

struct SortedRunCase {
    std::string arg;
    std::string out;
};

// -S reads every header first, then processes the files by the keys.
TEST(ObxReadCli, SortedRunOrdersFilesByHeaderKeys) {
    Workspace ws;
    write_data_file(ws.dir.file("a.bin"), "node2", "t1", 300);
    write_data_file(ws.dir.file("b.bin"), "node1", "t2", 200);
    write_data_file(ws.dir.file("c.bin"), "node1", "t1", 100);
    write_data_file(ws.dir.file("d.bin"), "node3", "t0", 200);
    const SortedRunCase cases[] = {
        {"", "{\"a\":[],\"b\":[],\"c\":[],\"d\":[]}"},
        {"-S", "{\"c\":[],\"b\":[],\"d\":[],\"a\":[]}"},
        {"-Ssource_id,source_tag", "{\"c\":[],\"b\":[],\"a\":[],\"d\":[]}"},
        {"--sort-files=source_tag, first_timestamp", "{\"d\":[],\"c\":[],\"a\":[],\"b\":[]}"},
        {"--sort-files=bogus", "{\"c\":[],\"b\":[],\"d\":[],\"a\":[]}"},
    };
    for (const SortedRunCase& c : cases) {
        std::vector<std::string> args = {"a.bin", "b.bin", "c.bin", "d.bin"};
        if (!c.arg.empty()) args.insert(args.begin(), c.arg);
        const ProcessResult r = run_obx_read(args, ws.in_dir());
        EXPECT_EQ(r.exit_status, 0) << c.arg << "\n" << r.err;
        EXPECT_EQ(r.out, c.out) << c.arg;
    }
}

TEST(ObxReadCli, SortedRunLogsEntriesBeforeAndAfterAtDebug) {
    Workspace ws;
    write_data_file(ws.dir.file("late.bin"), "n", "t", 20);
    write_data_file(ws.dir.file("early.bin"), "n", "t", 10);
    const ProcessResult r = run_obx_read({"-v", "7", "-S", "late.bin", "early.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 0) << r.err;
    const std::string lines[] = {
        "[debug] before sort: late.bin \xE2\x86\x92 source_id = n | source_tag = t | ts = 20\n",
        "[debug] before sort: early.bin \xE2\x86\x92 source_id = n | source_tag = t | ts = 10\n",
        "[debug] after sort:  early.bin \xE2\x86\x92 source_id = n | source_tag = t | ts = 10\n",
        "[debug] after sort:  late.bin \xE2\x86\x92 source_id = n | source_tag = t | ts = 20\n",
    };
    size_t from = 0;
    for (const std::string& line : lines) {
        const size_t at = r.err.find(line, from);
        ASSERT_NE(at, std::string::npos) << line << "\n" << r.err;
        from = at + line.size();
    }
    const ProcessResult quiet = run_obx_read({"-S", "late.bin", "early.bin"}, ws.in_dir());
    EXPECT_FALSE(contains(quiet.err, "before sort")) << quiet.err;
}

// One unreadable header stops a sorted run before any file, whatever the others hold.
TEST(ObxReadCli, SortedRunStopsOnAnUnreadableHeader) {
    Workspace ws;
    write_data_file(ws.dir.file("good.bin"), "n", "t", 1);
    write_file(ws.dir.file("bad.bin"), std::string(300, 'x'));
    const ProcessResult r = run_obx_read({"-S", "good.bin", "bad.bin", "good.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "{");
    EXPECT_TRUE(contains(r.err, "[error] Invalid header in file: bad.bin\n")) << r.err;
    EXPECT_TRUE(contains(r.err, "[error] Failed to read file header: bad.bin\n")) << r.err;
    EXPECT_TRUE(contains(r.err, "Failed to read 1 of 3 files\n")) << r.err;

    const ProcessResult unsorted = run_obx_read({"good.bin", "bad.bin", "good.bin"}, ws.in_dir());
    EXPECT_EQ(unsorted.exit_status, 1);
    EXPECT_EQ(unsorted.out, "{\"good\":[],\"good\":[]}");
    EXPECT_TRUE(contains(unsorted.err, "Failed processing file bad.bin: Invalid data file header\n")) << unsorted.err;
    EXPECT_TRUE(contains(unsorted.err, "Failed to read 1 of 3 files\n")) << unsorted.err;
}

TEST(ObxReadCli, PrintPageInfoPrintsTheFileHeader) {
    Workspace ws;
    write_data_file(ws.dir.file("a.bin"), "node9", "tg", 5);
    const ProcessResult r = run_obx_read({"--print-page-info", "-f", "ndjson", "a.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Data file header\n", 0), 0u) << r.out;
    EXPECT_TRUE(contains(r.out, "node9")) << r.out;
}

// Files of a -d walk are processed like named ones, named ones first.
TEST(ObxReadCli, DataDirectoryFilesAreProcessed) {
    Workspace ws;
    mkdir(ws.dir.file("data").c_str(), 0755);
    write_data_file(ws.dir.file("data/inner.bin"), "n", "t", 1);
    write_data_file(ws.dir.file("named.x.bin"), "n", "t", 1);
    const ProcessResult r = run_obx_read({"-d", "data", "named.x.bin"}, ws.in_dir());
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"named\":[],\"inner\":[]}");
}

}  // namespace
