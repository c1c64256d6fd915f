// The dispatch of buffers by their first block: event runs with their type lookup,
// filter and per-format output, schemas blocks, counters blocks with their time window,
// and refusals, on buffers laid out by the fixture builders and handed over in
// allocations of exactly their size.
#include "data/block_dispatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/byte_writer.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "tools/read_options.h"
#include "utils/logger.h"

namespace {

using namespace obx_test;

// Positions of the types in the "all_types" schema.
constexpr uint16_t kInner = 0;
constexpr uint16_t kText8 = 1;
constexpr uint16_t kNested = 2;
constexpr uint16_t kFloats = 3;
constexpr uint16_t kFifth = 5;

EventSchemaDoc all_types_schema()
{
    EventSchemaDoc doc("all_types");
    doc.type("inner", {{"lo", "uint16_t"}, {"hi", "uint8_t"}});
    doc.type("text8", {{"s", "char", 8}});
    doc.type("nested", {{"one", "inner"},
                        {"many", "inner", 2},
                        {"raw", "uint32_t", 2},
                        {"tag", "unsigned char", 4}});
    doc.type("floats", {{"d", "double"}, {"f", "float"}});
    doc.type("unused", {{"u", "int8_t"}});
    doc.type("fifth", {{"x", "uint8_t"}});
    return doc;
}

EventSchemaDoc other_schema()
{
    EventSchemaDoc doc("other");
    doc.type("other_event", {{"v", "uint16_t"}});
    return doc;
}

CountersSchemaDoc counters_schema()
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, std::string("g")).counter("up", "UINT64").counter("load", "FP64");
    return doc;
}

Bytes inner(uint16_t lo, uint8_t hi) { return ByteWriter().u16(lo).u8(hi).take(); }
Bytes text8(const std::string& bytes) { return ByteWriter().fixed(bytes, 8).take(); }
Bytes floats(double d, float f) { return ByteWriter().f64(d).f32(f).take(); }

struct Outcome {
    bool ok = false;
    std::string out;
    std::string err;
    std::vector<LogLine> log;

    bool logged(const std::string& text) const {
        for (const LogLine& line : log)
            if (line.text == text) return true;
        return false;
    }
    std::string all_log() const {
        std::string joined;
        for (const LogLine& line : log) joined += line.text + "\n";
        return joined;
    }
};

class DispatchTest : public testing::Test {
protected:
    void SetUp() override {
        std::memset(&options_, 0, sizeof(options_));
        ASSERT_TRUE(obx_read_options_init(&options_));
        ASSERT_TRUE(obx_string_array_append(&options_.include_counters, "*"));
        free(options_.schema_path);
        options_.schema_path = strdup(folder_.path().c_str());
        options_.format = OBX_OUTPUT_FORMAT_NDJSON;
        // Zeroed like obx_reader_open makes it, so that obx_reader_close frees all it owns.
        context_ = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
        ASSERT_NE(context_, nullptr);
        context_->options = &options_;
        context_->path = "/data/test.bin";
        all_ = folder_.add(all_types_schema());
        other_ = folder_.add(other_schema());
        counters_ = folder_.add(counters_schema().json().get());
        load({all_}, counters_);
    }
    void TearDown() override {
        obx_reader_close(context_);
        obx_read_options_release(&options_);
    }

    void load(const std::vector<SchemaId>& ids, std::optional<SchemaId> counters = std::nullopt) {
        std::memset(context_->header.counters_schema_id, 0, 16);
        if (counters) std::memcpy(context_->header.counters_schema_id, counters->data(), 16);
        std::vector<uint8_t> flat;
        for (const SchemaId& id : ids) flat.insert(flat.end(), id.begin(), id.end());
        ASSERT_TRUE(obx_reader_load_type_system(
            context_, reinterpret_cast<const uint8_t(*)[16]>(flat.data()), ids.size()));
    }

    void patterns(const std::vector<std::string>& include, const std::vector<std::string>& exclude) {
        obx_string_array_destroy(options_.include_counters);
        obx_string_array_destroy(options_.exclude_counters);
        options_.include_counters = obx_string_array_create();
        options_.exclude_counters = obx_string_array_create();
        for (const std::string& p : include) ASSERT_TRUE(obx_string_array_append(&options_.include_counters, p.c_str()));
        for (const std::string& p : exclude) ASSERT_TRUE(obx_string_array_append(&options_.exclude_counters, p.c_str()));
    }

