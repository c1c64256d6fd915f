#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using obx_test::run_obx;

namespace {

const obx_test::ProcessOptions kHost{{"OBX_HOST_NAME=h"}, ""};

// Every file below `folder` by its path relative to it, with its bytes.
std::map<std::string, std::string> tree(const std::string& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files[std::filesystem::relative(entry.path(), folder).string()] = obx_test::read_file_bytes(entry.path().string());
    return files;
}

std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
}

size_t count_of(const std::vector<std::string>& lines, const std::string& part) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

}  // namespace

TEST(ObxGen, WritesWhatObxReadPrintsAndTheSameOptionsGiveTheSameBytes) {
    obx_test::TempDir dir;
    const std::vector<std::string> common = {"-v", "4", "gen", "--sources", "node[1-2]", "--seconds", "12", "--rate", "10"};
    std::map<std::string, std::vector<std::string>> printed;
    for (const std::string compress : {"none", "gzip", "snappy"}) {
        std::vector<std::string> args = common;
        args.insert(args.end(), {"--compress", compress, "--out", dir.file(compress)});
        const auto result = run_obx(args, kHost);
        ASSERT_EQ(result.exit_status, 0) << result.err;
        EXPECT_EQ(result.err, "") << compress;
        // Per second and source: 6 cpu samples, 3 port samples, one job end and a counters
        // block; a CNTX block every ten seconds.
        EXPECT_NE(result.out.find("events:         240 (cpu_sample 144, port_sample 72, job_end 24)\n"), std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("counter blocks: 24\ncntx blocks:    4 with 8 histograms\n"), std::string::npos) << result.out;

        const auto read = obx_test::run_obx_read({"-f", "ndjson", "-d", dir.file(compress + "/data")});
        EXPECT_EQ(read.exit_status, 0) << read.err;
        printed[compress] = sorted_lines(read.out);
        EXPECT_EQ(printed[compress].size(), 240u + 24u + 4u) << compress;
        EXPECT_EQ(count_of(printed[compress], "\"job_id\":"), 24u);
        EXPECT_EQ(count_of(printed[compress], "\"host\":\"node_2\""), 2u);  // the constant label of a CNTX block
    }
    EXPECT_EQ(printed["gzip"], printed["none"]);
    EXPECT_EQ(printed["snappy"], printed["none"]);

    std::vector<std::string> again = common;
    again.insert(again.end(), {"--compress", "gzip", "--out", dir.file("again")});
    ASSERT_EQ(run_obx(again, kHost).exit_status, 0);
    EXPECT_EQ(tree(dir.file("again")), tree(dir.file("gzip")));
    again.insert(again.end(), {"--seed", "2", "--out", dir.file("seed2")});
    ASSERT_EQ(run_obx(again, kHost).exit_status, 0);
    EXPECT_NE(tree(dir.file("seed2/data")), tree(dir.file("gzip/data")));
    EXPECT_EQ(tree(dir.file("seed2/schema")), tree(dir.file("gzip/schema")));  // the schemas do not depend on the seed
}

TEST(ObxGen, SchemaFilesAreNamedByTheirDigestAndTheSummaryIsJsonToo) {
    obx_test::TempDir dir;
    const auto result = run_obx({"-v", "4", "gen", "-s", "1", "-n", "1", "-r", "0", "-j", "-o", dir.path()}, kHost);
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const obx_test::JsonPtr summary = obx_test::json_parse(result.out);
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(obx_test::json_text(json_object_get(summary.get(), "events")), "{\"cpu_sample\":0,\"port_sample\":0,\"job_end\":0}");
    EXPECT_EQ(obx_json_object_get_number(summary.get(), "counter_blocks"), 1);
    EXPECT_EQ(obx_json_object_get_number(summary.get(), "cntx_blocks"), 1);
    EXPECT_STREQ(obx_json_object_get_string(summary.get(), "schema_folder"), dir.file("schema").c_str());
    for (const auto& [name, bytes] : tree(dir.file("schema"))) {
        obx_test::SchemaFolder check;
        EXPECT_EQ(name, "schema_" + obx_test::SchemaFolder::hex(check.add_text(bytes)) + ".json");
    }
    EXPECT_EQ(tree(dir.file("schema")).size(), 2u);
}

