#include "data/schema/schema_json.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "utils/logger.h"
#include "utils/version.h"

namespace {

using obx_test::EventSchemaDoc;
using obx_test::FieldDoc;
using obx_test::JsonPtr;
using obx_test::LogCapture;
using obx_test::SchemaFolder;
using obx_test::SchemaId;
using obx_test::TypeDoc;

struct SchemaDeleter {
    void operator()(obx_schema_t* schema) const { obx_schema_destroy(schema); }
};
using SchemaPtr = std::unique_ptr<obx_schema_t, SchemaDeleter>;

struct FieldDeleter {
    void operator()(obx_type_field_definition_t* field) const { obx_type_field_definition_destroy(field); }
};
using FieldPtr = std::unique_ptr<obx_type_field_definition_t, FieldDeleter>;

class SchemaJsonTest : public ::testing::Test {
protected:
    void SetUp() override {
        built_ins_ = obx_schema_create("<built-in>", OBX_SCHEMA_JSON_VERSION_WORD);
        ASSERT_TRUE(obx_schema_register_built_in_types(built_ins_));
    }
    void TearDown() override { obx_schema_destroy(built_ins_); }

    obx_schema_t* built_ins_ = nullptr;
    obx_test::SlashEscaping slashes_{false};  // as obx_read runs
};

// A field object with every needed key; `patch` is merged over it.
JsonPtr field_json(const std::string& patch = "{}") {
    JsonPtr field = obx_test::json_parse(
        "{\"field_name\": \"f\", \"description\": \"d\", \"type_name\": \"uint32_t\", \"counting_mode\": \"ABSOLUTE\","
        " \"offset\": 0, \"type_size\": 4}");
    JsonPtr extra = obx_test::json_parse(patch);
    const char* key;
    json_t* value;
    json_object_foreach(extra.get(), key, value) json_object_set(field.get(), key, value);
    return field;
}

std::string text_of(const SchemaId& id) { return SchemaFolder::hex(id); }

TEST_F(SchemaJsonTest, EncodeDecodeEncodeGivesTheSameTextAndTheFileNameIsItsMd5) {
    SchemaFolder folder;
    EventSchemaDoc doc("net/provider", "2.7.300");
    doc.type("inner", {{"lo", "uint16_t"}, {"hi", "uint16_t"}})
        .type("event", {{"time", "timestamp"}, {"name", "char", 16}, {"pair", "inner", 2}, {"load", "double"}});
    FieldDoc key("k", "int");
    key.index = 1;
    key.counting_mode = "RUNNING_SUM";
    doc.type(TypeDoc{"indexed", {key}, std::nullopt});
    const SchemaId id = folder.add(doc);

    const std::string bytes = obx_test::read_file_bytes(folder.file_of(id));
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(SchemaFolder::md5_of(bytes), id);
    EXPECT_NE(bytes.back(), '\n');
    EXPECT_NE(bytes.find("\"net/provider\""), std::string::npos);  // slashes stand plain

    LogCapture log;
    SchemaPtr schema(obx_schema_load_file(folder.file_of(id).c_str(), built_ins_));
    ASSERT_NE(schema, nullptr) << log.all();
    EXPECT_STREQ(schema->name, "net/provider");
    EXPECT_EQ(schema->version, obx_version_make(2, 7, 300));
    EXPECT_EQ(schema->base_schema, built_ins_);
    ASSERT_EQ(schema->num_types, 3);
    EXPECT_EQ(std::string(schema->md5_digest_str), text_of(id));
    EXPECT_EQ(0, std::memcmp(schema->md5_digest, id.data(), 16));

    const obx_type_definition_t* event = schema->types[1];
    EXPECT_EQ(event->size, 8u + 16u + 8u + 8u);
    EXPECT_EQ(event->fields[2]->type, schema->types[0]);
    EXPECT_EQ(event->fields[2]->offset, 24u);
    EXPECT_EQ(event->fields[1]->type, obx_schema_find_type(built_ins_, "char"));
    EXPECT_EQ(schema->types[2]->fields[0]->index, 1);
    EXPECT_EQ(schema->types[2]->fields[0]->counting_mode, OBX_COUNTING_MODE_RUNNING_SUM);

    JsonPtr again(obx_schema_to_json(schema.get()));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(obx_test::schema_pretty_text(again.get()), bytes);
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
}

// The id hashes the printed text: escaping slashes would give another id.
TEST_F(SchemaJsonTest, TheDigestDependsOnSlashEscaping) {
    SchemaFolder folder;
    const SchemaId id = folder.add(EventSchemaDoc("a/b").type("t", {{"v", "int"}}));
    SchemaPtr schema(obx_schema_load_file(folder.file_of(id).c_str(), built_ins_));
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(std::string(schema->md5_digest_str), text_of(id));

    obx_test::SlashEscaping on(true);
    uint8_t escaped[16];
    ASSERT_TRUE(obx_schema_fill_md5(schema.get(), escaped));
    EXPECT_NE(0, std::memcmp(escaped, id.data(), 16));
}

TEST_F(SchemaJsonTest, VersionGateOnObxVersion) {
    struct Case {
        const char* version;
        bool accepted;
    };
    const Case cases[] = {
        {"1.5.0", true},  {"1.4.2", true},  {"1.5.9", true},   {"1.0.0", true},  {"1.5", true},
        {"1.6.0", false}, {"2.0.0", false}, {"0.5.0", false},  {"1", false},     {"", false},
        {"abc", false},   {"1.255.0", false}, {"v1.5.0", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.version);
        LogCapture log;
        JsonPtr doc = EventSchemaDoc().obx_version(c.version).type("t", {{"v", "int"}}).json();
        SchemaPtr schema(obx_schema_from_json(doc.get()));
        EXPECT_EQ(schema != nullptr, c.accepted);
        if (!c.accepted) {
            EXPECT_TRUE(log.has(std::string("Schema version ") + c.version +
                                " is incompatible with current version 1.5.0"))
                << log.all();
        }
    }
}

TEST_F(SchemaJsonTest, ValueThatIsNoEventSchemaIsAnInfoLineOnly) {
    const char* texts[] = {
        "{\"provider_name\": \"p\", \"provider_version\": \"1.0.0\", \"types\": []}",  // no obx_version
        "{\"obx_version\": \"1.5.0\", \"provider_name\": \"p\", \"provider_version\": \"1.0.0\", \"types\": {}}",
        "{\"obx_version\": 1.5, \"provider_name\": \"p\", \"provider_version\": \"1.0.0\", \"types\": []}",
        "{\"version\": \"1.5.0\", \"counter_groups\": []}",
        "[]",
        "\"text\"",
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        JsonPtr value = obx_test::json_parse(text);
        LogCapture log;
        EXPECT_EQ(obx_schema_from_json(value.get()), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_INFO), std::vector<std::string>{"Not an event schema"});
        EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
    }
    LogCapture log;
    EXPECT_EQ(obx_schema_from_json(nullptr), nullptr);
}

