#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counters_schema.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "fixtures/schema_builder.h"
#include "fixtures/schema_objects.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

char* dup(const char* text) { return text ? strdup(text) : nullptr; }

obx_counter_info_t make_counter(const char* name, const char* description = "", const char* units = "") {
    return obx_counter_info_t{17, dup(name), dup(description), dup(units), OBX_COUNTER_DATA_TYPE_STRING,
                              OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM, 24, 12, 5, 1, 1};
}

obx_counter_group_t* new_group() { return static_cast<obx_counter_group_t*>(calloc(1, sizeof(obx_counter_group_t))); }

// Count of "on <file>, <function> <line> attempted to free NULL ptr" warnings.
long null_free_warnings(const LogCapture& log, const std::string& function) {
    const std::regex line("on .+, " + function + " [0-9]+ attempted to free NULL ptr");
    const std::vector<std::string> lines = log.at(OBX_LOG_WARNING);
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, line); });
}

// A provider that refuses a counter named "refuse", takes "forget" without raising the
// count, counts the groups it destroys, and whose hooks give back their arguments as digits.
int destroyed = 0;
intptr_t hook(obx_counter_group_t*, uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e) {
    return static_cast<intptr_t>(a * 10000 + b * 1000 + c * 100 + d * 10 + e);
}
obx_counters_provider_t fake_provider() {
    return {"fake", [](const obx_counter_group_info_t*) { return new_group(); },
            [](obx_counter_group_t* g) { ++destroyed, obx_counter_group_destroy(g); },
            [](obx_counter_group_t* g, const obx_counter_info_t* c) {
                const std::string name = c->name;
                g->num_counters += name != "refuse" && name != "forget";
                return name != "refuse";
            },
            hook, hook, 0xfeedu};
}

CountersSchemaPtr decode(const std::string& text) { return CountersSchemaPtr(obx_counters_schema_from_string(text.c_str())); }
CountersSchemaPtr decode_layout(const std::string& layout) { return decode(counters_layout(layout).text()); }
std::string schema_text(const obx_counters_schema_t* s) { return owned_text(obx_counters_schema_to_json_string(s)); }

// "<offsets> size=<size_of_counters> extent=<values extent> values=<total values>", or "none";
// then each error line logged while decoding.
std::string decoded(const std::string& text) {
    LogCapture log;
    CountersSchemaPtr schema = decode(text);
    std::string out = schema ? "" : "none";
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g)
        for (uint32_t c = 0; c < schema->groups[g]->num_counters; ++c)
            out += std::to_string(schema->groups[g]->counters[c]->offset) + " ";
    if (schema)
        out += "size=" + std::to_string(schema->size_of_counters) + " extent=" +
               std::to_string(obx_counters_schema_values_extent(schema.get())) +
               " values=" + std::to_string(obx_counters_schema_total_values(schema.get()));
    for (const std::string& line : log.at(OBX_LOG_ERROR)) out += " | " + line;
    return out;
}

const std::string kMismatch = "JSON does not match schema '";
const std::string kSchemaMismatch = kMismatch + R"({"version" : "", "counter_groups" : []}')";
const std::string kGroupMismatch =
    kMismatch + R"({"granularity" : "", "num_counters" : 0, "num_counter_sets" : 0, "counters" : []}')";
const std::string kCounterMismatch = kMismatch + R"({"name" : "", "description" : "", "units" : "", )"
                                                 R"("data_type" : "", "counting_type" : ""}')";

}  // namespace

TEST(CounterInfo, DeepCopyTakesAllButHiddenAndDestroyWarnsPerMissingText) {
    obx_counter_info_t source = make_counter("n", "d", "u");
    obx_counter_info_t* copy = obx_counter_info_copy(&source);
    ASSERT_TRUE(copy && copy->name != source.name);
    EXPECT_EQ(std::string(copy->name) + copy->description + copy->units, "ndu");
    EXPECT_EQ((std::vector<long>{copy->id, copy->data_type, copy->counting_type, copy->offset, copy->length,
                                 copy->reserved, copy->mandatory, copy->hidden}),
              (std::vector<long>{17, OBX_COUNTER_DATA_TYPE_STRING, OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM, 24, 12, 5, 1, 0}));
    LogCapture log;
    obx_counter_info_destroy(copy);
    free(copy);
    obx_counter_info_destroy(&source);  // no warning while every text is there
    obx_counter_info_t no_texts = make_counter(nullptr, nullptr, nullptr);
    obx_counter_info_destroy(&no_texts);
    EXPECT_EQ(null_free_warnings(log, "obx_destroy_counter_info"), 3) << log.all();
}