TEST(ObxGen, UsageErrorsAndFailures) {
    obx_test::TempDir dir;
    std::ofstream(dir.file("plain")) << "x";
    const std::string help = "\nTry 'obx gen --help'.\n";
    const struct { std::vector<std::string> args; int status; std::string err; } rows[] = {
        {{}, 2, "obx gen: --out DIR is needed" + help},
        {{"-o", "x", "extra"}, 2, "obx gen: unexpected argument 'extra'" + help},
        {{"-o", "x", "-c", "lz4"}, 2, "obx gen: --compress 'lz4' is not none, gzip or snappy" + help},
        {{"-o", "x", "-n", "0"}, 2, "obx gen: --seconds '0' is not a number of seconds from 1 to 604800" + help},
        {{"-o", "x", "-r", "-1"}, 2, "obx gen: --rate '-1' is not a number of events from 0 to 100000" + help},
        {{"-o", "x", "-t", "soon"}, 2, "obx gen: --start 'soon' is not a time in microseconds since the epoch" + help},
        {{"-o", "x", "-S", "1.5"}, 2, "obx gen: --seed '1.5' is not a number" + help},
        {{"-o", "x", "-F", "0"}, 2, "obx gen: --file-size '0' is not a number of MiB from 1 to 1048576" + help},
        {{"-o", "x", "--file-size", "1048577"}, 2, "obx gen: --file-size '1048577' is not a number of MiB from 1 to 1048576" + help},
        {{"-o", "x", "-A", "604801"}, 2, "obx gen: --file-age '604801' is not a number of seconds from 1 to 604800" + help},
        {{"-o", dir.path(), "-s", "3-1"}, 1, ""},
        {{"-o", dir.file("plain/below")}, 1, ""},
    };
    for (const auto& row : rows) {
        std::vector<std::string> args{"gen"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const auto result = run_obx(args, kHost);
        EXPECT_EQ(result.exit_status, row.status) << args.back() << result.err;
        if (!row.err.empty()) EXPECT_EQ(result.err, row.err);
        else EXPECT_NE(result.err, "") << args.back();
    }
}

// The data writer names the files by its default template and finishes a file after ten
// minutes of data; a second run into the same folder is refused rather than appended.
TEST(ObxGen, FilesFollowThePathTemplateAndTheAgeLimit) {
    obx_test::TempDir dir;
    const auto result = run_obx({"-v", "4", "gen", "-s", "1", "-n", "700", "-r", "1", "-o", dir.path()}, kHost);
    ASSERT_EQ(result.exit_status, 0) << result.err;
    std::map<std::string, size_t> per_tag;
    for (const auto& [path, bytes] : tree(dir.file("data"))) {
        EXPECT_EQ(path.rfind("2023/1114/h_1/", 0), 0u) << path;
        per_tag[path.substr(14, path.find('_', 14) - 14)] += 1;
        EXPECT_GE(bytes.size(), 256u);
    }
    EXPECT_EQ(per_tag, (std::map<std::string, size_t>{{"counters", 2}, {"events", 2}, {"metrics", 2}}));
    for (const std::string tag : {"counters", "events", "metrics"})
        EXPECT_TRUE(std::filesystem::exists(dir.file("data/2023/1114/h_1/" + tag + "_1700000000000000.bin"))) << tag;

    // Other limits: a file of each tag per 300 seconds, or one for the whole span.
    for (const auto& [age, files] : std::vector<std::pair<std::string, size_t>>{{"300", 3}, {"800", 1}}) {
        const std::string out = dir.file("age" + age);
        ASSERT_EQ(run_obx({"-v", "4", "gen", "-s", "1", "-n", "700", "-r", "1", "-A", age, "-o", out}, kHost).exit_status, 0);
        EXPECT_EQ(tree(out + "/data").size(), 3 * files) << age;
    }

    const auto again = run_obx({"-v", "4", "gen", "-o", dir.path()}, kHost);
    EXPECT_EQ(again.exit_status, 1);
    EXPECT_EQ(again.err, "obx gen: " + dir.file("data") + " is there already; give a new --out\n");
}

// obx_read does not print histograms, so their records are read here by their layout:
// "HIST", time, name, buckets (bound, cumulative count), sum, count, labels block, "hist".
TEST(ObxGen, HistogramRecordsOfTheMetricsBlocks) {
    obx_test::TempDir dir;
    ASSERT_EQ(run_obx({"-v", "4", "gen", "-s", "1", "-n", "1", "-r", "0", "-o", dir.path()}, kHost).exit_status, 0);
    const std::string file = obx_test::read_file_bytes(dir.file("data/2023/1114/h_1/metrics_1700000000000000.bin"));
    ASSERT_GT(file.size(), 256u);
    const auto u8 = [&](size_t at) { return static_cast<uint8_t>(file.at(at)); };
    const auto u64 = [&](size_t at) { uint64_t v = 0; for (int i = 7; i >= 0; --i) v = v << 8 | u8(at + i); return v; };
    const auto f64 = [&](size_t at) { const uint64_t bits = u64(at); double v; std::memcpy(&v, &bits, 8); return v; };
    const double bounds[] = {1, 2, 5, 10, 20, 50, 100, 1000};
    size_t found = 0;
    for (size_t at = file.find("HIST"); at != std::string::npos; at = file.find("HIST", at + 4), ++found) {
        EXPECT_EQ(u64(at + 4), 1700000000000000ull);
        ASSERT_EQ(u8(at + 12), 14u);
        EXPECT_EQ(file.substr(at + 13, 14), "rpc_latency_us");
        ASSERT_EQ(u8(at + 27), 8u);
        uint64_t previous = 0;
        double sum = 0;
        for (size_t b = 0; b < 8; ++b) {
            EXPECT_EQ(f64(at + 28 + 16 * b), bounds[b]);
            const uint64_t cumulative = u64(at + 36 + 16 * b);
            EXPECT_GE(cumulative, previous);
            sum += 0.75 * bounds[b] * static_cast<double>(cumulative - previous);
            previous = cumulative;
        }
        EXPECT_DOUBLE_EQ(f64(at + 156), sum);
        EXPECT_EQ(u64(at + 164), previous);  // the count is the last bucket's
        // Labels block: set 0, two entries by id (device = port number - 1, port 1 or 2).
        const std::string labels = {0, 2, 'L', static_cast<char>(found), static_cast<char>(2 + found)};
        EXPECT_EQ(file.substr(at + 172, 5), labels);
        EXPECT_EQ(file.substr(at + 177, 4), "hist");
    }
    EXPECT_EQ(found, 2u);
}

// A source's files are finished before the next one starts, so that many sources do not
// need many file handles at once.
TEST(ObxGen, ManySourcesWithFewFileHandles) {
    obx_test::TempDir dir;
    const std::string command = "ulimit -n 40 && exec '" + std::string(OBX_BINARY) + "' -v 4 gen -s 30 -n 1 -r 1 -o '" + dir.path() + "'";
    const auto result = obx_test::run_program("/bin/sh", {"-c", command}, kHost);
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(tree(dir.file("data")).size(), 90u);  // three tags of thirty sources
}

// SIGINT and SIGTERM stop a long run between two seconds: the files left read back whole,
// holding exactly what the summary says was written.
TEST(ObxGen, StopSignalsLeaveCompleteFiles) {
    for (const int signal : {SIGINT, SIGTERM}) {
        obx_test::TempDir dir;
        obx_test::ProcessOptions options = kHost;
        options.signal = signal;
        options.signal_when = [&] {
            std::error_code error;
            for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.file("data"), error))
                if (entry.is_regular_file() && entry.file_size() > 0) return true;
            return false;
        };
        const auto result = run_obx({"-v", "4", "gen", "-s", "3", "-n", "600000", "-r", "50", "-c", "gzip", "-j", "-o", dir.path()}, options);
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.err, std::string("obx gen: stopped by ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") +
                                  "; the files written so far are complete\n");
        const obx_test::JsonPtr summary = obx_test::json_parse(result.out);
        ASSERT_NE(summary, nullptr) << result.out;
        double records = obx_json_object_get_number(summary.get(), "counter_blocks") + obx_json_object_get_number(summary.get(), "cntx_blocks");
        for (const char* type : {"cpu_sample", "port_sample", "job_end"})
            records += obx_json_object_get_number(json_object_get(summary.get(), "events"), type);
        EXPECT_GT(obx_json_object_get_number(summary.get(), "counter_blocks"), 0);
        EXPECT_LT(obx_json_object_get_number(summary.get(), "counter_blocks"), 3 * 600000);

        const auto read = obx_test::run_obx_read({"-f", "ndjson", "-s", dir.file("schema"), "-d", dir.file("data")});
        EXPECT_EQ(read.exit_status, 0) << read.err;
        EXPECT_EQ(read.err, "");
        EXPECT_EQ(static_cast<double>(sorted_lines(read.out).size()), records);
    }
}
