#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counters_schema.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using obx_test::CounterDoc;
using obx_test::CountersSchemaDoc;
using obx_test::LogCapture;

namespace {

struct SchemaDeleter {
    void operator()(obx_counters_schema_t* schema) const { obx_counters_schema_destroy(schema); }
};
using SchemaPtr = std::unique_ptr<obx_counters_schema_t, SchemaDeleter>;

SchemaPtr decode(const CountersSchemaDoc& doc)
{
    return SchemaPtr(obx_counters_schema_from_string(doc.text().c_str()));
}

std::vector<uint32_t> offsets_of(const obx_counters_schema_t* schema)
{
    std::vector<uint32_t> offsets;
    for (uint32_t g = 0; g < schema->num_groups; ++g)
        for (uint32_t c = 0; c < schema->groups[g]->num_counters; ++c)
            offsets.push_back(schema->groups[g]->counters[c]->offset);
    return offsets;
}

std::string schema_text(const obx_counters_schema_t* schema)
{
    char* text = obx_counters_schema_to_json_string(schema);
    std::string result = text ? text : "<none>";
    obx_json_free_serialized_string(text);
    return result;
}

const char* const TEMPLATE_MISMATCH_SCHEMA = "JSON does not match schema '{\"version\" : \"\", \"counter_groups\" : []}'";
const char* const TEMPLATE_MISMATCH_GROUP =
    "JSON does not match schema '{\"granularity\" : \"\", \"num_counters\" : 0, \"num_counter_sets\" : 0, "
    "\"counters\" : []}'";
const char* const TEMPLATE_MISMATCH_COUNTER =
    "JSON does not match schema '{\"name\" : \"\", \"description\" : \"\", \"units\" : \"\", \"data_type\" : "
    "\"\", \"counting_type\" : \"\"}'";

}  // namespace

// ---- layout: offsets and size -------------------------------------------------------------

struct LayoutCase {
    const char* label;
    CountersSchemaDoc doc;
    std::vector<uint32_t> offsets;
    uint32_t size_of_counters;
    uint64_t extent;
    const char* error;  // expected error line, or nullptr for none
};

static std::vector<LayoutCase> layout_cases()
{
    std::vector<LayoutCase> cases;
    {
        CountersSchemaDoc doc;
        doc.group("NODE", 1, "A").counter("x", "UINT64").counter("y", "FP64");
        doc.group("CPU", 1, "B").counter("s", "STRING", 16).counter("z", "UINT64");
        cases.push_back({"two groups run on across groups", doc, {0, 8, 16, 32}, 40, 40, nullptr});
    }
    {
        CountersSchemaDoc doc;
        doc.group().counter("short", "UINT64", 4).counter("next", "UINT64");
        cases.push_back({"numeric length moves offsets, not the size", doc, {0, 4}, 16, 12, nullptr});
    }
    {
        CountersSchemaDoc doc;
        doc.group().counter("wide", "INT64", 100).counter("after", "BIT64");
        cases.push_back({"numeric length above 8 reaches past the size", doc, {0, 100}, 16, 108, nullptr});
    }
    {
        CountersSchemaDoc doc;
        doc.group("CPU", 4, "per_cpu").counter("a", "UINT64");
        doc.group("NODE", 1, "node").counter("b", "UINT64");
        cases.push_back({"counter sets play no part in offsets", doc, {0, 8}, 16, 16, nullptr});
    }
    {
        CountersSchemaDoc doc;
        auto& group = doc.group();
        group.counter("x", "UINT64");
        CounterDoc empty_string{"s", "STRING", 0.0};
        empty_string.offset = 77;
        group.counter(empty_string);
        CounterDoc later{"z", "UINT64"};
        later.offset = 99;
        group.counter(later);
        cases.push_back({"zero-length string stops the layout", doc, {0, 77, 99}, 16, 107,
                         "[obx_counters_schema_update_counter_offsets] Fail: received 0 length string counter s"});
    }
    {
        CountersSchemaDoc doc;
        cases.push_back({"no groups", doc, {}, 0, 0, nullptr});
    }
    return cases;
}

