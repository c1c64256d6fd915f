#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "data/schema/schema_json.h"
#include "data/type_system.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "utils/logger.h"

using obx_test::CountersSchemaDoc;
using obx_test::EventSchemaDoc;
using obx_test::FieldDoc;
using obx_test::LogCapture;
using obx_test::SchemaFolder;

namespace {

struct SystemDeleter {
    void operator()(obx_type_system_t* system) const { obx_type_system_destroy(system); }
};
using SystemPtr = std::unique_ptr<obx_type_system_t, SystemDeleter>;

SystemPtr new_system()
{
    SystemPtr system(obx_type_system_create());
    EXPECT_NE(system, nullptr);
    return system;
}

EventSchemaDoc sample_schema(const std::string& provider = "prov")
{
    return EventSchemaDoc(provider).type("sample", {{"a", "uint8_t"}, {"b", "uint64_t"}, {"c", "uint16_t"}});
}

// A type whose only field names a type nobody defines; sizes given so that it decodes.
EventSchemaDoc unresolvable_schema(const std::string& provider)
{
    FieldDoc field("a", "no_such");
    field.type_size = 4;
    return EventSchemaDoc(provider).type(obx_test::TypeDoc{"t", {field}, 4});
}

std::string hex_of(const uint8_t digest[16])
{
    char text[33];
    obx_md5_to_hex_into(digest, text);
    return text;
}

std::string md5_hex(const std::string& bytes)
{
    return SchemaFolder::hex(SchemaFolder::md5_of(bytes));
}

std::string owned_text(char* text)
{
    std::string result = text ? text : "<none>";
    obx_json_free_serialized_string(text);
    return result;
}

const char* const COUNTERS_MISMATCH = "JSON does not match schema '{\"version\" : \"\", \"counter_groups\" : []}'";

}  // namespace

// ---- create and destroy ---------------------------------------------------------------

TEST(TypeSystem, CreateHoldsBuiltInsAndAnEmptyCountersSchema)
{
    SystemPtr system = new_system();
    ASSERT_NE(system->built_in_schema, nullptr);
    EXPECT_STREQ(system->built_in_schema->name, "<built-in>");
    EXPECT_EQ(system->built_in_schema->version, 1281u);
    EXPECT_EQ(system->built_in_schema->num_types, OBX_BUILT_IN_TYPE_COUNT);
    EXPECT_STREQ(system->built_in_schema->types[21]->name, "timestamp");
    EXPECT_EQ(system->num_schemas, 0);
    ASSERT_NE(system->counters_schema, nullptr);
    EXPECT_EQ(system->counters_schema->num_groups, 0u);
    for (const obx_schema_t* slot : system->schemas) EXPECT_EQ(slot, nullptr);
    obx_type_system_destroy(nullptr);
}

// ---- loading schema files -------------------------------------------------------------

