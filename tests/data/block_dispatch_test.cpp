// The dispatch of buffers by their first block: the output of each format, schemas blocks,
// event counts, buffer ends and unknown blocks. Buffers are handed over in allocations of
// exactly their size. The type filter, -p and the time window are run through obx_read in
// tests/tools/export_test.cpp.
#include "data/block_dispatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>

#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "tools/read_options.h"
#include "utils/logger.h"

namespace {

using namespace obx_test;

// Positions in the "all_types" schema; kFifth is also reached through type_index 0x0105.
constexpr uint16_t kInner = 0, kReal = 1, kFifth = 5;
const auto JSON = OBX_OUTPUT_FORMAT_JSON, NDJSON = OBX_OUTPUT_FORMAT_NDJSON, TXT = OBX_OUTPUT_FORMAT_TXT;
const auto CSV = OBX_OUTPUT_FORMAT_CSV, INFLUX = OBX_OUTPUT_FORMAT_INFLUX, BIN = OBX_OUTPUT_FORMAT_BIN;

Bytes inner(uint16_t lo, uint8_t hi) { return ByteWriter().u16(lo).u8(hi).take(); }
std::string report(const std::string& text) { return "Failed processing file /data/test.bin: " + text + "\n"; }

// One buffer through the dispatch: whether it succeeds, what it prints ('*' at the end: the
// start of the output), one line it logs (any when empty), what it reports and the records
// it counts (unchecked when negative).
struct Case {
    const char* name; Bytes buffer; bool ok; std::string out, log;
    obx_output_format_t format = NDJSON; std::string err = ""; int records = -1; bool in_compressed = false;
};

class DispatchTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(obx_read_options_init(&options_));
        free(options_.schema_path);
        options_.schema_path = strdup(folder_.path().c_str());
        ASSERT_TRUE(obx_string_array_append(&options_.include_counters, "*"));
        // Zeroed as obx_reader_open makes it, so that obx_reader_close frees all it owns.
        context_ = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
        context_->options = &options_;
        context_->path = "/data/test.bin";
        EventSchemaDoc all("all_types"), other("other");
        all.type("inner", {{"lo", "uint16_t"}, {"hi", "uint8_t"}}).type("real", {{"d", "double"}});
        for (const char* name : {"t2", "t3", "t4"}) all.type(name, {{"u", "int8_t"}});
        all_ = folder_.add(all.type("fifth", {{"x", "uint8_t"}}));
        other_ = folder_.add(other.type("other_event", {{"v", "uint16_t"}}));
        CountersSchemaDoc counters;
        counters.group("NODE", 1, std::string("g")).counter("up", "UINT64").counter("load", "FP64");
        std::memcpy(context_->header.counters_schema_id, folder_.add(counters.json().get()).data(), 16);
        load_all();
    }
    void TearDown() override { obx_reader_close(context_); obx_read_options_release(&options_); }
    void load_all() { ASSERT_TRUE(obx_reader_load_type_system(context_, reinterpret_cast<const uint8_t(*)[16]>(all_.data()), 1)); }

    void run(const std::vector<Case>& cases, bool reload = true)
    {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            options_.format = c.format;
            context_->records_printed = 0;
            const Bytes exact(c.buffer);  // a copy holds exactly its size: a read past its end is caught by ASan
            LogCapture log(OBX_LOG_DEBUG);
            testing::internal::CaptureStdout();
            testing::internal::CaptureStderr();
            const bool ok = obx_reader_dispatch(context_, exact.data(), exact.size(), c.in_compressed);
            std::fflush(stdout);
            const std::string err = testing::internal::GetCapturedStderr(), out = testing::internal::GetCapturedStdout();
            std::string lines = "\n";
            for (const LogLine& line : log.lines()) lines += line.text + "\n";
            EXPECT_EQ(ok, c.ok) << lines;
            const bool start_only = !c.out.empty() && c.out.back() == '*';
            EXPECT_EQ(start_only ? out.substr(0, c.out.size() - 1) + "*" : out, c.out);
            EXPECT_EQ(err, c.err);
            EXPECT_TRUE(c.log.empty() || lines.find("\n" + c.log + "\n") != std::string::npos) << lines;
            EXPECT_TRUE(c.records < 0 || context_->records_printed == static_cast<uint64_t>(c.records));
            if (reload) load_all();  // a schemas block may have replaced the schemas
        }
    }

    SchemaFolder folder_;
    SchemaId all_{}, other_{};
    obx_read_options_t options_{};
    obx_reader_context_t* context_ = nullptr;
};