    // Hands `buffer` to the dispatch in an allocation of exactly its size.
    Outcome dispatch(const Bytes& buffer, bool in_compressed = false) {
        std::unique_ptr<uint8_t[]> exact(new uint8_t[buffer.size() ? buffer.size() : 1]);
        if (!buffer.empty()) std::memcpy(exact.get(), buffer.data(), buffer.size());
        Outcome outcome;
        LogCapture log(OBX_LOG_DEBUG);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        outcome.ok = obx_reader_dispatch(context_, exact.get(), buffer.size(), in_compressed);
        std::fflush(stdout);
        outcome.err = testing::internal::GetCapturedStderr();
        outcome.out = testing::internal::GetCapturedStdout();
        outcome.log = log.lines();
        return outcome;
    }

    static std::string report(const std::string& text) { return "Failed processing file /data/test.bin: " + text + "\n"; }

    SchemaFolder folder_;
    SchemaId all_{}, other_{}, counters_{};
    obx_read_options_t options_;
    obx_reader_context_t* context_ = nullptr;
};

// ---- events ---------------------------------------------------------------------------------

TEST_F(DispatchTest, EventsInEachFormat)
{
    const Bytes nested =
        ByteWriter().raw(inner(1, 2)).raw(inner(3, 4)).raw(inner(5, 6)).u32(7).u32(8).text("ok").u8(0).u8('x').take();
    struct EventCase {
        const char* name;
        obx_output_format_t format;
        uint16_t type_index;
        Bytes record;
        std::string out;
    };
    const std::vector<EventCase> cases = {
        {"nested ndjson", OBX_OUTPUT_FORMAT_NDJSON, kNested, nested,
         "{\"one\":{\"lo\":1,\"hi\":2},\"many\":[{\"lo\":3,\"hi\":4},{\"lo\":5,\"hi\":6}],\"raw\":[7,8],\"tag\":\"ok\"}\n"},
        // Arrays of numbers leave no trace in Influx; arrays of composites are numbered.
        {"nested influx", OBX_OUTPUT_FORMAT_INFLUX, kNested, nested,
         "one.lo=1i,one.hi=2i,many.0.lo=3i,many.0.hi=4i,many.1.lo=5i,many.1.hi=6i,tag=\"ok\"\n"},
        {"json", OBX_OUTPUT_FORMAT_JSON, kFloats, floats(0.5, -2.0f), "{\n    \"d\": 0.5,\n    \"f\": -2\n}"},
        {"unterminated text", OBX_OUTPUT_FORMAT_NDJSON, kText8, text8("abcdefgh"), "{\"s\":\"abcdefgh\"}\n"},
        {"tab ends a text", OBX_OUTPUT_FORMAT_NDJSON, kText8, text8("ab\tcd"), "{\"s\":\"ab\"}\n"},
        {"control byte ends a text", OBX_OUTPUT_FORMAT_INFLUX, kText8, text8("a\x01zz"), "s=\"a\"\n"},
    };
    for (const EventCase& c : cases) {
        SCOPED_TRACE(c.name);
        options_.format = c.format;
        context_->records_printed = 0;
        const Outcome o = dispatch(event_block(0, c.type_index, 1, c.record));
        ASSERT_TRUE(o.ok) << o.all_log();
        EXPECT_EQ(o.out, c.out);
        EXPECT_EQ(context_->records_printed, 1u);
    }
}

TEST_F(DispatchTest, NonFiniteValuesFailTheirEvent)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const obx_output_format_t format : {OBX_OUTPUT_FORMAT_JSON, OBX_OUTPUT_FORMAT_NDJSON}) {
        for (const Bytes& record : {floats(nan, 0.0f), floats(0.0, -std::numeric_limits<float>::infinity())}) {
            SCOPED_TRACE(format);
            options_.format = format;
            context_->records_printed = 0;
            const Outcome o = dispatch(event_block(0, kFloats, 1, record));
            EXPECT_FALSE(o.ok);
            EXPECT_EQ(o.out, "");
            EXPECT_EQ(o.err, report("Failed to JSONify event values"));
            EXPECT_TRUE(o.logged("Failed to print")) << o.all_log();
            EXPECT_TRUE(o.logged("Failed to process block of type 1 at offset 0")) << o.all_log();
            EXPECT_EQ(context_->records_printed, 0u);
        }
    }
}