TEST(CountersSchemaLayout, OffsetsSizeAndExtent)
{
    for (const LayoutCase& c : layout_cases()) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        SchemaPtr schema = decode(c.doc);
        ASSERT_NE(schema, nullptr) << log.all();
        EXPECT_EQ(offsets_of(schema.get()), c.offsets);
        EXPECT_EQ(schema->size_of_counters, c.size_of_counters);
        EXPECT_EQ(obx_counters_schema_values_extent(schema.get()), c.extent);
        if (c.error) {
            EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{c.error});
        } else {
            EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
        }
    }
}

// ---- decoding -------------------------------------------------------------------------

TEST(CountersSchemaDecode, NumCountersComesFromTheArray)
{
    CountersSchemaDoc doc;
    auto& group = doc.group();
    group.counter("a").counter("b");
    group.num_counters = 5;
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(schema->groups[0]->num_counters, 2u);
    EXPECT_EQ(obx_counters_schema_total_values(schema.get()), 2u);
}

TEST(CountersSchemaDecode, OtherVersionsAreLoggedAndRead)
{
    const struct {
        const char* version;
        bool logged;
    } cases[] = {
        {"1.5.0", false}, {"1.5.9", false}, {"1.2.0", false}, {"1.6.0", true},
        {"2.0.0", true},  {"0.5.0", true},  {"1", true},      {"abc", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        CountersSchemaDoc doc;
        doc.version = c.version;
        doc.group().counter("x");
        LogCapture log;
        SchemaPtr schema = decode(doc);
        ASSERT_NE(schema, nullptr) << log.all();
        EXPECT_EQ(schema->num_groups, 1u);
        const std::string line = std::string("Version '") + c.version +
                                 "' of parsing schema is incompatible with current schema version '1.5.0'";
        EXPECT_EQ(log.has(line), c.logged) << log.all();
    }
}

TEST(CountersSchemaDecode, FieldsAndUnknownTableTexts)
{
    CountersSchemaDoc doc;
    auto& group = doc.group("SOCKET", 2, "g");
    group.provider = "prov";
    CounterDoc counter{"c", "UINT32", 3.0, "the c", "ms", "ABSOLUTE_MONOTONIC"};
    counter.hidden = 7;
    counter.mandatory = 1;
    group.counter(counter);
    group.counter(CounterDoc{"d", "FP64", std::nullopt, "", "", "RUNNING_SUM"});
    LogCapture log;
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    const obx_counter_group_t* g = schema->groups[0];
    EXPECT_EQ(g->granularity, -1);
    EXPECT_EQ(g->num_counter_sets, 2u);
    EXPECT_STREQ(g->name, "g");
    EXPECT_STREQ(g->provider_name, "prov");
    EXPECT_EQ(g->provider, nullptr);
    const obx_counter_info_t* c = g->counters[0];
    EXPECT_STREQ(c->name, "c");
    EXPECT_STREQ(c->description, "the c");
    EXPECT_STREQ(c->units, "ms");
    EXPECT_EQ(c->data_type, -1);
    EXPECT_EQ(c->counting_type, -1);  // accepted for event fields, not here
    EXPECT_EQ(c->length, 3u);
    EXPECT_EQ(c->hidden, 1);
    EXPECT_EQ(c->mandatory, 1);
    EXPECT_EQ(c->id, 0u);
    EXPECT_EQ(c->reserved, 0u);
    const obx_counter_info_t* d = g->counters[1];
    EXPECT_EQ(d->data_type, OBX_COUNTER_DATA_TYPE_FP64);
    EXPECT_EQ(d->counting_type, OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM);
    EXPECT_EQ(d->length, 0u);
    EXPECT_EQ(d->hidden, 0);
    EXPECT_EQ(d->mandatory, 0);
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
}

TEST(CountersSchemaDecode, NumbersOutsideTheirRangeAreClamped)
{
    const struct {
        double given;
        uint32_t read;
    } cases[] = {{-3, 0}, {2.7, 2}, {4294967295.0, 4294967295u}, {1e300, 4294967295u}, {-1e300, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        CountersSchemaDoc doc;
        doc.group("NODE", c.given).counter("s", "STRING", c.given);
        SchemaPtr schema = decode(doc);
        ASSERT_NE(schema, nullptr);
        EXPECT_EQ(schema->groups[0]->num_counter_sets, c.read);
        EXPECT_EQ(schema->groups[0]->counters[0]->length, c.read);
    }
}

struct BadDocCase {
    const char* label;
    std::string text;
    std::vector<std::string> errors;  // each must be among the error lines
};

static std::string doc_text(void (*edit)(CountersSchemaDoc&))
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, "g").counter("a").counter("b");
    edit(doc);
    return doc.text();
}