TEST_F(SchemaJsonTest, CountingModeWords) {
    struct Case {
        const char* text;
        int mode;
        const char* written;  // nullptr: the field has no JSON form
    };
    const Case cases[] = {
        {"ABSOLUTE", OBX_COUNTING_MODE_ABSOLUTE, "ABSOLUTE"},
        {"RUNNING_SUM", OBX_COUNTING_MODE_RUNNING_SUM, "RUNNING_SUM"},
        {"ABSOLUTE_MONOTONIC", OBX_COUNTING_MODE_RUNNING_SUM, "RUNNING_SUM"},
        {"absolute", OBX_COUNTING_MODE_UNKNOWN, nullptr},
        {"", OBX_COUNTING_MODE_UNKNOWN, nullptr},
        {"MONOTONIC", OBX_COUNTING_MODE_UNKNOWN, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture log;
        FieldPtr field(obx_field_from_json(field_json(std::string("{\"counting_mode\": \"") + c.text + "\"}").get()));
        ASSERT_NE(field, nullptr);  // never a reason to refuse a file
        EXPECT_EQ(field->counting_mode, c.mode);
        EXPECT_TRUE(log.lines().empty()) << log.all();
        JsonPtr encoded(obx_field_to_json(field.get()));
        if (c.written) {
            ASSERT_NE(encoded, nullptr);
            EXPECT_STREQ(obx_json_object_get_string(encoded.get(), "counting_mode"), c.written);
        } else {
            EXPECT_EQ(encoded, nullptr);
        }
    }
}

// array_length and index are 32-bit values kept in 16 bits; 0 or absent length is 1.
TEST_F(SchemaJsonTest, ArrayLengthAndIndexNumbers) {
    struct Case {
        const char* patch;
        uint16_t array_length;
        uint16_t index;
        bool length_written;
    };
    const Case cases[] = {
        {"{}", 1, 0, false},
        {"{\"array_length\": 0}", 1, 0, false},
        {"{\"array_length\": 1}", 1, 0, false},
        {"{\"array_length\": 4, \"index\": 7}", 4, 7, true},
        {"{\"array_length\": 2.9}", 2, 0, true},
        {"{\"array_length\": 65536}", 1, 0, false},
        {"{\"array_length\": 65537, \"index\": 65538}", 1, 2, false},
        {"{\"array_length\": -1}", 65535, 0, true},
        {"{\"array_length\": 1e12, \"index\": -1e300}", 1, 0, false},
        {"{\"array_length\": \"4\"}", 1, 0, false},
        // A wrong kind of "index" fails the first template and passes the second one.
        {"{\"index\": \"3\"}", 1, 0, false},
        {"{\"index\": null}", 1, 0, false},
        {"{\"index\": [1]}", 1, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.patch);
        LogCapture log;
        FieldPtr field(obx_field_from_json(field_json(c.patch).get()));
        ASSERT_NE(field, nullptr) << log.all();
        EXPECT_EQ(field->array_length, c.array_length);
        EXPECT_EQ(field->index, c.index);
        JsonPtr encoded(obx_field_to_json(field.get()));
        ASSERT_NE(encoded, nullptr);
        EXPECT_EQ(json_object_get(encoded.get(), "array_length") != nullptr, c.length_written);
        EXPECT_EQ(obx_json_object_get_number(encoded.get(), "index"), c.index);
        EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
    }
}

TEST_F(SchemaJsonTest, FieldDecodingCopiesTextsAndNumbers) {
    FieldPtr field(obx_field_from_json(
        field_json("{\"field_name\": \"name\", \"description\": \"what\", \"type_name\": \"rec\", \"offset\": 12,"
                   " \"type_size\": 9007199254740992, \"extra\": true}")
            .get()));
    ASSERT_NE(field, nullptr);
    EXPECT_STREQ(field->field_name, "name");
    EXPECT_STREQ(field->description, "what");
    EXPECT_STREQ(field->type_name, "rec");
    EXPECT_EQ(field->offset, 12u);
    EXPECT_EQ(field->type_size, 9007199254740992u);
    EXPECT_EQ(field->type, nullptr);  // resolved later

    // Negative numbers wrap as a cast would; the layout check refuses them later.
    FieldPtr negative(obx_field_from_json(field_json("{\"offset\": -1, \"type_size\": 1e30}").get()));
    ASSERT_NE(negative, nullptr);
    EXPECT_EQ(negative->offset, UINT64_MAX);
    EXPECT_EQ(negative->type_size, UINT64_MAX);
}

TEST_F(SchemaJsonTest, FieldTemplateMismatches) {
    const char* patches_removing[] = {"field_name", "description", "type_name", "counting_mode", "offset", "type_size"};
    for (const char* key : patches_removing) {
        SCOPED_TRACE(key);
        JsonPtr value = field_json();
        json_object_del(value.get(), key);
        LogCapture log;
        EXPECT_EQ(obx_field_from_json(value.get()), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_ERROR),
                  std::vector<std::string>{"Field definition JSON does not match schema with or without 'index'."});
    }
    const char* wrong_kinds[] = {"{\"offset\": \"0\"}", "{\"type_size\": null}", "{\"field_name\": 3}",
                                 "{\"counting_mode\": 1}"};
    for (const char* patch : wrong_kinds) {
        SCOPED_TRACE(patch);
        LogCapture log;
        EXPECT_EQ(obx_field_from_json(field_json(patch).get()), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_ERROR).size(), 1u);
    }
    LogCapture log;
    EXPECT_EQ(obx_field_from_json(nullptr), nullptr);
}