TEST_F(DispatchTest, JsonSeparatorFollowsRecordsPrinted)
{
    options_.format = OBX_OUTPUT_FORMAT_JSON;
    EXPECT_EQ(dispatch(event_block(0, kFifth, 2, ByteWriter().u8(1).u8(2).take())).out,
              "{\n    \"x\": 1\n},\n{\n    \"x\": 2\n}");
    EXPECT_EQ(dispatch(event_block(0, kFifth, 1, ByteWriter().u8(3).take())).out, ",\n{\n    \"x\": 3\n}");

    // A counters block skipped by the time window counts as a record all the same.
    context_->records_printed = 0;
    options_.timestamp_gt = 1000;
    EXPECT_EQ(dispatch(counters_block(999, ByteWriter().u64(1).f64(2).take())).out, "");
    EXPECT_EQ(dispatch(event_block(0, kFifth, 1, ByteWriter().u8(5).take())).out, ",\n{\n    \"x\": 5\n}");
}

TEST_F(DispatchTest, IncludeAndExcludeSelectTypesByName)
{
    struct FilterCase {
        const char* name;
        std::vector<std::string> include, exclude;
        std::string out;
    };
    const std::string inner_line = "{\"lo\":1,\"hi\":2}\n";
    const std::string text_line = "{\"s\":\"t\"}\n";
    const std::vector<FilterCase> cases = {
        {"all", {"*"}, {}, inner_line + text_line},
        {"include by wildcard, any case", {"TEXT*"}, {}, text_line},
        {"exclude one", {"*"}, {"inner"}, text_line},
        {"exclude wins", {"inner"}, {"inn*"}, ""},
        {"exclude all", {"*"}, {"*"}, ""},
        {"nothing included", {}, {}, ""},
    };
    const Bytes buffer = concat({event_block(0, kInner, 1, inner(1, 2)), event_block(0, kText8, 1, text8("t"))});
    for (const FilterCase& c : cases) {
        SCOPED_TRACE(c.name);
        patterns(c.include, c.exclude);
        context_->records_printed = 0;
        const Outcome o = dispatch(buffer);
        EXPECT_TRUE(o.ok) << o.all_log();
        EXPECT_EQ(o.out, c.out);
        // Only events handed to the output count.
        EXPECT_EQ(context_->records_printed, static_cast<uint64_t>(std::count(c.out.begin(), c.out.end(), '\n')));
    }

    // Dropped events still move the walk on, and -p still shows every event head.
    patterns({"*"}, {"*"});
    options_.print_headers = true;
    const Outcome o = dispatch(concat({event_block(0, kInner, 2, concat({inner(1, 2), inner(3, 4)})),
                                       event_block(0, kText8, 1, text8("t"))}));
    ASSERT_TRUE(o.ok) << o.all_log();
    const std::string head = "Event header\n magic number         = OBXE\n schema index         = 0\n type index  "
                             "         = ";
    EXPECT_EQ(o.out, head + "0\n number of events     = 2\n" + head + "1\n number of events     = 1\n");
}

// ---- counters blocks ---------------------------------------------------------------------------

TEST_F(DispatchTest, CountersTimeWindowIsInclusive)
{
    struct WindowCase {
        uint64_t timestamp, gt, lt;
        bool printed;
    };
    const std::vector<WindowCase> cases = {
        {100, 100, UINT64_MAX, true}, {100, 0, 100, true}, {99, 100, UINT64_MAX, false}, {101, 0, 100, false}};
    for (const WindowCase& c : cases) {
        SCOPED_TRACE(c.timestamp);
        options_.timestamp_gt = c.gt;
        options_.timestamp_lt = c.lt;
        context_->records_printed = 0;
        const Outcome o = dispatch(counters_block(c.timestamp, ByteWriter().u64(1).f64(2).take()));
        EXPECT_TRUE(o.ok);
        EXPECT_EQ(!o.out.empty(), c.printed) << o.out;
        EXPECT_EQ(context_->records_printed, 1u) << "a skipped block counts too";
    }
}

TEST_F(DispatchTest, PrintHeadersShowsOnlyTheCountersHead)
{
    options_.print_headers = true;
    for (const obx_output_format_t format : {OBX_OUTPUT_FORMAT_JSON, OBX_OUTPUT_FORMAT_TXT, OBX_OUTPUT_FORMAT_CSV,
                                             OBX_OUTPUT_FORMAT_INFLUX, OBX_OUTPUT_FORMAT_BIN}) {
        SCOPED_TRACE(format);
        options_.format = format;
        options_.timestamp_gt = format == OBX_OUTPUT_FORMAT_JSON ? 500 : 0;
        // Values too short for the schema: with -p they are never looked at.
        const Outcome o = dispatch(counters_block(100, Bytes(3, 0)));
        EXPECT_TRUE(o.ok);
        EXPECT_EQ(o.out, "Data block\n magic number         = OBXD\n last timestamp       = 100\n");
        EXPECT_EQ(o.err, "");
    }
}