TEST(CountersSchemaDecode, BadDocumentsGiveNothing)
{
    const std::vector<BadDocCase> cases = {
        {"not JSON", "{\"version\": ", {"Failed parsing counters schema JSON from string"}},
        {"empty text", "", {"Failed parsing counters schema JSON from string"}},
        {"top level array", "[]", {TEMPLATE_MISMATCH_SCHEMA}},
        {"no version", "{\"counter_groups\": []}", {TEMPLATE_MISMATCH_SCHEMA}},
        {"version a number", "{\"version\": 1.5, \"counter_groups\": []}", {TEMPLATE_MISMATCH_SCHEMA}},
        {"groups an object", "{\"version\": \"1.5.0\", \"counter_groups\": {}}", {TEMPLATE_MISMATCH_SCHEMA}},
        {"group a number",
         "{\"version\": \"1.5.0\", \"counter_groups\": [3]}",
         {TEMPLATE_MISMATCH_GROUP, "Failed to decode counter group from JSON"}},
        {"group without granularity",
         doc_text([](CountersSchemaDoc& d) { d.groups[0].drop_keys = {"granularity"}; }),
         {TEMPLATE_MISMATCH_GROUP, "Failed to decode counter group from JSON"}},
        {"group without num_counters",
         doc_text([](CountersSchemaDoc& d) { d.groups[0].drop_keys = {"num_counters"}; }),
         {TEMPLATE_MISMATCH_GROUP}},
        {"group without counters",
         doc_text([](CountersSchemaDoc& d) { d.groups[0].drop_keys = {"counters"}; }),
         {TEMPLATE_MISMATCH_GROUP}},
        {"second counter without units",
         doc_text([](CountersSchemaDoc& d) { d.groups[0].counters[1].drop_keys = {"units"}; }),
         {TEMPLATE_MISMATCH_COUNTER, "Failed to decode counter group from JSON"}},
        {"counter without counting_type",
         doc_text([](CountersSchemaDoc& d) { d.groups[0].counters[0].drop_keys = {"counting_type"}; }),
         {TEMPLATE_MISMATCH_COUNTER}},
        {"counter a string",
         "{\"version\": \"1.5.0\", \"counter_groups\": [{\"granularity\": \"NODE\", \"num_counters\": 1, "
         "\"num_counter_sets\": 1, \"counters\": [\"x\"]}]}",
         {TEMPLATE_MISMATCH_COUNTER}},
    };
    for (const BadDocCase& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        EXPECT_EQ(obx_counters_schema_from_string(c.text.c_str()), nullptr);
        for (const std::string& error : c.errors)
            EXPECT_TRUE(log.has(error)) << "missing: " << error << "\n" << log.all();
    }
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_from_string(nullptr), nullptr);
    EXPECT_EQ(obx_counters_schema_from_json(nullptr), nullptr);
}

// ---- encoding -------------------------------------------------------------------------

