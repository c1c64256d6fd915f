// What obx_read writes for events and counters, run as a separate process on data files
// made by the fixture builders: output bytes per format, refusals with their exit status,
// filters and the time window, and failures inside pages.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fixtures/byte_writer.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

namespace {

using namespace obx_test;

// Times print in UTC whatever the machine's zone.
ProcessOptions utc()
{
    ProcessOptions options;
    options.environment = {"TZ=UTC"};
    return options;
}

class ExportTest : public testing::Test {
protected:
    void SetUp() override {
        EventSchemaDoc events("export");
        events.type("sample", {{"id", "uint16_t"}, {"name", "char", 6}, {"value", "double"}});
        events.type("other", {{"x", "uint8_t"}});
        events_ = SchemaFolder::hex(schemas_.add(events));
        CountersSchemaDoc counters;
        counters.group("NODE", 1, std::string("g")).counter("a", "UINT64").counter("b", "INT64");
        counters_ = SchemaFolder::hex(schemas_.add(counters.json().get()));
    }

    FileHeaderSpec header(uint32_t block_size = 256) const {
        FileHeaderSpec file_head;
        file_head.block_size = block_size;
        file_head.event_schema_ids = {events_};
        file_head.counters_schema_id = counters_;
        return file_head;
    }

    std::string file(const std::string& name, const std::vector<Bytes>& chunks, uint32_t block_size = 256) {
        const std::string path = data_.file(name);
        write_file(path, data_file(header(block_size), chunks));
        return path;
    }

    ProcessResult read(const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"-s", schemas_.path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run_obx_read(all, utc());
    }

    std::string report(const std::string& path, const std::string& text) const {
        return "Failed processing file " + path + ": " + text + "\n";
    }

    static Bytes sample(uint16_t id, const std::string& name, double value) {
        return ByteWriter().u16(id).fixed(name, 6).f64(value).take();
    }
    static Bytes counter_values() { return ByteWriter().u64(5).i64(-1200).take(); }