TEST(CounterGroup, ProviderMakesFillsAndDestroysItsGroups) {
    obx_counters_provider_t provider = fake_provider();
    const obx_counter_group_info_t info{42, "cpu_stats"}, unnamed{1, nullptr};
    obx_counter_group_t* group = obx_counter_group_from_provider(&provider, &info);
    ASSERT_NE(group, nullptr);
    EXPECT_TRUE(group->provider == &provider && group->group_info == &info && group->name != info.name);
    EXPECT_EQ(std::to_string(group->id) + group->name + "/" + group->provider_name + std::to_string(group->provider_data),
              "42cpu_stats/fake65261");
    // The hook raises the count, once; a hook that does not must not let the copy land outside.
    for (const char* name : {"c", "refuse", "forget"}) {
        obx_counter_info_t counter = make_counter(name);
        LogCapture log;
        EXPECT_EQ(obx_counter_group_add_counter(group, &counter), name[0] == 'c');
        EXPECT_EQ(group->num_counters, 1u);
        EXPECT_EQ(log.has("Provider 'fake' left counter group with 1 counters instead of 2"), name[0] == 'f');
        obx_counter_info_destroy(&counter);
    }
    // Without a provider the count is raised here; an empty slot is warned about when freed.
    obx_counter_group_t* plain = new_group();
    obx_counter_info_t counter = make_counter("a");
    EXPECT_TRUE(obx_counter_group_add_counter(plain, &counter) && !obx_counter_group_add_counter(plain, nullptr));
    ASSERT_TRUE(plain->num_counters == 1 && plain->counters[0]->name != counter.name);
    EXPECT_STREQ(plain->counters[0]->name, "a");
    obx_counter_info_destroy(&counter);
    obx_counter_info_destroy(plain->counters[0]);
    free(plain->counters[0]);
    plain->counters[0] = nullptr;
    obx_counters_schema_t* schema = obx_counters_schema_create();
    ASSERT_TRUE(obx_counters_schema_add_group(schema, group) && obx_counters_schema_add_group(schema, plain));
    destroyed = 0;
    LogCapture log;
    obx_counters_schema_destroy(schema);
    EXPECT_EQ(destroyed, 1);  // the plain group was freed directly
    EXPECT_EQ(null_free_warnings(log, "obx_free_counter_group"), 1) << log.all();

    // Without a group name, the provider's name is written in its place.
    group = obx_counter_group_from_provider(&provider, &unnamed);
    ASSERT_TRUE(group && !group->name);
    EXPECT_EQ(json_text(JsonPtr(obx_counter_group_to_json(group)).get()),
              R"({"granularity":"NODE","name":"fake","provider":"fake","num_counter_sets":0,"num_counters":0,"counters":[]})");

    // Hooks: the second gets 0 in place of its first argument; no hook, no call.
    EXPECT_EQ(obx_counter_group_call_hook1(group, 1, 2, 3, 4, 5), 12345);
    EXPECT_EQ(obx_counter_group_call_hook2(group, 1, 2, 3, 4, 5), 2345);
    provider.hook2 = nullptr;
    EXPECT_EQ(obx_counter_group_call_hook2(group, 1, 2, 3, 4, 5), 0);
    group->provider = nullptr;
    EXPECT_EQ(obx_counter_group_call_hook1(group, 1, 2, 3, 4, 5), 0);
    obx_counter_group_destroy(group);
}

TEST(CountersSchema, Decoding) {
    const std::string zero_string = " | [obx_counters_schema_update_counter_offsets] Fail: received 0 length string counter s";
    auto version = [](const std::string& v) {
        CountersSchemaDoc doc = counters_layout("x");
        doc.version = v;
        return doc.text();
    };
    const std::string old = " | Version '", other = "' of parsing schema is incompatible with current schema version '1.5.0'";
    const std::string head = R"({"version": "1.5.0", "counter_groups": [)";
    const std::string decode_group = " | Failed to decode counter group from JSON";
    const std::string group = R"({"granularity": "NODE", "num_counters": 1, "num_counter_sets": 1, "counters": [)";
    const std::string counter = R"({"name": "a", "description": "", "data_type": "UINT64", "counting_type": "ABSOLUTE")";
    const struct { std::string text, expected; } cases[] = {
        {counters_layout("x y:FP64 | s:STRING:16 z").text(), "0 8 16 32 size=40 extent=40 values=4"},
        {counters_layout("short:UINT64:4 next").text(), "0 4 size=16 extent=12 values=2"},  // offsets move, size does not
        {counters_layout("*4 a | b").text(), "0 8 size=16 extent=16 values=5"},  // counter sets play no part in offsets
        {counters_layout("x s:STRING:0:77 z:UINT64::99").text(), "0 77 99 size=16 extent=107 values=3" + zero_string},
        {counters_layout("").text(), "size=0 extent=0 values=0"},
        {counters_layout("*-1e300 s:STRING:1e300").text(), "0 size=4294967295 extent=4294967295 values=0"},  // clamped
        {counters_layout("*1e300 s:STRING:-3").text(), "0 size=0 extent=0 values=4294967295" + zero_string},
        {version("1.2.0"), "0 size=8 extent=8 values=1"},
        {version("1.6.0"), "0 size=8 extent=8 values=1" + old + "1.6.0" + other},
        {version("abc"), "0 size=8 extent=8 values=1" + old + "abc" + other},
        {R"({"version": )", "none | Failed parsing counters schema JSON from string"},
        {"[]", "none | " + kSchemaMismatch},
        {head + "3]}", "none | " + kGroupMismatch + decode_group},
        {head + group + R"("x"]}]})", "none | " + kCounterMismatch + decode_group},
        {head + group + counter + R"(, "units": ""}, )" + counter + "}]}]}", "none | " + kCounterMismatch + decode_group},
    };
    for (const auto& c : cases) EXPECT_EQ(decoded(c.text), c.expected) << c.text;
    EXPECT_EQ(obx_counters_schema_from_string(nullptr), nullptr);
}