TEST(CountersSchemaEncode, WritesKeysInFileOrder)
{
    CountersSchemaDoc doc;
    doc.version = "1.4.0";
    auto& group = doc.group("CPU", 2, "grp");
    group.provider = "prov";
    CounterDoc counter{"c", "STRING", 8.0, "desc", "B", "RUNNING_SUM"};
    counter.hidden = 1;
    counter.offset = 123;  // computed anew
    group.counter(counter);
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(schema_text(schema.get()),
              "{\n"
              "    \"title\": \"Ombrix performance counters collector\",\n"
              "    \"version\": \"1.5.0\",\n"
              "    \"counter_groups\": [\n"
              "        {\n"
              "            \"granularity\": \"CPU\",\n"
              "            \"name\": \"grp\",\n"
              "            \"provider\": \"prov\",\n"
              "            \"num_counter_sets\": 2,\n"
              "            \"num_counters\": 1,\n"
              "            \"counters\": [\n"
              "                {\n"
              "                    \"name\": \"c\",\n"
              "                    \"description\": \"desc\",\n"
              "                    \"units\": \"B\",\n"
              "                    \"data_type\": \"STRING\",\n"
              "                    \"length\": 8,\n"
              "                    \"offset\": 0,\n"
              "                    \"hidden\": 1,\n"
              "                    \"mandatory\": 0,\n"
              "                    \"counting_type\": \"RUNNING_SUM\"\n"
              "                }\n"
              "            ]\n"
              "        }\n"
              "    ]\n"
              "}");
}

TEST(CountersSchemaEncode, UnknownTableValuesLeaveTheirKeysOut)
{
    CountersSchemaDoc doc;
    doc.group("SOCKET", 1).counter(CounterDoc{"c", "UINT32", std::nullopt, "", "", "BOGUS"});
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    obx_test::JsonPtr value(obx_counters_schema_jsonify(schema.get()));
    ASSERT_NE(value, nullptr);
    const json_t* group = json_array_get(json_object_get(value.get(), "counter_groups"), 0);
    EXPECT_EQ(json_object_get(group, "granularity"), nullptr);
    EXPECT_EQ(json_object_get(group, "name"), nullptr);      // no name, no provider
    EXPECT_EQ(json_object_get(group, "provider"), nullptr);
    const json_t* counter = json_array_get(json_object_get(group, "counters"), 0);
    EXPECT_EQ(json_object_get(counter, "data_type"), nullptr);
    EXPECT_EQ(json_object_get(counter, "counting_type"), nullptr);
    EXPECT_NE(json_object_get(counter, "name"), nullptr);
}

TEST(CountersSchemaEncode, RoundTripKeepsHiddenAndMandatory)
{
    CountersSchemaDoc doc;
    auto& group = doc.group();
    CounterDoc hidden{"h"};
    hidden.hidden = 1;
    CounterDoc mandatory{"m"};
    mandatory.mandatory = -2;
    group.counter(hidden).counter(mandatory).counter("plain");
    SchemaPtr first = decode(doc);
    ASSERT_NE(first, nullptr);
    const std::string text = schema_text(first.get());
    SchemaPtr second(obx_counters_schema_from_string(text.c_str()));
    ASSERT_NE(second, nullptr);
    const struct {
        const char* name;
        uint8_t hidden, mandatory;
    } expected[] = {{"h", 1, 0}, {"m", 0, 1}, {"plain", 0, 0}};
    for (const auto& e : expected) {
        SCOPED_TRACE(e.name);
        const obx_counter_info_t* counter = obx_counters_schema_find_counter(second.get(), e.name);
        ASSERT_NE(counter, nullptr);
        EXPECT_EQ(counter->hidden, e.hidden);
        EXPECT_EQ(counter->mandatory, e.mandatory);
    }
    EXPECT_EQ(schema_text(second.get()), text);
}

TEST(CountersSchemaEncode, EmptySchemaAndFailureWording)
{
    SchemaPtr empty(obx_counters_schema_create());
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(schema_text(empty.get()),
              "{\n    \"title\": \"Ombrix performance counters collector\",\n    \"version\": \"1.5.0\",\n"
              "    \"counter_groups\": []\n}");
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_to_json_string(nullptr), nullptr);
    EXPECT_TRUE(log.has("Failed to JSONify counters schemaector schema")) << log.all();
}

