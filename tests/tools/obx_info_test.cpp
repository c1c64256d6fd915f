#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fixtures/mixed_data.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

namespace {

const ProcessOptions kHost{{"OBX_HOST_NAME=h"}, ""};

// One parsed object per output line, by its "file".
std::map<std::string, JsonPtr> reports(const std::string& out) {
    std::map<std::string, JsonPtr> by_file;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        JsonPtr report = json_parse(line);
        if (report) by_file[json_string_value(json_object_get(report.get(), "file"))] = std::move(report);
    }
    return by_file;
}

uint64_t number(const json_t* object, const char* dotted) {
    const json_t* value = object;
    std::string path = dotted;
    for (size_t start = 0; value;) {
        const size_t dot = path.find('.', start);
        value = json_object_get(value, path.substr(start, dot - start).c_str());
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    EXPECT_TRUE(json_is_number(value)) << dotted;
    return static_cast<uint64_t>(json_number_value(value));
}

uint64_t sum_of(const json_t* array, const char* key, const char* name = nullptr) {
    uint64_t sum = 0;
    for (size_t i = 0; i < json_array_size(array); ++i) {
        const json_t* item = json_array_get(array, i);
        if (!name || std::string(json_string_value(json_object_get(item, "name"))) == name)
            sum += number(item, key);
    }
    return sum;
}

}  // namespace

TEST(ObxInfo, CountsOfAGenFolderAreWhatGenWrote) {
    TempDir dir;
    for (const std::string compress : {"none", "snappy"}) {
        const std::string out = dir.file(compress);
        const ProcessResult gen = run_obx({"-v", "4", "gen", "--sources", "2", "--seconds", "21", "--rate", "30",
                                           "--compress", compress, "--json", "--out", out}, kHost);
        ASSERT_EQ(gen.exit_status, 0) << gen.err;
        JsonPtr wrote = json_parse(gen.out);
        const ProcessResult info = run_obx({"info", "--json", "-s", out + "/schema", "-d", out + "/data"});
        ASSERT_EQ(std::to_string(info.exit_status) + info.err, "0");
        const auto by_file = reports(info.out);
        ASSERT_EQ(by_file.size(), json_array_size(json_object_get(wrote.get(), "data_files")));
        std::map<std::string, uint64_t> total;
        for (const auto& [file, report] : by_file) {
            const json_t* r = report.get();
            EXPECT_TRUE(json_is_true(json_object_get(r, "read"))) << file;
            EXPECT_EQ(number(r, "problem_count"), 0u) << info.out;
            const json_t* events = json_object_get(r, "events");
            for (const char* type : {"cpu_sample", "port_sample", "job_end"})
                total[type] += json_object_get(events, type) ? number(events, type) : 0;
            total["counter_blocks"] += number(r, "counter_blocks.count");
            total["cntx_blocks"] += number(r, "cntx_blocks");
            total["histograms"] += sum_of(json_object_get(r, "histograms"), "records");
            total["page_frames"] += number(r, "page_frames");
            // Each CNTX block holds one record per port, each with a port_rcv_data sample.
            EXPECT_EQ(sum_of(json_object_get(r, "metrics"), "samples", "port_rcv_data"), 2 * number(r, "cntx_blocks"));
        }
        for (const char* type : {"cpu_sample", "port_sample", "job_end"})
            EXPECT_EQ(total[type], number(wrote.get(), (std::string("events.") + type).c_str())) << compress << type;
        for (const char* key : {"counter_blocks", "cntx_blocks", "histograms", "page_frames"})
            EXPECT_EQ(total[key], number(wrote.get(), key)) << compress << key;
    }
}

