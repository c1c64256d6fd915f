// The export of events and counter blocks as obx_read does it, end to end: every record
// goes through the direct writers, framed per format, across a schemas block that
// replaces the types in the middle of a file (plans made for the old types must go).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "counters/counter_data/counters_data.h"
#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/byte_writer.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "tools/read_options.h"

namespace {

using namespace obx_test;

class EventExportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        EventSchemaDoc first("first");
        first.type("a_event", {{"name", "char", 6}, {"v", "double"}, {"n", "int16_t"}});
        EventSchemaDoc second("second");
        // Same position, other fields: a plan of a_event would render it wrongly.
        second.type("b_event", {{"x", "uint8_t"}, {"label", "char", 4}, {"inner", "uint16_t", 2}});
        first_ = folder_.add(first);
        second_ = folder_.add(second);
        CountersSchemaDoc counters;
        counters.group("CPU", 2, std::string("cpu")).counter("c", "UINT64").counter("f", "FP64");
        counters_ = folder_.add(counters.json().get());

        FileHeaderSpec header;
        header.block_size = 1024;
        header.event_schema_ids = {SchemaFolder::hex(first_)};
        header.counters_schema_id = SchemaFolder::hex(counters_);
        const Bytes a_events = ByteWriter()
                                   .fixed("alpha", 6).f64(0.5).i16(-3)
                                   .fixed("beta/2", 6).f64(1e300).i16(7)
                                   .take();
        SchemasBlockSpec swap;
        swap.ids = {SchemaFolder::hex(second_)};
        const Bytes b_event = ByteWriter().u8(9).fixed("ok", 4).u16(1).u16(2).take();
        const Bytes b_next = ByteWriter().u8(10).text("abcd").u16(3).u16(4).take();
        const Bytes counter_values = ByteWriter().u64(5).f64(0.25).take();
        const Bytes file = data_file(
            header, {concat({event_block(0, 0, 2, a_events), schemas_block(swap), event_block(0, 0, 1, b_event)}),
                     event_block(0, 0, 1, b_next), counters_block(1700000000000000ull, counter_values)});
        write_file(dir_.file("one.bin.gz"), file, true);
        write_file(dir_.file("two.bin"), file, false);
    }

    ProcessResult run(const std::string& format)
    {
        return run_obx_read({"-s", folder_.path(), "-f", format, dir_.file("one.bin.gz"), dir_.file("two.bin")},
                            ProcessOptions{{"TZ=UTC"}, {}, ""});
    }

    SchemaFolder folder_;
    TempDir dir_;
    SchemaId first_{}, second_{}, counters_{};
};

