// The type system loaded for a file, and the dispatch of buffers by their first block: the
// output of each format, schemas blocks, event counts, buffer ends and unknown blocks. Buffers
// are handed over in allocations of exactly their size. The type filter, -p and the time
// window are run through obx_read in tests/tools/export_test.cpp.
#include "data/reader/block_dispatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>

#include "data/reader/reader_context.h"
#include "data/reader/reader_type_system.h"
#include "data/schema/type_system.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "fixtures/schema_objects.h"
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
std::string sample(const std::string& provider) { return EventSchemaDoc(provider).type("sample", {{"a", "uint8_t"}, {"b", "uint64_t"}}).pretty(); }
// "<provider of each schema, in position order>; <size of counters, or none>".
std::string summary(const obx_type_system_t* system) {
    std::string out;
    for (unsigned i = 0; i < system->num_schemas; ++i) out += std::string(i ? " " : "") + system->schemas[i]->name;
    return out + "; " + (system->counters_schema ? std::to_string(system->counters_schema->size_of_counters) : "none");
}

// One buffer through the dispatch: whether it succeeds, what it prints ('*' at the end: the
// start of the output), one line it logs (any when empty), what it reports and the records
// it counts (unchecked when negative).
struct Case { const char* name; Bytes buffer; bool ok; std::string out, log; obx_output_format_t format = NDJSON; std::string err = ""; int records = -1; bool in_compressed = false; };

class DispatchTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(obx_read_options_init(&options_));
        free(options_.schema_path), options_.schema_path = strdup(folder_.path().c_str());
        ASSERT_TRUE(obx_string_array_append(&options_.include_counters, "*"));
        // Zeroed as obx_reader_open makes it, so that obx_reader_close frees all it owns.
        context_ = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
        context_->options = &options_, context_->path = "/data/test.bin";
        EventSchemaDoc all("all_types");
        all.type("inner", {{"lo", "uint16_t"}, {"hi", "uint8_t"}}).type("real", {{"d", "double"}});
        for (const char* name : {"t2", "t3", "t4"}) all.type(name, {{"u", "int8_t"}});
        all_ = folder_.add(all.type("fifth", {{"x", "uint8_t"}}));
        other_ = folder_.add(EventSchemaDoc("other").type("other_event", {{"v", "uint16_t"}}));
        std::memcpy(context_->header.counters_schema_id, folder_.add(counters_layout("up load:FP64").json().get()).data(), 16);
        load_all();
    }
    void TearDown() override { obx_reader_close(context_); obx_read_options_release(&options_); }
    void load_all() { ASSERT_TRUE(obx_reader_load_type_system(context_, reinterpret_cast<const uint8_t(*)[16]>(all_.data()), 1)); }
    // Loads the header's schemas, or those given, as a schemas block does: "<result>: <summary>".
    std::string load(uint8_t (*ids)[16] = nullptr, unsigned count = 0) {
        const bool ok = obx_reader_load_type_system(context_, ids ? ids : context_->header.event_schema_ids, ids ? count : OBX_EVENT_SCHEMA_SLOTS);
        return (ok ? "ok: " : "failed: ") + summary(context_->type_system);
    }
    void name(uint8_t* slot, const std::string& provider) { memcpy(slot, folder_.add_text(sample(provider)).data(), 16); }

    void run(const std::vector<Case>& cases, bool reload = true) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            options_.format = c.format, context_->records_printed = 0;
            const Bytes exact(c.buffer);  // a copy holds exactly its size: a read past its end is caught by ASan
            LogCapture log(OBX_LOG_DEBUG);
            testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
            const bool ok = obx_reader_dispatch(context_, exact.data(), exact.size(), c.in_compressed);
            std::fflush(stdout);
            const std::string err = testing::internal::GetCapturedStderr(), out = testing::internal::GetCapturedStdout(), lines = "\n" + log.all();
            EXPECT_EQ(ok, c.ok) << lines;
            EXPECT_EQ(!c.out.empty() && c.out.back() == '*' ? out.substr(0, c.out.size() - 1) + "*" : out, c.out);
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
        {"json NaN", nan, false, "", "Failed to process block of type 1 at offset 0", JSON, report("Failed to JSONify event values"), 0},
        {"json counters", counters, true, "{\n    \"timestamp\": 1,*", "", JSON, "", 1},
        {"bin counters outside a page", counters, true, "Data collected at *", "", BIN, "", 1},
        {"csv counters", counters, true, "", "", CSV, csv, 1},
        {"influx counters", counters, true, "", "", INFLUX, report("Influx line API output is not yet supported for counters data"), 1},
        {"counters head cut", Bytes{'O', 'B', 'X', 'D', 0, 0, 0, 0, 1, 2}, false, "", "", JSON, report("Counters block of 10 bytes is shorter than its 16-byte head"), 1},
    });
    // The writers' plans point into the schemas: loading new ones drops them before the old types go.
    run({{"event plan", events, true, "*", ""}, {"counters plan", counters, true, "*", ""}}, false);
    auto plans = [&] { return obx_event_text_writer_plan_count(context_->event_writer) + obx_counters_text_writer_plan_count(context_->counters_writer); };
    EXPECT_EQ(plans(), 2u);
    load_all();
    EXPECT_EQ(plans(), 0u);
    obx_counters_schema_destroy(context_->type_system->counters_schema), context_->type_system->counters_schema = nullptr;
    run({{"no counters schema", counters, false, "", "", TXT, report("No counters schema is loaded to render the counters block with"), 1}});
}

