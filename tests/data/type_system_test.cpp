#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "fixtures/schema_objects.h"
#include "tools/read_options.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

std::string sample(const std::string& provider = "prov") {
    return EventSchemaDoc(provider).type("sample", {{"a", "uint8_t"}, {"b", "uint64_t"}, {"c", "uint16_t"}}).pretty();
}

// A type whose only field names a type nobody defines; sizes given so that it decodes.
std::string unresolvable(const std::string& provider) {
    FieldDoc field("a", "no_such");
    field.type_size = 4;
    return EventSchemaDoc(provider).type(TypeDoc{"t", {field}, 4}).pretty();
}

std::string hex_of(const uint8_t* digest) {
    SchemaId id;
    std::copy(digest, digest + 16, id.begin());
    return SchemaFolder::hex(id);
}

int add(obx_type_system_t* system, const std::string& text, uint8_t* index = nullptr) {
    return obx_type_system_add_schema(system, text.c_str(), index);
}

// "<provider of each schema, in position order>; <size of counters, or none>", or "null".
std::string summary(const obx_type_system_t* system) {
    if (!system) return "null";
    std::string out;
    for (unsigned i = 0; i < system->num_schemas; ++i) out += std::string(i ? " " : "") + system->schemas[i]->name;
    return out + "; " + (system->counters_schema ? std::to_string(system->counters_schema->size_of_counters) : "none");
}

// A context as the reader has it after reading a header: options with a schema folder and
// the header's ids. load() gives "<result>: <summary of the type system loaded>".
class ReaderSchemas : public ::testing::Test {
protected:
    void SetUp() override { options_.schema_path = &path_[0], context_.options = &options_; }
    void TearDown() override { obx_type_system_destroy(context_.type_system); }

    void name(uint8_t* slot, const std::string& provider) { memcpy(slot, folder_.add_text(sample(provider)).data(), 16); }
    std::string load(uint8_t (*ids)[16] = nullptr, unsigned count = 0) {
        const bool ok = obx_reader_load_type_system(&context_, ids ? ids : header_.event_schema_ids,
                                                    ids ? count : OBX_EVENT_SCHEMA_SLOTS);
        return (ok ? "ok: " : "failed: ") + summary(context_.type_system);
    }

    SchemaFolder folder_;
    std::string path_ = folder_.path();
    obx_read_options_t options_{};
    obx_reader_context_t context_{};
    obx_data_file_header_t& header_ = context_.header;
};


}  // namespace