    SchemaFolder schemas_;
    TempDir data_;
    std::string events_, counters_;
};

constexpr uint64_t kTime = 1700000000000000ull;  // 2023-11-14 22:13:20 UTC

TEST_F(ExportTest, CountersBlockInEachFormat)
{
    const std::string path = file("c.bin", {counters_block(kTime, counter_values())});
    const std::string rule = "------------------------------------------------------\n";
    struct FormatCase {
        const char* format;
        std::string out;
    };
    const std::vector<FormatCase> cases = {
        {"json",
         "{\"c\":[{\n"
         "    \"timestamp\": 1700000000000000,\n"
         "    \"@timestamp\": \"2023-11-14 22:13:20.000\",\n"
         "    \"groups\": [\n"
         "        {\n"
         "            \"granularity\": \"NODE\",\n"
         "            \"name\": \"g\",\n"
         "            \"counter_sets\": [\n"
         "                {\n"
         "                    \"a\": 5,\n"
         "                    \"b\": -1200\n"
         "                }\n"
         "            ]\n"
         "        }\n"
         "    ]\n"
         "}]}"},
        {"ndjson",
         "{\"timestamp\":1700000000000000,\"@timestamp\":\"2023-11-14 22:13:20.000\",\"groups\":[{\"granularity\":"
         "\"NODE\",\"name\":\"g\",\"counter_sets\":[{\"a\":5,\"b\":-1200}]}]}\n"},
        {"txt",
         "Data collected at 2023-11-14 22:13:20.000\n" + rule +
             "| Counter values per NODE                            |\n" + rule +
             "| NODE |                    a |                    b |\n" + rule +
             "|    0 |                    5(u) |                -1200 |\n" + rule},
    };
    for (const FormatCase& c : cases) {
        SCOPED_TRACE(c.format);
        const ProcessResult r = read({"-f", c.format, path});
        EXPECT_EQ(r.exit_status, 0) << r.err;
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(ExportTest, RefusalsReportAndKeepTheExitStatus)
{
    const std::string path =
        file("mixed.bin", {event_block(0, 1, 1, ByteWriter().u8(7).take()), counters_block(kTime, counter_values())});
    const std::string text = report(path, "Text output is not yet supported for counters data");
    const std::string csv = report(path, "CSV output is not supported yet");
    const std::string influx = report(path, "Influx line API output is not yet supported for counters data");
    struct RefusalCase {
        const char* format;
        int exit_status;
        std::string err;
        std::string out_start;
    };
    const std::vector<RefusalCase> cases = {
        {"txt", 0, text, "Data collected at 2023-11-14 22:13:20.000\n"},
        {"csv", 0, csv + csv, ""},
        {"influx", 0, influx, "x=7i\n"},
        {"bin", 1,
         report(path, "Unknown output format 5") + "[error] Failed to print\n" +
             "[error] Failed to process block of type 1 at offset 0\n" +
             report(path, "Failed to process data file " + path) + "Failed to read 1 of 1 files\n",
         ""},
    };
    for (const RefusalCase& c : cases) {
        SCOPED_TRACE(c.format);
        const ProcessResult r = read({"-f", c.format, "--output-dir", data_.path(), path});
        EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
        EXPECT_EQ(r.out.substr(0, c.out_start.size()), c.out_start);
        if (c.out_start.empty()) {
            EXPECT_EQ(r.out, "");
        }
        // Log lines carry a time prefix; compare what follows it.
        std::string err;
        for (size_t start = 0; start < r.err.size();) {
            const size_t end = r.err.find('\n', start);
            std::string line = r.err.substr(start, end - start + 1);
            if (line.rfind("[20", 0) == 0) line = line.substr(line.find("] ") + 2);
            err += line;
            start = end == std::string::npos ? r.err.size() : end + 1;
        }
        EXPECT_EQ(err, c.err);
    }
}

TEST_F(ExportTest, TimeWindowSkipsCountersButKeepsTheSeparator)
{
    const std::string path = file("w.bin", {counters_block(100, counter_values()), counters_block(300, counter_values()),
                                            event_block(0, 1, 1, ByteWriter().u8(9).take())});
    // Both bounds are inclusive: 300 is printed with -l 300, 100 is skipped with -g 200.
    const ProcessResult r = read({"-f", "ndjson", "-g", "200", "-l", "300", path});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.find("\"timestamp\":100,"), std::string::npos);
    EXPECT_NE(r.out.find("\"timestamp\":300,"), std::string::npos) << r.out;

    // The skipped first block still counts as a record: the next one carries ",\n".
    const std::string first_skipped = file("s.bin", {counters_block(100, counter_values()),
                                                     event_block(0, 1, 1, ByteWriter().u8(9).take())});
    const ProcessResult json = read({"-g", "200", first_skipped});
    ASSERT_EQ(json.exit_status, 0) << json.err;
    EXPECT_EQ(json.out, "{\"s\":[,\n{\n    \"x\": 9\n}]}");
}

TEST_F(ExportTest, ExcludingEveryTypeStillWalksTheFile)
{
    const std::string path = file("x.bin", {event_block(0, 0, 1, sample(1, "a", 1.0), 77),
                                            event_block(0, 1, 1, ByteWriter().u8(1).take(), 78)});
    const ProcessResult r = read({"-e", "*", path});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"x\":[]}");

    const ProcessResult headers = read({"-e", "*", "-p", "-f", "ndjson", path});
    EXPECT_EQ(headers.exit_status, 0) << headers.err;
    const std::string event_head =
        "Event header\n magic number         = OBXE\n schema index         = 0\n type index           = ";
    EXPECT_NE(headers.out.find(event_head + "0\n number of events     = 1\n"), std::string::npos) << headers.out;
    EXPECT_NE(headers.out.find(event_head + "1\n number of events     = 1\n"), std::string::npos) << headers.out;
    EXPECT_EQ(headers.out.find('{'), std::string::npos) << "no records: " << headers.out;
}

TEST_F(ExportTest, FailuresInsideTheBodyEndTheFile)
{
    struct FailureCase {
        const char* name;
        Bytes chunk;
        std::string error;
    };
    SchemasBlockSpec fifteen;
    fifteen.ids = {events_};
    fifteen.id_count = 15;
    fifteen.block_size = 300;
    fifteen.pad_to = 300;
    const std::vector<FailureCase> cases = {
        {"blob in a page", page_frame(blob_block(kTime, Bytes(8, 1))),
         "[error] Reached unknown block type 3 in compressed data block. Magic value 'OBXB'"},
        {"schemas block with 15 ids", schemas_block(fifteen), "[error] Failed to process block of type 2 at offset 0"},
        {"unknown type", event_block(0, 0x0105, 1, Bytes(1, 0)), "[error] Type definition 0:261 not found"},
        {"cut counters block in a page", page_frame(counters_block(kTime, Bytes(15, 0))),
         "Counters block holds 15 bytes of values, the counters schema needs 16"},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = file("f.bin", {event_block(0, 1, 1, ByteWriter().u8(3).take()), c.chunk}, 512);
        const ProcessResult r = read({path});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(report(path, "Failed to process data file " + path)), std::string::npos) << r.err;
        // What was printed before the failure stays; the file's array is left open.
        EXPECT_EQ(r.out, "{\"f\":[{\n    \"x\": 3\n}}");
    }
}

}  // namespace