TEST_F(DispatchTest, SchemasEventsAndUnknownBlocks)
{
    auto ids = [&](std::optional<uint16_t> count, std::optional<uint16_t> size, size_t pad, std::string id = "") {
        return schemas_block(SchemasBlockFields{{id.empty() ? SchemaFolder::hex(all_) : id}, size, count, pad});
    };
    // Consumed by its own size, here more than the 256 bytes it must have.
    SchemasBlockFields swapped{{SchemaFolder::hex(other_), SchemaFolder::hex(all_)}, {}, {}, 272};
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
        {"no events consumes the head", concat({event_block(0, kInner, 0, {}), one}), true, four, ""},
        {"events beyond the buffer are dropped", event_block(0, kInner, 3, Bytes(three.begin(), three.end() - 1)), true, "{\"lo\":1,\"hi\":1}\n{\"lo\":2,\"hi\":2}\n", ""},
        {"zero tail ends the run", concat({one, Bytes(40, 0)}), true, four, "Unexpected block type 4 at offset 19"},
        {"cut second head", concat({one, Bytes{'O', 'B', 'X', 'E', 1, 2, 3, 4}}), false, four, "Event block has 8 bytes left in its buffer, its head needs 16"},
        {"blob", blob_block(1, Bytes(4, 0)), false, "", reached + "3 . Magic value 'OBXB'"},
        {"page of two bytes", Bytes{'O', 'B'}, false, "", reached + "4 in compressed data block. Magic value 'OB'", NDJSON, "", -1, true},
        {"failing CNTX block counts", ByteWriter().text("CNTX").u32(6).take(), false, "", "", NDJSON, "", 1},
    });
    // The counters schema comes from the file header whatever the block lists.
    run({{"count 0", schemas_block({}), true, "", ""}}, false);
    EXPECT_EQ(context_->type_system->counters_schema->num_groups, 1u);
}

// ---- the type system a header or a schemas block loads ----

TEST_F(DispatchTest, ZeroSlotsTakeNoPositionAndTheCountersSchemaComesFromTheHeader) {
    auto& slots = context_->header.event_schema_ids;
    name(slots[1], "a"), name(slots[4], "b"), name(slots[6], "c");
    EXPECT_EQ(load(), "ok: a b c; 16");
    uint8_t block_ids[2][16] = {};  // a schemas block replaces all earlier schemas; its first slot stays zero
    name(block_ids[1], "only");
    EXPECT_EQ(load(block_ids, 2), "ok: only; 16");
    memset(context_->header.counters_schema_id, 0, 16);
    EXPECT_EQ(load(), "ok: a b c; 0");  // no counters schema named: the new system's empty one stays
}