TEST_F(SchemaJsonTest, TypeDecodingRefusals) {
    struct Case {
        const char* text;
        std::string message;  // empty: no line of its own
    };
    const std::string mismatch =
        "Type definition JSON does not match schema '{\"name\" : \"\", \"size\" : 0, \"fields\" : []}'";
    const std::vector<Case> cases = {
        {"{\"name\": \"t\", \"size\": 0, \"fields\": []}", ""},
        {"{\"name\": \"t\", \"size\": 0.5, \"fields\": []}", ""},
        {"{\"name\": \"t\", \"fields\": []}", mismatch},
        {"{\"name\": \"t\", \"size\": 4}", mismatch},
        {"{\"size\": 4, \"fields\": []}", mismatch},
        {"{\"name\": \"t\", \"size\": \"4\", \"fields\": []}", mismatch},
        {"{\"name\": \"t\", \"size\": 4, \"fields\": [{\"field_name\": \"f\"}]}",
         "Field definition JSON does not match schema with or without 'index'."},
        {"{\"name\": \"t\", \"size\": 4, \"fields\": [3]}",
         "Field definition JSON does not match schema with or without 'index'."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        JsonPtr value = obx_test::json_parse(c.text);
        LogCapture log;
        EXPECT_EQ(obx_type_from_json(value.get()), nullptr);
        if (c.message.empty()) {
            EXPECT_TRUE(log.lines().empty()) << log.all();
        } else {
            EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{c.message});
        }
    }
}

