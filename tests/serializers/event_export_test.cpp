// The export of events and counter blocks as obx_read does it, end to end: every record
// goes through the direct writers, framed per format, across a schemas block that
// replaces the types in the middle of a file (plans made for the old types must go).
#include <gtest/gtest.h>

#include <cstring>

#include "counters/counter_data/counters_data.h"
#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/schema_objects.h"
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
        EventSchemaDoc first("first"), second("second");
        first.type("a_event", {{"name", "char", 6}, {"v", "double"}});
        // Same position, other fields: a plan of a_event would render it wrongly.
        second.type("b_event", {{"x", "uint8_t"}, {"label", "char", 4}});
        first_ = folder_.add(first);
        second_ = folder_.add(second);
        counters_ = folder_.add(counters_layout("c").json().get());
        FileHeaderFields header;
        header.block_size = 1024;
        header.event_schema_ids = {SchemaFolder::hex(first_)};
        header.counters_schema_id = SchemaFolder::hex(counters_);
        SchemasBlockFields swap;
        swap.ids = {SchemaFolder::hex(second_)};
        const Bytes a_events = ByteWriter().fixed("alpha", 6).f64(0.5).fixed("beta/2", 6).f64(1e300).take();
        const Bytes file = data_file(header, {concat({event_block(0, 0, 2, a_events), schemas_block(swap),
                                                      event_block(0, 0, 1, ByteWriter().u8(9).fixed("ok", 4).take())}),
                                              counters_block(1700000000000000ull, ByteWriter().u64(5).take()),
                                              event_block(0, 0, 1, ByteWriter().u8(10).text("abcd").take())});
        write_file(dir_.file("one.bin.gz"), file, true);
        write_file(dir_.file("two.bin"), file, false);
    }

    SchemaFolder folder_;
    TempDir dir_;
    SchemaId first_{}, second_{}, counters_{};
};

// Per file: the records with ",\n" between them, counter blocks counted as records.
TEST_F(EventExportTest, JsonAcrossASchemaChange)
{
    const std::string records =
        "{\n    \"name\": \"alpha\",\n    \"v\": 0.5\n},\n{\n    \"name\": \"beta/2\",\n"
        "    \"v\": 1.0000000000000001e+300\n},\n{\n    \"x\": 9,\n    \"label\": \"ok\"\n},\n{\n"
        "    \"timestamp\": 1700000000000000,\n    \"@timestamp\": \"2023-11-14 22:13:20.000\",\n    \"groups\": [\n"
        "        {\n            \"granularity\": \"NODE\",\n            \"name\": \"unset\",\n"
        "            \"counter_sets\": [\n                {\n                    \"c\": 5\n                }\n"
        "            ]\n        }\n    ]\n},\n{\n    \"x\": 10,\n    \"label\": \"abcd\"\n}";
    const ProcessResult result = run_obx_read({"-s", folder_.path(), "-f", "json", dir_.file("one.bin.gz"),
                                               dir_.file("two.bin")}, ProcessOptions{{"TZ=UTC"}, {}, ""});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "{\"one\":[" + records + "],\"two\":[" + records + "]}");
}

// Plans point into the schemas of the type system: loading a new one must drop them
// before the old types are freed.
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
    const Bytes record = ByteWriter().fixed("x", 6).f64(1).take(), block = counters_block(1, Bytes(8));
    const obx_counters_data_t data = {block.data(), block.size()};
    ASSERT_TRUE(obx_event_text_writer_append_event(context.event_writer, OBX_EVENT_TEXT_INFLUX,
                                                   context.type_system->schemas[0]->types[0], record.data()));
    ASSERT_TRUE(
        obx_counters_text_writer_append(context.counters_writer, false, &data, context.type_system->counters_schema));
    EXPECT_EQ(obx_event_text_writer_plan_count(context.event_writer), 1u);
    EXPECT_EQ(obx_counters_text_writer_plan_count(context.counters_writer), 1u);
    std::memcpy(context.header.event_schema_ids[0], second_.data(), 16);
    ASSERT_TRUE(obx_reader_load_type_system(&context, context.header.event_schema_ids, 1));
    EXPECT_EQ(obx_event_text_writer_plan_count(context.event_writer), 0u);
    EXPECT_EQ(obx_counters_text_writer_plan_count(context.counters_writer), 0u);
    obx_event_text_writer_destroy(context.event_writer);
    obx_counters_text_writer_destroy(context.counters_writer);
    obx_type_system_destroy(context.type_system);
}

}  // namespace