TEST_F(DispatchTest, SchemasTakePositionsUpToTheLimit) {
    uint8_t ids[256][16];
    for (auto& id : ids) name(id, "p");
    LogCapture log;
    EXPECT_EQ(load(ids, 255).substr(0, 8) + load(ids, 256).substr(0, 8), "ok: p p failed: ");
    EXPECT_EQ(context_->type_system->num_schemas, 255);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), (std::vector<std::string>{"Failed to load schema: schema limit exceeded '255'", "Failed to load schema from file: " + folder_.file_of(folder_.add_text(sample("p")))}));
}

// A counters schema that cannot be read leaves none: its readers must accept that.
TEST_F(DispatchTest, AMissingCountersSchemaFailsAndLeavesNone) {
    SchemaId missing_id;
    missing_id.fill(0xab);
    const std::string missing = folder_.file_of(missing_id);
    memcpy(context_->header.counters_schema_id, missing_id.data(), 16);
    LogCapture log;
    EXPECT_EQ(load(), "failed: ; none");
    EXPECT_TRUE(log.has("Failed reading counters schema JSON from file '" + missing + "': No such file or directory") && log.has("Failed to load counters schema from file: " + missing)) << log.all();
}

}  // namespace

// The tools' schemas block loader keeps the type system while blocks name the same ids;
// other ids, or a load by any other way in between, make it load again.
TEST_F(DispatchTest, SchemasBlockLoadedOnlyWhenItsIdsChange)
{
    const auto block = [&](std::vector<SchemaId> ids) {
        SchemasBlockFields fields;
        for (const SchemaId& id : ids) fields.ids.push_back(SchemaFolder::hex(id));
        return schemas_block(fields);
    };
    const struct { Bytes block; bool reload_first; size_t consumed; bool reloaded; } steps[] = {
        {block({all_}), false, 256, true},          // after the header's load: loaded
        {block({all_}), false, 256, false},         // the same ids: kept
        {block({all_, other_}), false, 256, true},  // more ids
        {block({all_, other_}), true, 256, true},   // a load in between forgets what a block loaded
        {block({other_}), false, 256, true},
        {schemas_block({{}, 0, 0, 256}), false, 0, true},  // size 0: a failure, as loading it is
    };
    for (const auto& s : steps) {
        if (s.reload_first) load_all();
        const obx_type_system_t* before = context_->type_system;
        bool reloaded = !s.reloaded;
        EXPECT_EQ(obx_reader_load_schemas_block_if_new(context_, s.block.data(), s.block.size(), &reloaded), s.consumed);
        EXPECT_EQ(reloaded, s.reloaded);
        if (!s.reloaded) {
            EXPECT_EQ(context_->type_system, before);
        }
    }
}

// In the walk, a schemas block that names the schemas the block before it loaded is kept
// unless debug lines would show the load; the events print the same either way.
TEST_F(DispatchTest, WalkKeepsRepeatedSchemasBlocksBelowDebug)
{
    SchemasBlockFields fields;
    fields.ids = {SchemaFolder::hex(all_)};
    const Bytes buffer = concat({schemas_block(fields), event_block(0, kFifth, 1, Bytes{4}), schemas_block(fields), event_block(0, kFifth, 1, Bytes{5})});
    options_.format = NDJSON;
    for (const uint32_t level : {OBX_LOG_INFO, OBX_LOG_DEBUG}) {
        LogCapture log(level);
        testing::internal::CaptureStdout();
        EXPECT_TRUE(obx_reader_walk_event_blocks(context_, buffer.data(), buffer.size()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "{\"x\":4}\n{\"x\":5}\n");
        EXPECT_EQ(context_->block_schema_ids_valid, level == OBX_LOG_INFO) << level;
    }
}
