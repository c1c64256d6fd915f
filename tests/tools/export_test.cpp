// What obx_read writes for events and counters, run as a separate process on data files
// made by the fixture builders: output and exit status per format, the type filter, -p,
// the time window and failures inside the body of a file.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

static Bytes at(uint64_t time) { return counters_block(time, ByteWriter().u64(5).i64(-1200).take()); }
// The ndjson line of at(time), in UTC.
static std::string line(uint64_t time)
{
    return "{\"timestamp\":" + std::to_string(time) + ",\"@timestamp\":\"1970-01-01 00:00:00.000\",\"groups\":[{"
           "\"granularity\":\"NODE\",\"name\":\"g\",\"counter_sets\":[{\"a\":5,\"b\":-1200}]}]}\n";
}

TEST(Export, OutputAndExitStatus)
{
    SchemaFolder schemas;
    EventSchemaDoc events("export");
    CountersSchemaDoc counters;
    counters.group("NODE", 1, std::string("g")).counter("a", "UINT64").counter("b", "INT64");
    FileHeaderFields head;
    events.type("y", {{"y", "uint16_t"}}).type("x", {{"x", "uint8_t"}});
    std::tie(head.block_size, head.event_schema_ids, head.counters_schema_id) = std::make_tuple(512, std::vector<std::string>{SchemaFolder::hex(schemas.add(events))}, SchemaFolder::hex(schemas.add(counters.json().get())));
    TempDir data;
    const std::string path = data.file("f.bin"), failed = "Failed processing file " + path + ": ";
    const std::string x = "{\n    \"x\": 7\n}", cut = "{\"f\":[" + x + "}";
    const Bytes kx = event_block(0, 1, 1, Bytes{7}), both = concat({event_block(0, 0, 1, Bytes{1, 0}), kx});
    // Out: '*' at its end or start stands for the rest; err: a part of standard error, log lines without their time prefix.
    struct Row { std::vector<std::string> arguments; std::vector<Bytes> chunks; int exit_status; std::string out, err; };
    const std::vector<Row> rows = {
        {{"-f", "ndjson"}, {kx, at(1)}, 0, "{\"x\":7}\n" + line(1), ""},
        {{"-f", "txt"}, {kx, at(1)}, 0, "Data collected at 1970-01-01 00:00:00.000\n*", failed + "Text output is not yet supported for counters data\n"},
        {{"-f", "bin"}, {kx, at(1)}, 1, "", failed + "Unknown output format 5\n[error] Failed to print\n[error] Failed " "to process block of type 1 at offset 0\n" + failed + "Failed to process data file " + path + "\nFailed to " "read 1 of 1 files\n"},
        // Events are taken by type name; only printed ones count toward the json separator.
        {{"-i", "X*"}, {both}, 0, "{\"f\":[" + x + "]}", ""},
        {{"-i", "y", "-e", "Y*"}, {both}, 0, "{\"f\":[]}", ""},
        // -e '*' drops every event, yet the file is walked to its end and -p still shows every head.
        {{"-e", "*", "-p", "-f", "ndjson"}, {both}, 0, "*obxf\nEvent header\n magic number         = OBXE\n schema " "index         = 0\n type index           = 0\n number of events     = 1\nEvent header\n magic number         " "= OBXE\n schema index         = 0\n type index           = 1\n number of events     = 1\n", ""},
        // With -p a counters block shows its head alone, whatever the window and the values.
        {{"-p", "-g", "500", "-f", "csv"}, {counters_block(100, Bytes(3, 0))}, 0, "*obxf\nData block\n magic number         = OBXD\n last timestamp       = 100\n", ""},
        // Both bounds are inclusive; a skipped counters block still counts, so the next record carries ",\n".
        {{"-f", "ndjson", "-g", "200", "-l", "300"}, {at(100), at(200), at(300), at(400), kx}, 0, line(200) + line(300) + "{\"x\":7}\n", ""},
        {{"-g", "200"}, {at(100), kx}, 0, "{\"f\":[,\n" + x + "]}", ""},
        // A failure in the body ends the file; what was printed stays and the array is left open.
        {{}, {kx, page_frame(blob_block(1, Bytes(8, 1)))}, 1, cut, "[error] Reached unknown block type 3 in compressed data block. Magic value 'OBXB'\n"},
        {{}, {kx, schemas_block({{head.event_schema_ids[0]}, 300, 15, 300})}, 1, cut, "[error] Failed to process block of type 2 at offset 0\n"},
        {{}, {kx, event_block(0, 0x0105, 1, Bytes{0})}, 1, cut, "[error] Type definition 0:261 not found\n"},
        {{}, {kx, page_frame(counters_block(1, Bytes(15, 0)))}, 1, cut, failed + "Counters block holds 15 bytes of values, the counters schema needs 16\n"},
    };
    for (const Row& c : rows) {
        SCOPED_TRACE(c.out + c.err);
        write_file(path, data_file(head, c.chunks));
        std::vector<std::string> arguments = {"-s", schemas.path(), "--output-dir", data.path()};
        arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
        arguments.push_back(path);
        const ProcessResult r = run_obx_read(arguments, ProcessOptions{{"TZ=UTC"}, ""});
        EXPECT_EQ(r.exit_status, c.exit_status) << r.err;
        const size_t n = std::min(c.out.size() - 1, r.out.size());
        EXPECT_EQ(c.out.empty() ? r.out : c.out.back() == '*' ? r.out.substr(0, n) + "*" : c.out[0] == '*' ? "*" + r.out.substr(r.out.size() - n) : r.out, c.out);
        std::string err = "\n" + r.err;
        for (size_t at; (at = err.find("\n[20")) != std::string::npos;) err.erase(at + 1, err.find("] ", at) + 1 - at);
        if (c.err.empty()) {
            EXPECT_EQ(r.err, "");
        } else {
            EXPECT_NE(err.find(c.err), std::string::npos) << err;
        }
    }
}