TEST(TypeSystemLoad, PositionsFollowLoadOrderUpToTheLimit)
{
    SchemaFolder folder;
    const std::string path = folder.file_of(folder.add(sample_schema()));
    SystemPtr system = new_system();
    for (int i = 0; i < 255; ++i) {
        obx_schema_t* schema = obx_type_system_load_schema_file(system.get(), path.c_str());
        ASSERT_NE(schema, nullptr) << "schema " << i;
        ASSERT_EQ(system->schemas[i], schema);
        ASSERT_EQ(schema->base_schema, system->built_in_schema);
    }
    EXPECT_EQ(system->num_schemas, 255);
    // Loaded by file, a schema is known by position only.
    EXPECT_EQ(hex_of(system->schemas[0]->md5_digest), std::string(32, '0'));

    LogCapture log;
    EXPECT_EQ(obx_type_system_load_schema_file(system.get(), path.c_str()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed to load schema: schema limit exceeded '255'"});
    EXPECT_EQ(system->num_schemas, 255);
    EXPECT_EQ(obx_type_system_add_schema(system.get(), sample_schema().pretty().c_str(), nullptr), -1);
    EXPECT_EQ(obx_type_system_new_schema(system.get(), "x", 1, nullptr), nullptr);
    EXPECT_EQ(system->num_schemas, 255);
}

TEST(TypeSystemLoad, RefusedFilesTakeNoPosition)
{
    SchemaFolder folder;
    FieldDoc beyond("b", "uint64_t");
    beyond.offset = 60;  // record says 9 bytes
    const struct {
        const char* label;
        std::string path;
        const char* error;
    } cases[] = {
        {"unknown field type", folder.file_of(folder.add(unresolvable_schema("unk"))),
         "Failed to adjust type fields within schema unk"},
        {"field beyond its record",
         folder.file_of(folder.add(EventSchemaDoc("far").type(obx_test::TypeDoc{"t", {{"a", "uint8_t"}, beyond}, 9}))),
         "Failed to adjust type fields within schema far"},
        {"counters schema", folder.file_of(folder.add(CountersSchemaDoc().json().get())), "Not an event schema"},
        {"missing file", folder.path() + "/schema_none.json",
         nullptr},
        {"newer obx_version", folder.file_of(folder.add(sample_schema().obx_version("1.6.0"))),
         "Schema version 1.6.0 is incompatible with current version 1.5.0"},
    };
    SystemPtr system = new_system();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        EXPECT_EQ(obx_type_system_load_schema_file(system.get(), c.path.c_str()), nullptr);
        EXPECT_EQ(system->num_schemas, 0);
        const std::string error = c.error ? c.error : "Failed reading schema JSON from file '" + c.path + "'";
        EXPECT_TRUE(log.has(error)) << log.all();
    }
    const std::string good = folder.file_of(folder.add(sample_schema()));
    EXPECT_EQ(obx_type_system_load_schema_file(system.get(), good.c_str()), system->schemas[0]);
}

TEST(TypeSystemLoad, OwnTypeHidesBuiltInInsideItsSchemaOnly)
{
    SchemaFolder folder;
    const std::string own = folder.file_of(folder.add(
        EventSchemaDoc("own").type("uint64_t", {{"low", "uint16_t"}}).type("rec", {{"v", "uint64_t"}})));
    const std::string plain = folder.file_of(folder.add(EventSchemaDoc("plain").type("rec", {{"v", "uint64_t"}})));
    SystemPtr system = new_system();
    obx_schema_t* first = obx_type_system_load_schema_file(system.get(), own.c_str());
    obx_schema_t* second = obx_type_system_load_schema_file(system.get(), plain.c_str());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    const obx_type_definition_t* own_field_type = first->types[1]->fields[0]->type;
    EXPECT_EQ(own_field_type, first->types[0]);
    EXPECT_EQ(own_field_type->size, 2u);
    const obx_type_definition_t* plain_field_type = second->types[0]->fields[0]->type;
    EXPECT_EQ(plain_field_type->id, static_cast<uint32_t>(OBX_TYPE_UINT64));
    EXPECT_EQ(plain_field_type, obx_schema_find_type(system->built_in_schema, "uint64_t"));
}

// ---- adding schema text ---------------------------------------------------------------

TEST(TypeSystemAdd, RepeatedTextKeepsItsFirstPosition)
{
    SystemPtr system = new_system();
    const std::string text = sample_schema().pretty();
    const struct {
        const char* label;
        std::string text;
        uint8_t index;
        uint8_t count;
    } steps[] = {
        {"first", text, 0, 1},
        {"same text", text, 0, 1},
        {"one blank more", text + " ", 1, 2},
        {"other schema", sample_schema("other").pretty(), 2, 3},
        {"first again", text, 0, 3},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.label);
        uint8_t index = 99;
        LogCapture log;
        EXPECT_EQ(obx_type_system_add_schema(system.get(), s.text.c_str(), &index), 0);
        EXPECT_EQ(index, s.index);
        EXPECT_EQ(system->num_schemas, s.count);
        // Both decoders ran: the counters one logged its mismatch.
        EXPECT_TRUE(log.has(COUNTERS_MISMATCH)) << log.all();
        const obx_schema_t* schema = system->schemas[s.index];
        EXPECT_EQ(hex_of(schema->md5_digest), md5_hex(s.text));
        EXPECT_STREQ(schema->md5_digest_str, md5_hex(s.text).c_str());
        EXPECT_EQ(schema->base_schema, system->built_in_schema);
        ASSERT_EQ(schema->num_types, 1);
        EXPECT_NE(schema->types[0]->fields[2]->type, nullptr);
    }
    uint8_t found = 99;
    EXPECT_TRUE(obx_type_system_find_schema(system.get(), md5_hex(text + " ").c_str(), &found));
    EXPECT_EQ(found, 1);
    EXPECT_FALSE(obx_type_system_find_schema(system.get(), md5_hex("x").c_str(), &found));
    EXPECT_EQ(found, 1);
}