TEST_F(DispatchTest, CountersBlockBoundsAndSchema)
{
    struct BoundCase {
        const char* name;
        obx_output_format_t format;
        Bytes block;
        bool ok;
        std::string report;
    };
    const Bytes values = ByteWriter().u64(1).f64(2).take();
    const std::vector<BoundCase> cases = {
        {"whole", OBX_OUTPUT_FORMAT_NDJSON, counters_block(1, values), true, ""},
        {"one byte short", OBX_OUTPUT_FORMAT_NDJSON, counters_block(1, Bytes(values.begin(), values.end() - 1)), false,
         "Counters block holds 15 bytes of values, the counters schema needs 16"},
        {"short in txt", OBX_OUTPUT_FORMAT_TXT, counters_block(1, Bytes(8, 0)), false,
         "Counters block holds 8 bytes of values, the counters schema needs 16"},
        {"short head", OBX_OUTPUT_FORMAT_JSON, Bytes{'O', 'B', 'X', 'D', 0, 0, 0, 0, 1, 2}, false,
         "Counters block of 10 bytes is shorter than its 16-byte head"},
        {"short but refused by format", OBX_OUTPUT_FORMAT_CSV, counters_block(1, Bytes()), true,
         "CSV output is not supported yet"},
    };
    for (const BoundCase& c : cases) {
        SCOPED_TRACE(c.name);
        options_.format = c.format;
        context_->records_printed = 0;
        const Outcome o = dispatch(c.block);
        EXPECT_EQ(o.ok, c.ok);
        EXPECT_EQ(o.err, c.report.empty() ? "" : report(c.report));
        EXPECT_EQ(o.out.empty(), !c.report.empty()) << "refused or failed blocks print nothing";
        EXPECT_EQ(context_->records_printed, 1u);
    }

    // A counters schema that failed to load leaves none: reported, not followed.
    obx_counters_schema_destroy(context_->type_system->counters_schema);
    context_->type_system->counters_schema = nullptr;
    options_.format = OBX_OUTPUT_FORMAT_TXT;
    const Outcome o = dispatch(counters_block(1, values));
    EXPECT_FALSE(o.ok);
    EXPECT_EQ(o.err, report("No counters schema is loaded to render the counters block with"));
}

TEST_F(DispatchTest, CounterOffsetsFromTheFileCannotReachPastTheBlock)
{
    // A zero-length STRING stops the offset layout, so "far" keeps the offset its file
    // gives; the size the schema asks for (8) is there, the value at 4096 is not.
    CountersSchemaDoc doc;
    CounterDoc far("far", "UINT64");
    far.offset = 4096;
    doc.group("NODE", 1, std::string("g")).counter("s", "STRING", 0).counter(far);
    load({all_}, folder_.add(doc.json().get()));
    ASSERT_EQ(context_->type_system->counters_schema->size_of_counters, 8u);

    const Bytes block = counters_block(1, ByteWriter().u64(0x41).take());
    const Outcome json = dispatch(block);
    ASSERT_TRUE(json.ok) << json.all_log();
    EXPECT_NE(json.out.find("\"counter_sets\":[{\"s\":\"\"}]"), std::string::npos) << json.out;
    options_.format = OBX_OUTPUT_FORMAT_TXT;
    const Outcome table = dispatch(block);
    EXPECT_NE(table.out.find("|    0 |                    A |                      |\n"), std::string::npos)
        << table.out;
}

// ---- schemas blocks ----------------------------------------------------------------------------