TEST(ObxInfo, ExampleDataAsObxReadPrintsIt) {
    TempDir temp;
    const MixedDataSet set = write_mixed_data(temp.path());
    const ProcessResult info = run_obx({"info", "--json", "-s", set.schema_dir, "-d", set.data_dir});
    ASSERT_EQ(std::to_string(info.exit_status) + info.err, "0");
    const auto by_file = reports(info.out);
    ASSERT_EQ(by_file.size(), set.records.size());
    for (const auto& [file, report] : by_file) {
        const json_t* r = report.get();
        // What obx_read prints a record for: every event, counter block and CNTX block.
        uint64_t records = number(r, "counter_blocks.count") + number(r, "cntx_blocks");
        const char* type;
        json_t* count;
        json_object_foreach(json_object_get(r, "events"), type, count) records += static_cast<uint64_t>(json_number_value(count));
        const std::string name = std::filesystem::path(file).filename().string();
        EXPECT_EQ(records, set.records.at(name)) << info.out;
        EXPECT_EQ(number(r, "problem_count"), 0u) << file;
    }
}

TEST(ObxInfo, ProblemsAreToldWithWhereAndDoNotStopTheRun) {
    TempDir dir;
    const std::string out = dir.file("gen");
    ASSERT_EQ(run_obx({"-v", "4", "gen", "--sources", "1", "--seconds", "3", "--out", out}, kHost).exit_status, 0);
    const std::string data = out + "/data/2023/1114/h_1/";
    // A counters file whose first chunk starts with no known block; its other chunks read on.
    std::string bytes = read_file_bytes(data + "counters_1700000000000000.bin");
    bytes.replace(256, 4, "XYZ\x09", 4);
    std::ofstream(dir.file("bad_block.bin"), std::ios::binary) << bytes;
    // A gzip-wrapped events file cut short.
    ASSERT_EQ(std::system(("gzip -c " + data + "events_1700000000000000.bin | head -c 1000 > " + dir.file("cut.bin.gz")).c_str()), 0);

    const ProcessResult info = run_obx({"info", "--json", "-s", out + "/schema", dir.file("bad_block.bin"),
                                        dir.file("cut.bin.gz"), dir.file("absent.bin")});
    EXPECT_EQ(info.exit_status, 1);
    const auto by_file = reports(info.out);
    ASSERT_EQ(by_file.size(), 3u) << info.out;
    const json_t* bad = by_file.at(dir.file("bad_block.bin")).get();
    EXPECT_TRUE(json_is_true(json_object_get(bad, "read")));
    EXPECT_EQ(json_text(json_object_get(bad, "problems")), "[\"chunk 1: a block of unknown type, magic 'XYZ\\\\x09'\"]");
    EXPECT_EQ(number(bad, "counter_blocks.count"), 2u);  // of 3
    const json_t* cut = by_file.at(dir.file("cut.bin.gz")).get();
    EXPECT_TRUE(json_is_false(json_object_get(cut, "read")));
    const std::string cut_problem = json_string_value(json_array_get(json_object_get(cut, "problems"), 0));
    EXPECT_TRUE(cut_problem.rfind("chunk ", 0) == 0 && cut_problem.find(": the file could not be read on: ") != std::string::npos) << info.out;
    const json_t* absent = by_file.at(dir.file("absent.bin")).get();
    EXPECT_EQ(std::string(json_string_value(json_array_get(json_object_get(absent, "problems"), 0))),
              "header: Failed to open data file " + dir.file("absent.bin") + ": No such file or directory");

    // Without its schemas an events file still shows its blocks; its events cannot be sized.
    const ProcessResult no_schemas = run_obx({"info", "-s", dir.path(), data + "events_1700000000000000.bin"});
    EXPECT_EQ(no_schemas.exit_status, 0);
    EXPECT_NE(no_schemas.out.find("  blocks          counters 0, events 0, schemas 3, cntx 0, other 0\n"), std::string::npos) << no_schemas.out;
    EXPECT_NE(no_schemas.out.find("  problem         chunk 1: Failed to load schema from file: " + dir.path() + "/schema_"), std::string::npos);

    EXPECT_EQ(run_obx({"info"}).exit_status, 2);
    EXPECT_EQ(run_obx({"info", "--bogus", "x"}).exit_status, 2);
}