TEST(TypeSystemAdd, CountersTextReplacesTheCountersSchema)
{
    SystemPtr system = new_system();
    ASSERT_EQ(obx_type_system_add_schema(system.get(), sample_schema().pretty().c_str(), nullptr), 0);
    uint8_t first_digest[16];
    ASSERT_TRUE(obx_type_system_counters_md5(system.get(), first_digest));

    CountersSchemaDoc doc;
    doc.group("NODE", 1, "g").counter("x").counter("y");
    uint8_t index = 0;
    LogCapture log;
    EXPECT_EQ(obx_type_system_add_schema(system.get(), doc.text().c_str(), &index), 0);
    EXPECT_EQ(index, OBX_COUNTERS_SCHEMA_INDEX);
    EXPECT_EQ(system->num_schemas, 1);
    ASSERT_NE(system->counters_schema, nullptr);
    EXPECT_EQ(system->counters_schema->num_groups, 1u);
    EXPECT_EQ(system->counters_schema->size_of_counters, 16u);
    EXPECT_EQ(log.at(OBX_LOG_INFO), std::vector<std::string>{"Not an event schema"});
    EXPECT_TRUE(log.has("FOUND COUNTERS SCHEMA"));

    // The digest follows the schema now in place, not the one computed before.
    uint8_t digest[16];
    ASSERT_TRUE(obx_type_system_counters_md5(system.get(), digest));
    obx_test::JsonPtr encoded(obx_counters_schema_jsonify(system->counters_schema));
    uint8_t expected[16];
    ASSERT_TRUE(obx_json_md5(expected, encoded.get()));
    EXPECT_EQ(hex_of(digest), hex_of(expected));
    EXPECT_NE(hex_of(digest), hex_of(first_digest));
}

TEST(TypeSystemAdd, RefusedTexts)
{
    const struct {
        const char* label;
        const char* text;
        const char* error;
    } cases[] = {
        {"not JSON", "{\"types\": [", "Failed to read schemas as JSON"},
        {"neither kind", "{\"name\": \"x\"}", "Failed to convert schema from JSON to internal memory representation"},
        {"array", "[]", "Failed to convert schema from JSON to internal memory representation"},
        {"missing", nullptr, "Failed to read schemas as JSON"},
    };
    SystemPtr system = new_system();
    obx_counters_schema_t* counters = system->counters_schema;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        uint8_t index = 7;
        EXPECT_EQ(obx_type_system_add_schema(system.get(), c.text, &index), -1);
        EXPECT_EQ(index, 7);
        EXPECT_TRUE(log.has(c.error)) << log.all();
        EXPECT_EQ(system->num_schemas, 0);
        EXPECT_EQ(system->counters_schema, counters);
    }
}