TEST(CountersSchema, DecodesFieldsAndWritesKnownOnesBack) {
    CountersSchemaPtr schema = decode(
        R"({"version": "1.4.0", "counter_groups": [{"granularity": "SOCKET", "name": "g", "provider": "prov", )"
        R"("num_counter_sets": 2, "num_counters": 5, "counters": [{"name": "c", "description": "the c", "units": "ms", )"
        R"("data_type": "UINT32", "length": 3, "offset": 123, "hidden": 7, "mandatory": -2, "counting_type": )"
        R"("ABSOLUTE_MONOTONIC"}, {"name": "d", "description": "", "units": "", "data_type": "FP64", )"
        R"("counting_type": "RUNNING_SUM"}]}]})");
    ASSERT_NE(schema, nullptr);
    const obx_counter_info_t* first = schema->groups[0]->counters[0];
    // Unknown table texts read as -1 ("ABSOLUTE_MONOTONIC" is for event fields only); id and reserved are 0.
    EXPECT_EQ((std::vector<long>{schema->groups[0]->granularity, first->data_type, first->counting_type, first->id,
                                 first->reserved}), (std::vector<long>{-1, -1, -1, 0, 0}));
    // The array counts; unknown table values leave their keys out; offsets are computed anew.
    EXPECT_EQ(json_text(json_parse(schema_text(schema.get())).get()),
              R"({"title":"Ombrix performance counters collector","version":"1.5.0","counter_groups":[{"name":"g",)"
              R"("provider":"prov","num_counter_sets":2,"num_counters":2,"counters":[{"name":"c","description":)"
              R"("the c","units":"ms","length":3,"offset":0,"hidden":1,"mandatory":1},{"name":"d","description":"",)"
              R"("units":"","data_type":"FP64","length":0,"offset":3,"hidden":0,"mandatory":0,)"
              R"("counting_type":"RUNNING_SUM"}]}]})");
    const std::string valid = schema_text(decode_layout("a s:STRING:8:40 | *3 b").get());
    EXPECT_EQ(schema_text(decode(valid).get()), valid);
}

TEST(CountersSchema, EmptySchemaTextPrintAndFailureWording) {
    CountersSchemaPtr empty(obx_counters_schema_create());
    const std::string text = "{\n    \"title\": \"Ombrix performance counters collector\",\n"
                             "    \"version\": \"1.5.0\",\n    \"counter_groups\": []\n}";
    EXPECT_EQ(schema_text(empty.get()), text);
    EXPECT_EQ(written([&](FILE* stream) { obx_counters_schema_print(empty.get(), stream); }), text + "\n");
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_to_json_string(nullptr), nullptr);
    EXPECT_TRUE(log.has("Failed to JSONify counters schemaector schema")) << log.all();
}

TEST(CountersSchema, CountsAndFind) {
    CountersSchemaPtr schema = decode_layout("*4 a dup | dup b c");
    LogCapture log;
    EXPECT_EQ(obx_counters_schema_number_of_counters(schema.get()), 0u);
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              std::vector<std::string>{"[obx_counters_schema_number_of_counters] num_counter_sets should be 1, not 4"});
    schema->groups[0]->num_counter_sets = 1;
    EXPECT_EQ(obx_counters_schema_number_of_counters(schema.get()), 5u);
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), "dup"), schema->groups[0]->counters[1]);  // the first
    EXPECT_EQ(obx_counters_schema_find_counter(schema.get(), "c"), schema->groups[1]->counters[2]);
    EXPECT_FALSE(obx_counters_schema_find_counter(schema.get(), "du") || obx_counters_schema_find_counter(schema.get(), "C"));
}

TEST(CountersSchema, LoadById) {
    SchemaFolder dir;
    const SchemaId id = dir.add(counters_layout("x s:STRING:4").json().get());
    CountersSchemaPtr by_id(obx_counters_schema_load_by_id(id.data(), dir.path().c_str()));
    ASSERT_EQ(by_id ? by_id->size_of_counters : 0, 12u);

    const uint8_t zero[16] = {};
    LogCapture log;
    EXPECT_FALSE(obx_counters_schema_load_by_id(zero, dir.path().c_str()) || obx_counters_schema_load_by_id(nullptr, "."));
    EXPECT_TRUE(log.lines().empty()) << log.all();

    SchemaId other = id;
    other[0] ^= 0xff;
    const std::string missing = dir.file_of(other);
    EXPECT_EQ(obx_counters_schema_load_by_id(other.data(), dir.path().c_str()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_DEBUG).back(), "Failed to load counters schema from file: " + missing);
}