TEST_F(EventExportTest, EachFormatAcrossASchemaChange)
{
    const std::string counters_plain =
        R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[{"granularity":"CPU",)"
        R"("name":"cpu","counter_sets":[{"c":5,"f":0.25},{"c":5,"f":0.25}]}]})";
    const std::string ndjson_file = "{\"name\":\"alpha\",\"v\":0.5,\"n\":-3}\n"
                                    "{\"name\":\"beta/2\",\"v\":1.0000000000000001e+300,\"n\":7}\n"
                                    "{\"x\":9,\"label\":\"ok\",\"inner\":[1,2]}\n"
                                    "{\"x\":10,\"label\":\"abcd\",\"inner\":[3,4]}\n" +
                                    counters_plain + "\n";
    char huge[400];
    std::snprintf(huge, sizeof huge, "%f", 1e300);  // every digit of the double nearest to 1e300
    const std::string influx_file = "name=\"alpha\",v=0.500000,n=-3i\n"
                                    "name=\"beta/2\",v=" + std::string(huge) + ",n=7i\n"
                                    "x=9i,label=\"ok\"\n"
                                    "x=10i,label=\"abcd\"\n";
    const std::string json_records = "{\n    \"name\": \"alpha\",\n    \"v\": 0.5,\n    \"n\": -3\n},\n"
                                     "{\n    \"name\": \"beta/2\",\n    \"v\": 1.0000000000000001e+300,\n"
                                     "    \"n\": 7\n},\n"
                                     "{\n    \"x\": 9,\n    \"label\": \"ok\",\n    \"inner\": [\n        1,\n"
                                     "        2\n    ]\n},\n"
                                     "{\n    \"x\": 10,\n    \"label\": \"abcd\",\n    \"inner\": [\n        3,\n"
                                     "        4\n    ]\n},\n";
    const std::string counters_pretty =
        "{\n    \"timestamp\": 1700000000000000,\n    \"@timestamp\": \"2023-11-14 22:13:20.000\",\n"
        "    \"groups\": [\n        {\n            \"granularity\": \"CPU\",\n            \"name\": \"cpu\",\n"
        "            \"counter_sets\": [\n                {\n                    \"c\": 5,\n"
        "                    \"f\": 0.25\n                },\n                {\n"
        "                    \"c\": 5,\n                    \"f\": 0.25\n                }\n"
        "            ]\n        }\n    ]\n}";
    struct Case {
        const char* format;
        std::string out;
    };
    const std::vector<Case> cases = {
        {"ndjson", ndjson_file + ndjson_file},
        {"influx", influx_file + influx_file},
        {"json", "{\"one\":[" + json_records + counters_pretty + "],\"two\":[" + json_records + counters_pretty +
                     "]}"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = run(c.format);
        EXPECT_EQ(result.exit_status, 0) << c.format << "\n" << result.err;
        EXPECT_EQ(result.out, c.out) << c.format;
    }
}

// A record that cannot be rendered ends its file after the records before it, as the
// value path did; the next file is read all the same.
TEST_F(EventExportTest, AFailingRecordEndsItsFile)
{
    EventSchemaDoc doc("broken");
    doc.type("d_event", {{"d", "double"}});
    const SchemaId id = folder_.add(doc);
    FileHeaderSpec header;
    header.block_size = 256;
    header.event_schema_ids = {SchemaFolder::hex(id)};
    const Bytes events = ByteWriter().f64(1.5).u64(0x7ff8000000000000ull).f64(2.5).take();
    write_file(dir_.file("bad.bin"), data_file(header, {event_block(0, 0, 3, events)}));
    const ProcessResult result =
        run_obx_read({"-s", folder_.path(), "-f", "json", dir_.file("bad.bin"), dir_.file("two.bin")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out.rfind("{\"bad\":[{\n    \"d\": 1.5\n},\"two\":[", 0), 0u) << result.out;
    EXPECT_NE(result.err.find("Failed processing file " + dir_.file("bad.bin") + ": Failed to JSONify event values"),
              std::string::npos)
        << result.err;
}

// Plans point into the schemas of the type system: loading a new one (a schemas block)
// must drop them before the old types are freed.
TEST_F(EventExportTest, LoadingSchemasDropsThePlans)
{
    std::string path = folder_.path();
    obx_read_options_t options{};
    options.schema_path = &path[0];
    obx_reader_context_t context{};
    context.options = &options;
    std::memcpy(context.header.event_schema_ids[0], first_.data(), 16);
    std::memcpy(context.header.counters_schema_id, counters_.data(), 16);
    ASSERT_TRUE(obx_reader_load_type_system(&context, context.header.event_schema_ids, OBX_EVENT_SCHEMA_SLOTS));
    context.event_writer = obx_event_text_writer_create();
    context.counters_writer = obx_counters_text_writer_create();
    ASSERT_TRUE(context.event_writer && context.counters_writer);

    const Bytes record = ByteWriter().fixed("x", 6).f64(1).i16(2).take();
    ASSERT_TRUE(obx_event_text_writer_append_event(context.event_writer, OBX_EVENT_TEXT_INFLUX,
                                                   context.type_system->schemas[0]->types[0], record.data()));
    const Bytes block = counters_block(1, ByteWriter().u64(1).f64(2).take());
    const obx_counters_data_t data = {block.data(), block.size()};
    ASSERT_TRUE(obx_counters_text_writer_append(context.counters_writer, false, &data,
                                                context.type_system->counters_schema));
    EXPECT_EQ(obx_event_text_writer_plan_count(context.event_writer), 1u);
    EXPECT_EQ(obx_counters_text_writer_plan_count(context.counters_writer), 1u);

    uint8_t ids[1][16];
    std::memcpy(ids[0], second_.data(), 16);
    ASSERT_TRUE(obx_reader_load_type_system(&context, ids, 1));
    EXPECT_EQ(obx_event_text_writer_plan_count(context.event_writer), 0u);
    EXPECT_EQ(obx_counters_text_writer_plan_count(context.counters_writer), 0u);

    obx_event_text_writer_destroy(context.event_writer);
    obx_counters_text_writer_destroy(context.counters_writer);
    obx_type_system_destroy(context.type_system);
}

}  // namespace