// A schema file's layout is taken as it stands: a field may lie past its record's size or
// overlap its neighbours, and reads into the bytes behind the record; reads past the buffer
// are refused with the event's place, after the events before it are out.
TEST(Export, StatedLayoutsReadBehindTheRecordButNeverPastTheBuffer)
{
    SchemaFolder schemas;
    FieldDoc b("b", "uint16_t"), c("c", "uint16_t", 2);
    b.offset = 2, c.offset = 0, c.type_size = 1;
    TypeDoc t{"t", {{"a", "uint8_t"}, b, c}, 2};
    FileHeaderFields head;
    head.block_size = 512;
    head.event_schema_ids = {SchemaFolder::hex(schemas.add(EventSchemaDoc("stated").type(t)))};
    TempDir data;
    const std::string path = data.file("f.bin");
    const Bytes block = event_block(0, 0, 2, Bytes{1, 2, 3, 4});
    const struct { Bytes chunk; int exit_status; std::string out, err; } rows[] = {
        // In a chunk the zero padding lies behind the last record.
        {block, 0, "{\"a\":1,\"b\":1027,\"c\":[513,770]}\n{\"a\":3,\"b\":0,\"c\":[1027,4]}\n", ""},
        // A page ends right after its block: the second event would read two bytes past it.
        {page_frame(block), 1, "{\"a\":1,\"b\":1027,\"c\":[513,770]}\n",
         "[error] Event of type 't' at offset 18 reads 4 bytes, its buffer holds 2 more\n"
         "[error] Failed to process block of type 1 at offset 0\n"},
    };
    for (const auto& row : rows) {
        write_file(path, data_file(head, {row.chunk}));
        const ProcessResult r = run_obx_read({"-s", schemas.path(), "-f", "ndjson", path}, ProcessOptions{{"TZ=UTC"}, ""});
        EXPECT_EQ(r.exit_status, row.exit_status);
        EXPECT_EQ(r.out, row.out);
        std::string err = r.err;
        for (size_t at; (at = err.find("[20")) != std::string::npos;) err.erase(at, err.find("] ", at) + 2 - at);
        EXPECT_EQ(err.substr(0, row.err.size()), row.err);
        if (row.err.empty()) {
            EXPECT_EQ(err, "");
        }
    }
}

// Only the low byte of type_index picks the type, read unsigned: 0x80 and above are types
// 128 and on, not negative places, and the high byte is left out.
TEST(Export, TypeIndexLowByteFromTheUpperHalf)
{
    SchemaFolder schemas;
    EventSchemaDoc doc("many");
    for (int i = 0; i < 131; ++i) doc.type("t" + std::to_string(i), {{"f" + std::to_string(i), "uint8_t"}});
    FileHeaderFields head;
    head.block_size = 512;
    head.event_schema_ids = {SchemaFolder::hex(schemas.add(doc))};
    TempDir data;
    const std::string path = data.file("f.bin");
    write_file(path, data_file(head, {concat({event_block(0, 0x80, 1, Bytes{9}), event_block(0, 0x0182, 1, Bytes{7})})}));
    const ProcessResult r = run_obx_read({"-s", schemas.path(), "-f", "ndjson", path}, ProcessOptions{{"TZ=UTC"}, ""});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"f128\":9}\n{\"f130\":7}\n");
}