TEST(TypeSystem, FilesTakePositionsUpToTheLimit) {
    SchemaFolder folder;
    const SchemaId id = folder.add_text(sample());
    const std::string path = folder.file_of(id), missing = folder.path() + "/schema_none.json";
    TypeSystemPtr system(obx_type_system_create());
    EXPECT_TRUE(system->built_in_schema->version == 1281u && system->counters_schema->num_groups == 0);
    LogCapture log;  // refused files take no position
    for (const std::string& bad : {folder.file_of(folder.add_text(unresolvable("unk"))), missing})
        EXPECT_EQ(obx_type_system_load_schema_file(system.get(), bad.c_str()), nullptr);
    EXPECT_TRUE(log.has("Failed to adjust type fields within schema unk")) << log.all();
    EXPECT_TRUE(log.has("Failed reading schema JSON from file '" + missing + "'")) << log.all();
    for (int i = 0; i < 255; ++i) {
        obx_schema_t* schema = obx_type_system_load_schema_file(system.get(), path.c_str());
        ASSERT_TRUE(schema && system->schemas[i] == schema && schema->base_schema == system->built_in_schema) << i;
    }
    obx_type_system_recalculate_md5(system.get());
    EXPECT_STREQ(system->schemas[254]->md5_digest_str, SchemaFolder::hex(id).c_str());
    log.clear();
    EXPECT_EQ(obx_type_system_load_schema_file(system.get(), path.c_str()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed to load schema: schema limit exceeded '255'"});
    EXPECT_EQ(add(system.get(), sample("x")), -1);
    EXPECT_EQ(obx_type_system_new_schema(system.get(), "x", 1, nullptr), nullptr);
    EXPECT_EQ(system->num_schemas, 255);
    obx_type_system_destroy(nullptr);
}

TEST(TypeSystem, AddedTexts) {
    TypeSystemPtr system(obx_type_system_create());
    obx_counters_schema_t* const empty_counters = system->counters_schema;
    uint8_t digest[16], expected[16];
    ASSERT_TRUE(obx_type_system_counters_md5(system.get(), digest));  // to be computed anew after a replacement
    const std::string unconverted = "Failed to convert schema from JSON to internal memory representation";
    const std::string own = EventSchemaDoc("own").type("uint64_t", {{"low", "uint16_t"}}).type("r", {{"v", "uint64_t"}}).pretty();
    // Result, index given back (7 when left alone) and number of schemas after; a line logged.
    const struct { std::string text, expected, line; } steps[] = {
        {R"({"types": [)", "-1 7 0", "Failed to read schemas as JSON"},
        {R"({"name": "x"})", "-1 7 0", unconverted},
        {"[]", "-1 7 0", unconverted},
        {sample(), "0 0 1", "FOUND EVENTS SCHEMA"},
        {sample(), "0 0 1", "Schema already exists"},
        {sample() + " ", "0 1 2", R"(JSON does not match schema '{"version" : "", "counter_groups" : []}')"},
        {sample("b"), "0 2 3", ""},
        {own, "0 3 4", ""},
        // Types that cannot be resolved: the position is kept, with no types left to read unresolved.
        {unresolvable("bad"), "0 4 5", "Schema bad keeps position 4 without types: its types could not be resolved"},
        {counters_layout("x s:STRING:8").text(), "0 255 5", "Not an event schema"},
    };
    for (const auto& s : steps) {
        uint8_t index = 7;
        LogCapture log;
        const int result = add(system.get(), s.text, &index);
        EXPECT_EQ(std::to_string(result) + " " + std::to_string(index) + " " + std::to_string(system->num_schemas),
                  s.expected) << s.text.substr(0, 40);
        EXPECT_TRUE(s.line.empty() || log.has(s.line)) << log.all();
    }
    EXPECT_EQ(obx_type_system_add_schema(system.get(), nullptr, nullptr), -1);
    EXPECT_EQ(system->schemas[4]->num_types, 0);
    const std::string md5 = SchemaFolder::hex(SchemaFolder::md5_of(sample() + " "));  // of the text, byte for byte
    uint8_t found = 99;
    EXPECT_TRUE(obx_type_system_find_schema(system.get(), md5.c_str(), &found) && found == 1);
    EXPECT_TRUE(md5 == system->schemas[1]->md5_digest_str && md5 == hex_of(system->schemas[1]->md5_digest));
    // A type named "uint64_t" hides the built-in in its own schema only.
    EXPECT_EQ(system->schemas[3]->types[1]->fields[0]->type, system->schemas[3]->types[0]);
    EXPECT_EQ(system->schemas[0]->types[0]->fields[1]->type, obx_schema_find_type(system->built_in_schema, "uint64_t"));
    // The counters schema was replaced, and its digest follows the one now in place.
    EXPECT_NE(system->counters_schema, empty_counters);
    EXPECT_EQ(obx_type_system_max_record_size(system.get()), 16u);
    ASSERT_TRUE(obx_type_system_counters_md5(system.get(), digest));
    ASSERT_TRUE(obx_json_md5(expected, JsonPtr(obx_counters_schema_jsonify(system->counters_schema)).get()));
    EXPECT_EQ(hex_of(digest), hex_of(expected));
}

TEST(TypeSystem, RecordSizesAndMovedSchemas) {
    TypeSystemPtr system(obx_type_system_create()), other(obx_type_system_create());
    ASSERT_EQ(add(system.get(), EventSchemaDoc().type("e", {{"b", "uint8_t", 64}}).type("s", {{"x", "uint8_t"}}).pretty()), 0);
    ASSERT_EQ(add(system.get(), counters_layout("x s:STRING:92").text()), 0);
    EXPECT_EQ(obx_type_system_max_event_size(system.get()), 64u);
    EXPECT_EQ(obx_type_system_max_record_size(system.get()), 100u);
    obx_counters_schema_destroy(system->counters_schema);
    system->counters_schema = nullptr;
    uint8_t digest[16] = {1}, index = 0;
    EXPECT_FALSE(obx_type_system_counters_md5(system.get(), digest) || digest[0] != 1);
    EXPECT_EQ(obx_type_system_max_record_size(system.get()), 64u);

    for (int i = 1; i < 200; ++i) obx_type_system_new_schema(system.get(), "s", 1, &index);
    for (int i = 0; i < 56; ++i) add(other.get(), sample(std::to_string(i)));  // one too many
    obx_schema_t* moved = other->schemas[1];
    LogCapture log;
    EXPECT_EQ(obx_type_system_add_schemas_of(system.get(), other.get(), nullptr), -1);
    EXPECT_TRUE(log.has("Cannot add schema to type system") && system->num_schemas == 200 && other->num_schemas == 56);
    obx_type_system_remove_last_schema(other.get());
    EXPECT_EQ(obx_type_system_add_schemas_of(system.get(), other.get(), &index), 0);
    EXPECT_TRUE(index == 200 && system->schemas[201] == moved && other->num_schemas == 0);
    other.reset();  // resolved anew: the other system's built-ins went with it
    EXPECT_EQ(moved->types[0]->fields[1]->type, obx_schema_find_type(system->built_in_schema, "uint64_t"));
}

TEST(TypeSystem, JsonText) {
    TypeSystemPtr system(obx_type_system_create());
    ASSERT_EQ(add(system.get(), counters_layout("*2 x").text()) + add(system.get(), sample("a")), 0);
    ASSERT_NE(obx_type_system_new_schema(system.get(), "empty", 1, nullptr), nullptr);  // has no JSON form
    ASSERT_EQ(add(system.get(), sample("b")), 0);
    const std::string text = owned_text(obx_type_system_to_json_string(system.get(), 1));
    JsonPtr value = json_parse(text);
    EXPECT_EQ(owned_text(obx_type_system_to_json_string(system.get(), 0)), json_text(value.get()));
    TypeSystemPtr back(obx_type_system_from_json_string(text.c_str()));
    ASSERT_EQ(summary(back.get()), "a b; 8");  // b moved up: the empty schema was left out
    uint8_t expected[16];  // digest of the element as parsed; its text is not filled on this road
    ASSERT_TRUE(obx_json_md5(expected, json_array_get(json_object_get(value.get(), "schemas"), 1)));
    EXPECT_TRUE(hex_of(back->schemas[1]->md5_digest) == hex_of(expected) && !back->schemas[1]->md5_digest_str[0]);
    EXPECT_EQ(owned_text(obx_type_system_to_json_string(back.get(), 1)), text);

    const std::string head = R"({"version": "1.5.0", )", schemas = R"("schemas": [)" + sample() + "]";
    const std::string counters = counters_layout("x").text(), ts = "[ts] Failed to deserialize: ";
    std::string many = head + R"("schemas": [)" + sample(), kept = "prov";
    for (int i = 1; i < 257; ++i) many += "," + sample(), kept += i < 255 ? " prov" : "";
    // What the text brings (see summary), and a line logged.
    const struct { std::string text, expected, line; } cases[] = {
        {head + schemas + "}", "prov; none", ""},
        {head + R"("counters_schema": )" + counters + "}", "; 8", ""},
        {counters, "; 8", ""},
        {R"({"version": "1.3.9", )" + schemas + "}", "prov; none", ts + "schema version 1.3.9 is incompatible with the "
                                                             "deserializer, the minimal supported schema version is 1.4.0"},
        {R"({"version": "2.0.0", "schemas": []})", "; none", ""},
        {many + "]}", kept + "; none", ts + "number of schemas 257 exceeds limit 255"},
        {"[1]", "null", ts + "schema is not a JSON object"},
        {R"({"schemas": []})", "null", ts + "missing Ombrix schema version"},
        {R"({"version": "1.5.0"})", "null",
         "[schema writer] schema was not recognized neither as type system nor as counters schema"},
        {head + R"("counters_schema": {}, "schemas": []})", "null", ts + "unable to decode counters schema"},
        {head + R"("counter_groups": [1]})", "null", ts + "unable to decode JSON as counters schema"},
        {head + R"("schemas": [{}]})", "null", ts + "unable to decode type schema"},
        {head + R"("schemas": [)" + unresolvable("bad") + "]}", "null", ts + "unable to adjust type fields of schema bad"},
        {"{", "null", "Failed parsing schema JSON string"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        back.reset(obx_type_system_from_json_string(c.text.c_str()));
        EXPECT_EQ(summary(back.get()), c.expected) << c.text.substr(0, 60);
        EXPECT_TRUE(c.line.empty() || log.has(c.line)) << log.all();
    }
}

TEST_F(ReaderSchemas, ZeroSlotsTakeNoPositionAndTheCountersSchemaComesFromTheHeader) {
    name(header_.event_schema_ids[1], "a");
    name(header_.event_schema_ids[4], "b");
    name(header_.event_schema_ids[6], "c");
    EXPECT_EQ(load(), "ok: a b c; 0");  // no counters schema named: the new system's empty one stays
    memcpy(header_.counters_schema_id, folder_.add(counters_layout("a s:STRING:24").json().get()).data(), 16);
    EXPECT_EQ(load(), "ok: a b c; 32");
    // A schemas block replaces all earlier schemas; the counters schema still comes from the header.
    uint8_t block_ids[2][16] = {};
    name(block_ids[1], "only");
    EXPECT_EQ(load(block_ids, 2), "ok: only; 32");
}

TEST_F(ReaderSchemas, FailuresNameTheirReason) {
    SchemaId missing_id;
    missing_id.fill(0xab);
    const std::string missing = folder_.file_of(missing_id);  // the folder and the id in hexadecimal
    const struct { uint8_t* slot; std::string expected, read_error, load_error; } cases[] = {
        {header_.event_schema_ids[3], "failed: ; 0", "Failed reading schema JSON from file '" + missing + "'",
         "Failed to load schema from file: " + missing},
        {header_.counters_schema_id, "failed: ; none",  // readers of the counters schema must accept none
         "Failed reading counters schema JSON from file '" + missing + "': No such file or directory",
         "Failed to load counters schema from file: " + missing},
    };
    for (const auto& c : cases) {
        memcpy(c.slot, missing_id.data(), 16);
        LogCapture log;
        EXPECT_EQ(load(), c.expected);
        EXPECT_TRUE(log.has(c.read_error) && log.has(c.load_error)) << log.all();
        memset(c.slot, 0, 16);
    }
    name(header_.counters_schema_id, "not_counters");
    EXPECT_EQ(load(), "failed: ; none");
    EXPECT_EQ(obx_type_system_max_record_size(context_.type_system), 0u);

    options_.schema_path = nullptr;
    LogCapture log;
    EXPECT_EQ(load(), "failed: ; 0");
    EXPECT_TRUE(log.has("Failed to build schema file name from the counters schema id")) << log.all();
    memcpy(header_.event_schema_ids[0], missing_id.data(), 16);
    EXPECT_EQ(load(), "failed: ; 0");
    EXPECT_TRUE(log.has("Failed to build schema file name from the schema id")) << log.all();
}