TEST_F(SchemaJsonTest, TypeWithoutFieldsDecodesAndEncodes) {
    JsonPtr value = obx_test::json_parse("{\"name\": \"empty\", \"size\": 3, \"fields\": [], \"type_index\": 9}");
    obx_type_definition_t* type = obx_type_from_json(value.get());
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->num_fields, 0u);
    EXPECT_EQ(type->size, 3u);
    EXPECT_EQ(type->id, 0u);
    JsonPtr encoded(obx_type_to_json(type));
    EXPECT_EQ(obx_test::json_text(encoded.get()), "{\"name\":\"empty\",\"size\":3,\"fields\":[]}");
    obx_type_definition_destroy(type);
}

TEST_F(SchemaJsonTest, ABadTypeFailsTheWholeSchemaNamingItsPosition) {
    {
        JsonPtr doc = EventSchemaDoc().type("ok", {{"v", "int"}}).type(TypeDoc{"zero", {FieldDoc("v", "int")}, 0}).json();
        LogCapture log;
        EXPECT_EQ(obx_schema_from_json(doc.get()), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed to deserialize type #1 from JSON array"});
    }
    // A field failing inside the type reports the field, then the type's position.
    JsonPtr doc = EventSchemaDoc().type("ok", {{"v", "int"}}).json();
    json_object_del(json_array_get(json_object_get(json_array_get(json_object_get(doc.get(), "types"), 0), "fields"), 0),
                    "description");
    LogCapture log;
    EXPECT_EQ(obx_schema_from_json(doc.get()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              (std::vector<std::string>{"Field definition JSON does not match schema with or without 'index'.",
                                        "Failed to deserialize type #0 from JSON array"}));
}

// The types array has a fixed size: a longer file is refused before anything is built.
TEST_F(SchemaJsonTest, MoreTypesThanTheArrayHoldsAreRefused) {
    for (int count : {OBX_MAX_TYPES, OBX_MAX_TYPES + 1, 300}) {
        SCOPED_TRACE(count);
        EventSchemaDoc doc("many");
        for (int i = 0; i < count; ++i) doc.type("t" + std::to_string(i), {{"v", "uint8_t"}});
        JsonPtr value = doc.json();
        LogCapture log;
        SchemaPtr schema(obx_schema_from_json(value.get()));
        if (count <= OBX_MAX_TYPES) {
            ASSERT_NE(schema, nullptr);
            EXPECT_EQ(schema->num_types, OBX_MAX_TYPES);
        } else {
            EXPECT_EQ(schema, nullptr);
            EXPECT_TRUE(log.has("Schema 'many' has " + std::to_string(count) + " types, more than the limit of 254"))
                << log.all();
        }
    }
}

TEST_F(SchemaJsonTest, PositionWinsOverTheStatedTypeIndex) {
    JsonPtr doc = EventSchemaDoc().type("a", {{"v", "int"}}).type("b", {{"v", "int"}}).json();
    json_t* types = json_object_get(doc.get(), "types");
    obx_json_object_set_number(json_array_get(types, 0), "type_index", 1);
    obx_json_object_set_number(json_array_get(types, 1), "type_index", 0);
    SchemaPtr schema(obx_schema_from_json(doc.get()));
    ASSERT_NE(schema, nullptr);
    ASSERT_EQ(schema->num_types, 2);
    EXPECT_STREQ(schema->types[0]->name, "a");
    EXPECT_STREQ(schema->types[1]->name, "b");
    JsonPtr encoded(obx_schema_to_json(schema.get()));
    EXPECT_EQ(obx_json_object_get_number(json_array_get(json_object_get(encoded.get(), "types"), 0), "type_index"), 0);
}

TEST_F(SchemaJsonTest, SchemaWithoutTypesHasNoJsonAndAZeroDigest) {
    SchemaPtr schema(obx_schema_create("p", 1));
    EXPECT_EQ(obx_schema_to_json(schema.get()), nullptr);
    uint8_t digest[16];
    std::memset(digest, 0xAB, sizeof digest);
    EXPECT_FALSE(obx_schema_fill_md5(schema.get(), digest));
    for (uint8_t b : digest) EXPECT_EQ(b, 0xAB);

    SchemaFolder folder;
    const SchemaId id = folder.add(EventSchemaDoc("p"));
    SchemaPtr loaded(obx_schema_load_file(folder.file_of(id).c_str(), built_ins_));
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->num_types, 0);
    EXPECT_TRUE(obx_md5_is_zero(loaded->md5_digest));
    EXPECT_EQ(std::string(loaded->md5_digest_str), std::string(32, '0'));
}

TEST_F(SchemaJsonTest, EncodingFailsOnMissingTexts) {
    SchemaPtr unnamed(obx_schema_create(nullptr, 0));
    unnamed->base_schema = built_ins_;
    obx_type_field_info_t info = {"f", nullptr, "int", 0, 1};
    ASSERT_EQ(obx_schema_add_type(unnamed.get(), "t", &info, 1, nullptr), OBX_SCHEMA_OK);
    EXPECT_EQ(obx_schema_to_json(unnamed.get()), nullptr);  // no provider name
    EXPECT_EQ(obx_type_to_json(unnamed->types[0]), nullptr);  // no description
    unnamed->types[0]->fields[0]->description = strdup("");
    EXPECT_EQ(obx_schema_to_json(unnamed.get()), nullptr);
    JsonPtr type(obx_type_to_json(unnamed->types[0]));
    EXPECT_NE(type, nullptr);
    EXPECT_EQ(obx_field_to_json(nullptr), nullptr);
    EXPECT_EQ(obx_type_to_json(nullptr), nullptr);
    EXPECT_EQ(obx_schema_to_json(nullptr), nullptr);
}

TEST_F(SchemaJsonTest, ProviderVersionIsPrintedFromItsThreeParts) {
    SchemaPtr schema(obx_schema_create("p", obx_version_make(255, 0, 65535)));
    schema->base_schema = built_ins_;
    obx_type_field_info_t info = {"f", "", "int", 0, 1};
    ASSERT_EQ(obx_schema_add_type(schema.get(), "t", &info, 1, nullptr), OBX_SCHEMA_OK);
    JsonPtr value(obx_schema_to_json(schema.get()));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(obx_test::json_text(value.get()),
              "{\"title\":\"Ombrix schema\",\"obx_version\":\"1.5.0\",\"provider_name\":\"p\","
              "\"provider_version\":\"255.0.65535\",\"types\":[{\"name\":\"t\",\"size\":4,\"fields\":["
              "{\"field_name\":\"f\",\"description\":\"\",\"type_name\":\"int\",\"counting_mode\":\"ABSOLUTE\","
              "\"offset\":0,\"type_size\":4,\"index\":0}],\"type_index\":0}]}");
}

TEST_F(SchemaJsonTest, LoadFileFailuresLeaveNothingBehind) {
    SchemaFolder folder;
    struct Case {
        const char* label;
        std::string path;
        std::string message;  // the last error line
    };
    const std::string missing = folder.path() + "/schema_missing.json";
    const SchemaId not_json = folder.add_text("{\"obx_version\": ");
    FieldDoc unknown_field("v", "nosuch");
    unknown_field.type_size = 4;
    const SchemaId unknown = folder.add(EventSchemaDoc("p").type("t", {unknown_field}));
    FieldDoc far("v", "int");
    far.offset = 6;
    const SchemaId outside = folder.add(EventSchemaDoc("p").type(TypeDoc{"t", {far}, 8}));
    FieldDoc small("v", "uint64_t");
    small.type_size = 4;
    const SchemaId short_element = folder.add(EventSchemaDoc("p").type("t", {small}));
    TypeDoc self{"loop", {FieldDoc("me", "loop")}, 8};
    self.fields[0].type_size = 8;
    const SchemaId cycle = folder.add(EventSchemaDoc("p").type(self));
    const std::vector<Case> cases = {
        {"missing file", missing, "Failed reading schema JSON from file '" + missing + "'"},
        {"not JSON", folder.file_of(not_json),
         "Failed reading schema JSON from file '" + folder.file_of(not_json) + "'"},
        {"folder", folder.path(), "Failed reading schema JSON from file '" + folder.path() + "'"},
        {"unknown field type", folder.file_of(unknown), "Definition of type nosuch not found within the schema p"},
        {"field past the record", folder.file_of(outside),
         "Refusing schema file '" + folder.file_of(outside) + "': its type layout is inconsistent"},
        {"element smaller than its type", folder.file_of(short_element),
         "Refusing schema file '" + folder.file_of(short_element) + "': its type layout is inconsistent"},
        {"type containing itself", folder.file_of(cycle),
         "Refusing schema file '" + folder.file_of(cycle) + "': its type layout is inconsistent"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        EXPECT_EQ(obx_schema_load_file(c.path.c_str(), built_ins_), nullptr);
        const std::vector<std::string> errors = log.at(OBX_LOG_ERROR);
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ(errors.back(), c.message) << log.all();
    }
    LogCapture log;
    EXPECT_EQ(obx_schema_load_file(nullptr, built_ins_), nullptr);
}

TEST_F(SchemaJsonTest, ATypeMayNameOneThatStandsLaterInTheFile) {
    SchemaFolder folder;
    EventSchemaDoc doc("p");
    doc.type("outer", {{"in", "inner"}, {"n", "uint8_t"}}).type("inner", {{"a", "uint32_t"}, {"b", "uint32_t"}});
    const SchemaId id = folder.add(doc);
    SchemaPtr schema(obx_schema_load_file(folder.file_of(id).c_str(), built_ins_));
    ASSERT_NE(schema, nullptr);
    ASSERT_EQ(schema->num_types, 2);
    EXPECT_EQ(schema->types[0]->fields[0]->type, schema->types[1]);
    EXPECT_EQ(schema->types[0]->size, 9u);
}

TEST(SchemaIds, HexTextAndBack) {
    const uint8_t digest[16] = {0x00, 0x01, 0x0a, 0xff, 0x10, 0x9b, 0xc3, 0x7e,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80};
    char text[33];
    std::memset(text, 'x', sizeof text);
    obx_md5_to_hex_into(digest, text);
    EXPECT_STREQ(text, "00010aff109bc37e0000000000000080");
    char* copy = obx_md5_to_hex(digest);
    EXPECT_STREQ(copy, text);
    std::free(copy);

    struct Case {
        const char* text;
        bool ok;
        int bytes_written;  // leading bytes equal to `digest`
    };
    const Case cases[] = {
        {"00010aff109bc37e0000000000000080", true, 16},
        {"00010AFF109BC37E0000000000000080", true, 16},
        {"00010aff109bc37e0000000000000080trailing", true, 16},
        {"00010azz109bc37e0000000000000080", false, 3},
        {"00010a", false, 3},
        {"", false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t out[16];
        std::memset(out, 0xEE, sizeof out);
        EXPECT_EQ(obx_hex_to_md5(c.text, out), c.ok);
        EXPECT_EQ(0, std::memcmp(out, digest, c.bytes_written));
        if (c.bytes_written < 16) {
            EXPECT_EQ(out[c.bytes_written], 0xEE);
        }
    }
    uint8_t untouched[16];
    std::memset(untouched, 0xEE, sizeof untouched);
    EXPECT_TRUE(obx_hex_to_md5(nullptr, untouched));
    EXPECT_EQ(untouched[0], 0xEE);
}

TEST(SchemaIds, ZeroDigestAndMd5OfBytes) {
    uint8_t digest[16] = {};
    EXPECT_TRUE(obx_md5_is_zero(digest));
    digest[15] = 1;
    EXPECT_FALSE(obx_md5_is_zero(digest));
    ASSERT_TRUE(obx_md5_compute("", 0, digest));
    char text[33];
    obx_md5_to_hex_into(digest, text);
    EXPECT_STREQ(text, "d41d8cd98f00b204e9800998ecf8427e");
    ASSERT_TRUE(obx_md5_compute("abc", 3, digest));
    obx_md5_to_hex_into(digest, text);
    EXPECT_STREQ(text, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(obx_md5_compute(nullptr, 3, digest));
}

}  // namespace