TEST_F(DispatchTest, BadSchemasBlocksFailTheBuffer)
{
    auto ids_block = [&](std::optional<uint16_t> count, std::optional<uint16_t> size, size_t pad, std::string id = "") {
        SchemasBlockSpec s;
        s.ids = {id.empty() ? SchemaFolder::hex(all_) : id};
        s.id_count = count;
        s.block_size = size;
        s.pad_to = pad;
        return schemas_block(s);
    };
    struct SchemasCase {
        const char* name;
        Bytes buffer;
        std::string error;
    };
    const std::vector<SchemasCase> cases = {
        {"count 15", ids_block(15, 300, 300), "Schemas block lists 15 schema ids, at most 14 are allowed"},
        {"block size 0", ids_block({}, 0, 256), ""},
        {"block size past the buffer", ids_block({}, 400, 300),
         "Schemas block size 400 is larger than the 300 bytes left in its buffer"},
        {"fewer than 256 bytes", ids_block({}, {}, 255), "Schemas block has 255 bytes left in its buffer, it needs 256"},
        {"unknown schema id", ids_block({}, {}, 256, std::string(32, 'a')),
         "Failed to load schema from file: " + folder_.path() + "/schema_" + std::string(32, 'a') + ".json"},
    };
    for (const SchemasCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome o = dispatch(c.buffer);
        EXPECT_FALSE(o.ok);
        EXPECT_TRUE(o.logged("Failed to process block of type 2 at offset 0")) << o.all_log();
        EXPECT_TRUE(c.error.empty() || o.logged(c.error)) << o.all_log();
        load({all_}, counters_);
    }
}

TEST_F(DispatchTest, SchemasBlockReplacesTheSchemas)
{
    const Outcome cleared = dispatch(concat({schemas_block({}), event_block(0, kText8, 1, text8("t"))}));
    EXPECT_FALSE(cleared.ok);
    EXPECT_TRUE(cleared.logged("Type definition 0:1 not found")) << cleared.all_log();
    EXPECT_TRUE(cleared.logged("Failed to process block of type 1 at offset 256")) << cleared.all_log();
    // The counters schema comes from the file header whatever the block lists.
    EXPECT_EQ(context_->type_system->counters_schema->num_groups, 1u);

    SchemasBlockSpec swapped;
    swapped.ids = {SchemaFolder::hex(other_), SchemaFolder::hex(all_)};
    const Outcome o = dispatch(concat({schemas_block(swapped), event_block(0, 0, 1, ByteWriter().u16(513).take()),
                                       event_block(1, kText8, 1, text8("after"))}));
    ASSERT_TRUE(o.ok) << o.all_log();
    EXPECT_EQ(o.out, "{\"v\":513}\n{\"s\":\"after\"}\n");

    // The same check outside the walk gives the block's own size.
    swapped.pad_to = 272;
    const Bytes block = schemas_block(swapped);
    EXPECT_EQ(obx_reader_load_schemas_block(context_, block.data(), block.size()), 272u);
    EXPECT_EQ(obx_reader_load_schemas_block(context_, block.data(), 255), 0u);
}

// ---- type lookup, event counts and buffer ends -------------------------------------------------

TEST_F(DispatchTest, TypeLookupUsesTheLowByteOfTypeIndex)
{
    struct LookupCase {
        uint8_t schema_index;
        uint16_t type_index;
        std::string error;
    };
    const std::vector<LookupCase> cases = {
        {0, 0x0105, ""},
        {0, 0xFF05, ""},
        {0, 0x0106, "Type definition 0:262 not found"},
        {1, 0x0105, "Type definition 1:261 not found"},
    };
    for (const LookupCase& c : cases) {
        SCOPED_TRACE(c.type_index);
        const Outcome o = dispatch(event_block(c.schema_index, c.type_index, 1, ByteWriter().u8(9).take()));
        EXPECT_EQ(o.ok, c.error.empty());
        EXPECT_EQ(o.out, c.error.empty() ? "{\"x\":9}\n" : "");
        EXPECT_TRUE(c.error.empty() || o.logged(c.error)) << o.all_log();
    }
}

