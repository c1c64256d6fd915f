#include <gtest/gtest.h>

#include <cstdlib>

#include "counters/counter_group/counter_info.h"
#include "counters/counter_group/counters_schema.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_objects.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

CountersSchemaPtr decode(const std::string& text) { return CountersSchemaPtr(obx_counters_schema_from_string(text.c_str())); }

// "<offsets> size=<size_of_counters>", or "none"; then each error line logged while decoding.
std::string decoded(const std::string& text) {
    LogCapture log;
    CountersSchemaPtr schema = decode(text);
    std::string out = schema ? "" : "none";
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g)
        for (uint32_t c = 0; c < schema->groups[g]->num_counters; ++c)
            out += std::to_string(schema->groups[g]->counters[c]->offset) + " ";
    if (schema) out += "size=" + std::to_string(schema->size_of_counters);
    for (const std::string& line : log.at(OBX_LOG_ERROR)) out += " | " + line;
    return out;
}

// The text of a counters_layout document, of another version if asked.
std::string layout(const std::string& text, const std::string& version = "1.5.0") {
    CountersSchemaDoc doc = counters_layout(text);
    return doc.version = version, doc.text();
}

}  // namespace

TEST(CountersSchema, Decoding) {
    const std::string zero_string = " | [obx_counters_schema_update_counter_offsets] Fail: received 0 length string counter s";
    const std::string mismatch = " | JSON does not match schema '", decode_group = " | Failed to decode counter group from JSON";
    const std::string head = R"({"version": "1.5.0", "counter_groups": [)", group = R"({"granularity": "NODE", "num_counters": 1, "num_counter_sets": 1, "counters": [)";
    const struct { std::string text, expected; } cases[] = {
        {layout("x y:FP64 | s:STRING:16 z"), "0 8 16 32 size=40"},
        {layout("short:UINT64:4 next"), "0 4 size=16"},  // offsets move by the length, the size counts 8
        {layout("*4 a | b"), "0 8 size=16"},  // counter sets play no part in offsets
        {layout("x s:STRING:0:77 z:UINT64::99"), "0 77 99 size=16" + zero_string},  // the update stops there
        {layout(""), "size=0"},
        {layout("*-1e300 s:STRING:1e300"), "0 size=4294967295"},  // clamped
        {layout("x", "1.2.0"), "0 size=8"},
        {layout("x", "1.6.0"), "0 size=8 | Version '1.6.0' of parsing schema is incompatible with current schema version '1.5.0'"},
        {R"({"version": )", "none | Failed parsing counters schema JSON from string"},
        {"[]", "none" + mismatch + R"({"version" : "", "counter_groups" : []}')"},
        {head + "3]}", "none" + mismatch + R"({"granularity" : "", "num_counters" : 0, "num_counter_sets" : 0, "counters" : []}')" + decode_group},
        // A counter without "units".
        {head + group + R"({"name": "a", "description": "", "data_type": "UINT64", "counting_type": "ABSOLUTE"}]}]})",
         "none" + mismatch + R"({"name" : "", "description" : "", "units" : "", "data_type" : "", "counting_type" : ""}')" + decode_group},
    };
    for (const auto& c : cases) EXPECT_EQ(decoded(c.text), c.expected) << c.text;
}

TEST(CountersSchema, DecodesFieldsAsTheyStand) {
    CountersSchemaPtr schema = decode(R"({"version": "1.4.0", "counter_groups": [{"granularity": "SOCKET", "name": "g", "provider": "prov", "num_counter_sets": 2, "num_counters": 5, "counters": [)"
        R"({"name": "c", "description": "the c", "units": "ms", "data_type": "UINT32", "length": 3, "offset": 123, "hidden": 7, "mandatory": -2, "counting_type": "ABSOLUTE_MONOTONIC"}, {"name": "d", "description": "", "units": "", "data_type": "FP64", "counting_type": "RUNNING_SUM"}]}]})");
    ASSERT_NE(schema, nullptr);
    const obx_counter_group_t* g = schema->groups[0];
    const obx_counter_info_t* c = g->counters[0];
    // Unknown table texts read as -1 ("ABSOLUTE_MONOTONIC" is for event fields only); the array
    // counts, not "num_counters"; any flag but 0 is true; offsets are computed anew.
    EXPECT_EQ((std::vector<long>{g->granularity, g->num_counters, c->data_type, c->counting_type, c->id, c->reserved,
                                 c->hidden, c->mandatory, c->offset, g->counters[1]->offset, g->counters[1]->counting_type}),
              (std::vector<long>{-1, 2, -1, -1, 0, 0, 1, 1, 0, 3, 1}));
    EXPECT_EQ(std::string(g->name) + "/" + g->provider_name + "/" + c->name + "/" + c->description + "/" + c->units, "g/prov/c/the c/ms");
    // A deep copy is never hidden.
    obx_counter_info_t* copy = obx_counter_info_copy(c);
    EXPECT_TRUE(copy && copy->hidden == 0 && copy->mandatory == 1 && copy->length == 3 && std::string(copy->name) == "c");
    obx_counter_info_destroy(copy), free(copy);
}