TEST(TypeSystemAdd, UnresolvableTextKeepsItsPositionWithoutTypes)
{
    SystemPtr system = new_system();
    uint8_t index = 9;
    LogCapture log;
    EXPECT_EQ(obx_type_system_add_schema(system.get(),
                                         unresolvable_schema("bad").pretty().c_str(), &index),
              0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(system->num_schemas, 1);
    EXPECT_EQ(system->schemas[0]->num_types, 0);  // nothing left that could be read unresolved
    EXPECT_TRUE(log.has("Schema bad keeps position 0 without types: its types could not be resolved")) << log.all();
    EXPECT_EQ(obx_type_system_add_schema(system.get(), sample_schema().pretty().c_str(), &index), 0);
    EXPECT_EQ(index, 1);
}

// ---- building by hand -----------------------------------------------------------------

TEST(TypeSystem, NewSchemaRemoveLastAndMoveBetweenSystems)
{
    SystemPtr system = new_system();
    uint8_t index = 9;
    obx_schema_t* empty = obx_type_system_new_schema(system.get(), "hand", 0x20103, &index);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(index, 0);
    EXPECT_STREQ(empty->name, "hand");
    EXPECT_EQ(empty->version, 0x20103u);
    EXPECT_EQ(empty->base_schema, system->built_in_schema);
    EXPECT_STREQ(empty->md5_digest_str, std::string(32, '0').c_str());

    SystemPtr other = new_system();
    ASSERT_EQ(obx_type_system_add_schema(other.get(), sample_schema("a").pretty().c_str(), nullptr), 0);
    ASSERT_EQ(obx_type_system_add_schema(other.get(), sample_schema("b").pretty().c_str(), nullptr), 0);
    obx_schema_t* moved = other->schemas[1];
    EXPECT_EQ(obx_type_system_add_schemas_of(system.get(), other.get(), &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(system->num_schemas, 3);
    EXPECT_EQ(system->schemas[2], moved);
    EXPECT_EQ(other->num_schemas, 0);
    EXPECT_EQ(other->schemas[1], nullptr);
    // Resolved anew: the other system's built-ins go with it.
    EXPECT_EQ(moved->base_schema, system->built_in_schema);
    EXPECT_EQ(moved->types[0]->fields[1]->type, obx_schema_find_type(system->built_in_schema, "uint64_t"));
    other.reset();
    EXPECT_EQ(moved->types[0]->fields[1]->type->size, 8u);

    obx_type_system_remove_last_schema(system.get());
    obx_type_system_remove_last_schema(system.get());
    EXPECT_EQ(system->num_schemas, 1);
    EXPECT_EQ(system->schemas[1], nullptr);
    obx_type_system_remove_last_schema(system.get());
    obx_type_system_remove_last_schema(system.get());
    EXPECT_EQ(system->num_schemas, 0);
}

TEST(TypeSystem, MovingMoreThanFitsMovesNothing)
{
    SystemPtr system = new_system();
    SystemPtr other = new_system();
    for (int i = 0; i < 200; ++i) ASSERT_NE(obx_type_system_new_schema(system.get(), "s", 1, nullptr), nullptr);
    for (int i = 0; i < 56; ++i) ASSERT_NE(obx_type_system_new_schema(other.get(), "o", 1, nullptr), nullptr);
    LogCapture log;
    EXPECT_EQ(obx_type_system_add_schemas_of(system.get(), other.get(), nullptr), -1);
    EXPECT_TRUE(log.has("Cannot add schema to type system"));
    EXPECT_EQ(system->num_schemas, 200);
    EXPECT_EQ(other->num_schemas, 56);
    obx_type_system_remove_last_schema(other.get());
    EXPECT_EQ(obx_type_system_add_schemas_of(system.get(), other.get(), nullptr), 0);
    EXPECT_EQ(system->num_schemas, 255);
}

TEST(TypeSystem, RecalculateMd5MatchesTheFileName)
{
    SchemaFolder folder;
    const obx_test::SchemaId id = folder.add(sample_schema());
    SystemPtr system = new_system();
    ASSERT_NE(obx_type_system_load_schema_file(system.get(), folder.file_of(id).c_str()), nullptr);
    ASSERT_NE(obx_type_system_new_schema(system.get(), "empty", 1, nullptr), nullptr);
    obx_type_system_recalculate_md5(system.get());
    EXPECT_STREQ(system->schemas[0]->md5_digest_str, SchemaFolder::hex(id).c_str());
    EXPECT_STREQ(system->schemas[1]->md5_digest_str, std::string(32, '0').c_str());
    EXPECT_TRUE(obx_type_system_find_schema(system.get(), SchemaFolder::hex(id).c_str(), nullptr));
}

TEST(TypeSystem, RecordSizes)
{
    const struct {
        const char* label;
        uint32_t string_length;  // counters schema: one STRING of this length, 0 for none at all
        uint64_t event_size;
        uint32_t max_event, max_record;
    } cases[] = {
        {"counters larger", 100, 64, 64, 100},
        {"event larger", 16, 200, 200, 200},
        {"no counters schema", 0, 64, 64, 64},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        SystemPtr system = new_system();
        ASSERT_EQ(obx_type_system_add_schema(
                      system.get(), EventSchemaDoc().type("e", {{"bytes", "uint8_t", uint32_t(c.event_size)}})
                                        .type("small", {{"x", "uint8_t"}}).pretty().c_str(),
                      nullptr),
                  0);
        if (c.string_length) {
            CountersSchemaDoc doc;
            doc.group().counter("s", "STRING", c.string_length);
            ASSERT_EQ(obx_type_system_add_schema(system.get(), doc.text().c_str(), nullptr), 0);
        } else {
            obx_counters_schema_destroy(system->counters_schema);
            system->counters_schema = nullptr;
            uint8_t digest[16] = {1};
            EXPECT_FALSE(obx_type_system_counters_md5(system.get(), digest));
            EXPECT_EQ(digest[0], 1);
        }
        EXPECT_EQ(obx_type_system_max_event_size(system.get()), c.max_event);
        EXPECT_EQ(obx_type_system_max_record_size(system.get()), c.max_record);
    }
}

// ---- type system text -----------------------------------------------------------------

TEST(TypeSystemJson, RoundTripKeepsPositionsAndCounters)
{
    SystemPtr system = new_system();
    CountersSchemaDoc counters;
    counters.group("CPU", 2, "g").counter("x");
    ASSERT_EQ(obx_type_system_add_schema(system.get(), counters.text().c_str(), nullptr), 0);
    ASSERT_EQ(obx_type_system_add_schema(system.get(), sample_schema("a").pretty().c_str(), nullptr), 0);
    ASSERT_NE(obx_type_system_new_schema(system.get(), "empty", 1, nullptr), nullptr);  // has no JSON form
    ASSERT_EQ(obx_type_system_add_schema(system.get(), sample_schema("b").pretty().c_str(), nullptr), 0);

    const std::string text = owned_text(obx_type_system_to_json_string(system.get(), 1));
    obx_test::JsonPtr value = obx_test::json_parse(text);
    EXPECT_STREQ(json_string_value(json_object_get(value.get(), "name")), "Ombrix type system");
    EXPECT_STREQ(json_string_value(json_object_get(value.get(), "version")), "1.5.0");
    EXPECT_EQ(json_array_size(json_object_get(value.get(), "schemas")), 2u);
    EXPECT_EQ(owned_text(obx_type_system_to_json_string(system.get(), 0)), obx_test::json_text(value.get()));

    SystemPtr back(obx_type_system_from_json_string(text.c_str()));
    ASSERT_NE(back, nullptr);
    ASSERT_EQ(back->num_schemas, 2);
    EXPECT_STREQ(back->schemas[0]->name, "a");
    EXPECT_STREQ(back->schemas[1]->name, "b");  // moved up: the empty schema was left out
    EXPECT_EQ(back->schemas[1]->base_schema, back->built_in_schema);
    EXPECT_NE(back->schemas[1]->types[0]->fields[0]->type, nullptr);
    // Digest of the element as parsed; its text is not filled on this road.
    uint8_t expected[16];
    ASSERT_TRUE(obx_json_md5(expected, json_array_get(json_object_get(value.get(), "schemas"), 1)));
    EXPECT_EQ(hex_of(back->schemas[1]->md5_digest), hex_of(expected));
    EXPECT_STREQ(back->schemas[1]->md5_digest_str, "");
    ASSERT_NE(back->counters_schema, nullptr);
    EXPECT_EQ(back->counters_schema->groups[0]->num_counter_sets, 2u);
    EXPECT_EQ(owned_text(obx_type_system_to_json_string(back.get(), 1)), text);
}

TEST(TypeSystemJson, WhatTheTextBrings)
{
    const std::string schema = sample_schema().pretty();
    const std::string counters = [] {
        CountersSchemaDoc doc;
        doc.group().counter("x");
        return doc.text();
    }();
    const struct {
        const char* label;
        std::string text;
        int schemas;        // -1: decoding fails
        int counter_groups; // -1: no counters schema
        const char* line;   // a line that must be logged, or nullptr
    } cases[] = {
        {"schemas only", "{\"version\": \"1.5.0\", \"schemas\": [" + schema + "]}", 1, -1, nullptr},
        {"counters only", "{\"version\": \"1.5.0\", \"counters_schema\": " + counters + "}", 0, 1, nullptr},
        {"bare counters schema", counters, 0, 1, nullptr},
        {"empty schemas", "{\"version\": \"1.5.0\", \"schemas\": []}", 0, -1, nullptr},
        {"old version goes on", "{\"version\": \"1.3.9\", \"schemas\": [" + schema + "]}", 1, -1,
         "[ts] Failed to deserialize: schema version 1.3.9 is incompatible with the deserializer, the minimal "
         "supported schema version is 1.4.0"},
        {"newer major passes", "{\"version\": \"2.0.0\", \"schemas\": []}", 0, -1, nullptr},
        {"not an object", "[1]", -1, -1, "[ts] Failed to deserialize: schema is not a JSON object"},
        {"no version", "{\"schemas\": []}", -1, -1, "[ts] Failed to deserialize: missing Ombrix schema version"},
        {"nothing recognised", "{\"version\": \"1.5.0\"}", -1, -1,
         "[schema writer] schema was not recognized neither as type system nor as counters schema"},
        {"bad counters schema", "{\"version\": \"1.5.0\", \"counters_schema\": {}, \"schemas\": []}", -1, -1,
         "[ts] Failed to deserialize: unable to decode counters schema"},
        {"bad bare counters schema", "{\"version\": \"1.5.0\", \"counter_groups\": [1]}", -1, -1,
         "[ts] Failed to deserialize: unable to decode JSON as counters schema"},
        {"bad event schema", "{\"version\": \"1.5.0\", \"schemas\": [{}]}", -1, -1,
         "[ts] Failed to deserialize: unable to decode type schema"},
        {"unresolvable event schema",
         "{\"version\": \"1.5.0\", \"schemas\": [" + unresolvable_schema("bad").pretty() + "]}",
         -1, -1, "[ts] Failed to deserialize: unable to adjust type fields of schema bad"},
        {"not JSON", "{", -1, -1, "Failed parsing schema JSON string"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        SystemPtr system(obx_type_system_from_json_string(c.text.c_str()));
        if (c.line) {
            EXPECT_TRUE(log.has(c.line)) << log.all();
        }
        if (c.schemas < 0) {
            EXPECT_EQ(system, nullptr);
            continue;
        }
        ASSERT_NE(system, nullptr) << log.all();
        EXPECT_EQ(system->num_schemas, c.schemas);
        if (c.counter_groups < 0) {
            EXPECT_EQ(system->counters_schema, nullptr);
        } else {
            ASSERT_NE(system->counters_schema, nullptr);
            EXPECT_EQ(system->counters_schema->num_groups, static_cast<uint32_t>(c.counter_groups));
        }
    }
}

TEST(TypeSystemJson, MoreThan255SchemasAreCutAtTheLimit)
{
    std::string text = "{\"version\": \"1.5.0\", \"schemas\": [";
    const std::string schema = sample_schema().pretty();
    for (int i = 0; i < 257; ++i) text += (i ? "," : "") + schema;
    text += "]}";
    LogCapture log;
    SystemPtr system(obx_type_system_from_json_string(text.c_str()));
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(system->num_schemas, 255);
    EXPECT_TRUE(log.has("[ts] Failed to deserialize: number of schemas 257 exceeds limit 255")) << log.all();
}