TEST(CountersSchemaEncode, PrintWritesTextNewlineAndFlushes)
{
    CountersSchemaDoc doc;
    doc.group().counter("x");
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    char* buffer = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&buffer, &size);
    ASSERT_NE(stream, nullptr);
    obx_counters_schema_print(schema.get(), stream);
    EXPECT_EQ(std::string(buffer, size), schema_text(schema.get()) + "\n");  // visible before fclose
    fclose(stream);
    free(buffer);
}

// ---- queries --------------------------------------------------------------------------

TEST(CountersSchemaQuery, CountsAndFind)
{
    CountersSchemaDoc doc;
    doc.group("CPU", 4, "cpu").counter("a").counter("dup");
    doc.group("NODE", 1, "node").counter("dup").counter("b").counter("c");
    SchemaPtr schema = decode(doc);
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(obx_counters_schema_total_values(schema.get()), 4u * 2 + 3);

    LogCapture log;
    EXPECT_EQ(obx_counters_schema_number_of_counters(schema.get()), 0u);
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              std::vector<std::string>{"[obx_counters_schema_number_of_counters] num_counter_sets should be 1, not 4"});
    schema->groups[0]->num_counter_sets = 1;
    EXPECT_EQ(obx_counters_schema_number_of_counters(schema.get()), 5u);

    const obx_counter_info_t* dup = obx_counters_schema_find_counter(schema.get(), "dup");
    EXPECT_EQ(dup, schema->groups[0]->counters[1]);  // first in schema order
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), "c"), schema->groups[1]->counters[2]);
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), "C"), nullptr);
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), "du"), nullptr);
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), nullptr), nullptr);
    EXPECT_EQ(obx_counters_schema_find_counter(nullptr, "a"), nullptr);
}

// ---- files ----------------------------------------------------------------------------

TEST(CountersSchemaFiles, FromFileAndLoadById)
{
    obx_test::SchemaFolder dir;
    CountersSchemaDoc doc;
    doc.group().counter("x").counter("s", "STRING", 4);
    const obx_test::SchemaId id = dir.add(doc.json().get());

    SchemaPtr by_id(obx_counters_schema_load_by_id(id.data(), dir.path().c_str()));
    ASSERT_NE(by_id, nullptr);
    EXPECT_EQ(by_id->size_of_counters, 12u);

    const uint8_t zero[16] = {};
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_load_by_id(zero, dir.path().c_str()), nullptr);
    EXPECT_EQ(obx_counters_schema_load_by_id(nullptr, dir.path().c_str()), nullptr);
    EXPECT_TRUE(log.lines().empty()) << log.all();

    obx_test::SchemaId other = id;
    other[0] ^= 0xff;
    const std::string missing = dir.file_of(other);
    EXPECT_EQ(obx_counters_schema_load_by_id(other.data(), dir.path().c_str()), nullptr);
    EXPECT_TRUE(log.has("opening counters schema: " + missing + "\n")) << log.all();
    EXPECT_TRUE(log.has("Failed reading counters schema JSON from file '" + missing +
                        "': No such file or directory"))
        << log.all();
    EXPECT_EQ(log.at(OBX_LOG_DEBUG).back(), "Failed to load counters schema from file: " + missing);
}

TEST(CountersSchemaFiles, FileThatIsNotJson)
{
    obx_test::TempDir dir;
    const std::string path = dir.file("bad.json");
    std::ofstream(path) << "{\"version\": \"1.5.0\", \"counter_groups\": [";
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_from_file(path.c_str()), nullptr);
    ASSERT_EQ(log.at(OBX_LOG_ERROR).size(), 1u) << log.all();
    EXPECT_EQ(log.at(OBX_LOG_ERROR)[0].rfind("Failed reading counters schema JSON from file '" + path + "': ", 0), 0u);
}