TEST_F(DispatchTest, OutputOfEachFormat)
{
    const Bytes events = event_block(0, kFifth, 2, Bytes{1, 2}), counters = counters_block(1, ByteWriter().u64(1).f64(2).take());
    const Bytes nan = event_block(0, kReal, 1, ByteWriter().f64(NAN).take());
    const std::string text = report("Text output is not yet supported for counters data"), csv = report("CSV output is not supported yet");
    run({
        {"json events", events, true, "{\n    \"x\": 1\n},\n{\n    \"x\": 2\n}", "", JSON, "", 2},
        {"ndjson events", events, true, "{\"x\":1}\n{\"x\":2}\n", "", NDJSON, "", 2},
        {"influx events", events, true, "x=1i\nx=2i\n", "", INFLUX, "", 2},
        {"txt events", events, true, "", "", TXT, text + text, 2},
        {"csv events", events, true, "", "", CSV, csv + csv, 2},
        {"bin events", events, false, "", "Failed to print", BIN, report("Unknown output format 5"), 0},
        {"json NaN", nan, false, "", "Failed to process block of type 1 at offset 0", JSON, report("Failed to JSONify event values"), 0},
        {"json counters", counters, true, "{\n    \"timestamp\": 1,*", "", JSON, "", 1},
        {"bin counters outside a page", counters, true, "Data collected at *", "", BIN, "", 1},
        {"csv counters", counters, true, "", "", CSV, csv, 1},
        {"influx counters", counters, true, "", "", INFLUX, report("Influx line API output is not yet supported for counters data"), 1},
        {"counters one byte short", counters_block(1, Bytes(15, 0)), false, "", "", TXT, report("Counters block holds 15 bytes of values, the counters schema needs 16"), 1},
        {"counters head cut", Bytes{'O', 'B', 'X', 'D', 0, 0, 0, 0, 1, 2}, false, "", "", JSON, report("Counters block of 10 bytes is shorter than its 16-byte head"), 1},
        {"short counters refused by format", counters_block(1, {}), true, "", "", CSV, csv, 1},
    });
    // The writers' plans point into the schemas: loading new ones drops them before the old types go.
    run({{"event plan", events, true, "*", ""}, {"counters plan", counters, true, "*", ""}}, false);
    auto plans = [&] { return obx_event_text_writer_plan_count(context_->event_writer) + obx_counters_text_writer_plan_count(context_->counters_writer); };
    EXPECT_EQ(plans(), 2u);
    load_all();
    EXPECT_EQ(plans(), 0u);
    obx_counters_schema_destroy(context_->type_system->counters_schema);
    context_->type_system->counters_schema = nullptr;
    run({{"no counters schema", counters, false, "", "", TXT, report("No counters schema is loaded to render the counters block with"), 1}});
}

TEST_F(DispatchTest, SchemasEventsAndUnknownBlocks)
{
    auto ids = [&](std::optional<uint16_t> count, std::optional<uint16_t> size, size_t pad, std::string id = "") {
        return schemas_block(SchemasBlockFields{{id.empty() ? SchemaFolder::hex(all_) : id}, size, count, pad, "OBXS"});
    };
    // Consumed by its own size, here more than the 256 bytes it must have.
    SchemasBlockFields swapped{{SchemaFolder::hex(other_), SchemaFolder::hex(all_)}, {}, {}, 272, "OBXS"};
    const Bytes three = concat({inner(1, 1), inner(2, 2), inner(3, 3)}), one = event_block(0, kInner, 1, inner(4, 4));
    const std::string four = "{\"lo\":4,\"hi\":4}\n", reached = "Reached unknown block type ";
    run({
        {"count 15", ids(15, 300, 300), false, "", "Schemas block lists 15 schema ids, at most 14 are allowed"},
        {"block size 0", ids({}, 0, 256), false, "", "Failed to process block of type 2 at offset 0"},
        {"size past the buffer", ids({}, 400, 300), false, "", "Schemas block size 400 is larger than the 300 bytes left in its buffer"},
        {"255 left", ids({}, {}, 255), false, "", "Schemas block has 255 bytes left in its buffer, it needs 256"},
        {"unknown id", ids({}, {}, 256, std::string(32, 'a')), false, "", "Failed to load schema from file: " + folder_.path() + "/schema_" + std::string(32, 'a') + ".json"},
        {"count 0 clears", concat({schemas_block({}), event_block(0, kFifth, 1, Bytes{1})}), false, "", "Type definition 0:5 not found"},
        {"swapped", concat({schemas_block(swapped), event_block(0, 0, 1, ByteWriter().u16(513).take()), event_block(1, kFifth, 1, Bytes{7})}), true, "{\"v\":513}\n{\"x\":7}\n", ""},
        {"type 0x0105", event_block(0, 0x0105, 1, Bytes{9}), true, "{\"x\":9}\n", ""},
        {"schema 1", event_block(1, 0x0105, 1, Bytes{9}), false, "", "Type definition 1:261 not found"},
        {"no events consumes the head", concat({event_block(0, kInner, 0, {}), one}), true, four, ""},
        {"events beyond the buffer are dropped", event_block(0, kInner, 3, Bytes(three.begin(), three.end() - 1)), true, "{\"lo\":1,\"hi\":1}\n{\"lo\":2,\"hi\":2}\n", ""},
        {"zero tail ends the run", concat({one, Bytes(40, 0)}), true, four, "Unexpected block type 4 at offset 19"},
        {"four bytes", Bytes{'O', 'B', 'X', 'E'}, true, "", ""},
        {"cut second head", concat({one, Bytes{'O', 'B', 'X', 'E', 1, 2, 3, 4}}), false, four, "Event block has 8 bytes left in its buffer, its head needs 16"},
        {"blob", blob_block(1, Bytes(4, 0)), false, "", reached + "3 . Magic value 'OBXB'"},
        {"page of two bytes", Bytes{'O', 'B'}, false, "", reached + "4 in compressed data block. Magic value 'OB'", NDJSON, "", -1, true},
        {"failing CNTX block counts", ByteWriter().text("CNTX").u32(6).take(), false, "", "", NDJSON, "", 1},
    });
    // The counters schema comes from the file header whatever the block lists.
    run({{"count 0", schemas_block({}), true, "", ""}}, false);
    EXPECT_EQ(context_->type_system->counters_schema->num_groups, 1u);
}

}  // namespace