TEST_F(DispatchTest, EventCountsAndBufferEnds)
{
    const Bytes three = concat({inner(1, 1), inner(2, 2), inner(3, 3)});
    const Bytes cut_head{'O', 'B', 'X', 'E', 0, 0, 0, 0, 0, 0, 0, 0};
    struct CountCase {
        const char* name;
        Bytes buffer;
        bool ok;
        std::string out;
        std::string log;
    };
    const std::vector<CountCase> cases = {
        {"no events consumes the head", concat({event_block(0, kInner, 0, {}), event_block(0, kInner, 1, inner(7, 7))}),
         true, "{\"lo\":7,\"hi\":7}\n", ""},
        {"events beyond the buffer are dropped", event_block(0, kInner, 3, Bytes(three.begin(), three.end() - 1)), true,
         "{\"lo\":1,\"hi\":1}\n{\"lo\":2,\"hi\":2}\n", ""},
        {"head only", event_block(0, kInner, 1, {}), true, "", ""},
        {"zero tail ends the run", concat({event_block(0, kInner, 1, inner(4, 4)), Bytes(40, 0)}), true,
         "{\"lo\":4,\"hi\":4}\n", "Unexpected block type 4 at offset 19"},
        {"blob ends the run", concat({event_block(0, kInner, 1, inner(4, 4)), blob_block(1, Bytes(8, 1))}), true,
         "{\"lo\":4,\"hi\":4}\n", "Unexpected block type 3 at offset 19"},
        {"four bytes", Bytes{'O', 'B', 'X', 'E'}, true, "", ""},
        {"head cut short", cut_head, false, "", "Event block has 12 bytes left in its buffer, its head needs 16"},
        {"second head cut short", concat({event_block(0, kInner, 1, inner(5, 5)), Bytes{'O', 'B', 'X', 'E', 1, 2}}),
         false, "{\"lo\":5,\"hi\":5}\n", "Failed to process block of type 1 at offset 19"},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome o = dispatch(c.buffer);
        EXPECT_EQ(o.ok, c.ok) << o.all_log();
        EXPECT_EQ(o.out, c.out);
        EXPECT_TRUE(c.log.empty() || o.logged(c.log)) << o.all_log();
    }
}

TEST_F(DispatchTest, UnknownBlocksFail)
{
    struct UnknownCase {
        Bytes buffer;
        bool in_compressed;
        std::string error;
    };
    const std::string reached = "Reached unknown block type ";
    const std::vector<UnknownCase> cases = {
        {blob_block(1, Bytes(4, 0)), true, reached + "3 in compressed data block. Magic value 'OBXB'"},
        {blob_block(1, Bytes(4, 0)), false, reached + "3 . Magic value 'OBXB'"},
        {page_frame(Bytes(8, 0)), false, reached + "5 . Magic value 'OBXP'"},
        {Bytes{'O', 'B', 'X', 'Z', 1}, true, reached + "4 in compressed data block. Magic value 'OBXZ'"},
        // A decoded page may be shorter than a magic.
        {Bytes{'O', 'B'}, true, reached + "4 in compressed data block. Magic value 'OB'"},
        {Bytes(), true, reached + "4 in compressed data block. Magic value ''"},
    };
    for (const UnknownCase& c : cases) {
        SCOPED_TRACE(c.error);
        const Outcome o = dispatch(c.buffer, c.in_compressed);
        EXPECT_FALSE(o.ok);
        EXPECT_TRUE(o.logged(c.error)) << o.all_log();
    }
    // A CNTX block that fails still counts as a record.
    EXPECT_FALSE(dispatch(ByteWriter().text("CNTX").u32(6).take()).ok);
    EXPECT_EQ(context_->records_printed, 1u);
}

TEST_F(DispatchTest, RefusalsByFormat)
{
    struct RefusalCase {
        obx_output_format_t format;
        bool counters;  // a counters block, else an event block of two events
        bool ok;
        std::string reports;
        uint64_t records;
    };
    const std::string text = report("Text output is not yet supported for counters data");
    const std::string csv = report("CSV output is not supported yet");
    const std::vector<RefusalCase> cases = {
        {OBX_OUTPUT_FORMAT_TXT, false, true, text + text, 2},
        {OBX_OUTPUT_FORMAT_CSV, false, true, csv + csv, 2},
        {OBX_OUTPUT_FORMAT_BIN, false, false, report("Unknown output format 5"), 0},
        {OBX_OUTPUT_FORMAT_CSV, true, true, csv, 1},
        {OBX_OUTPUT_FORMAT_INFLUX, true, true, report("Influx line API output is not yet supported for counters data"),
         1},
    };
    for (const RefusalCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.format) + (c.counters ? " counters" : " events"));
        options_.format = c.format;
        context_->records_printed = 0;
        const Outcome o = dispatch(c.counters ? counters_block(1, ByteWriter().u64(1).f64(2).take())
                                              : event_block(0, kFifth, 2, ByteWriter().u8(1).u8(2).take()));
        EXPECT_EQ(o.ok, c.ok);
        EXPECT_EQ(o.err, c.reports);
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(context_->records_printed, c.records);
    }
    // Outside a page, format bin prints a counters block as text.
    options_.format = OBX_OUTPUT_FORMAT_BIN;
    EXPECT_EQ(dispatch(counters_block(1, ByteWriter().u64(1).f64(2).take())).out.rfind("Data collected at ", 0), 0u);
}

}  // namespace
