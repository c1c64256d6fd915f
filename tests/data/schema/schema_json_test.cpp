#include "data/schema/schema_json.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "utils/logger.h"
#include "utils/version.h"

namespace {

using namespace obx_test;
using Lines = std::vector<std::string>;
struct SchemaDeleter { void operator()(obx_schema_t* schema) const { obx_schema_destroy(schema); } };
using SchemaPtr = std::unique_ptr<obx_schema_t, SchemaDeleter>;

class SchemaJsonTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(obx_schema_register_built_in_types(built_ins_.get())); }
    SchemaPtr load(const std::string& path) { return SchemaPtr(obx_schema_load_file(path.c_str(), built_ins_.get())); }

    SchemaPtr built_ins_{obx_schema_create("<built-in>", OBX_SCHEMA_JSON_VERSION_WORD)};
    SlashEscaping slashes_{false};  // as obx_read runs
    SchemaFolder folder_;
};

TEST_F(SchemaJsonTest, EncodeDecodeEncodeGivesTheSameTextAndTheFileNameIsItsMd5) {
    EventSchemaDoc doc("net/provider", "2.7.300");
    FieldDoc key("k", "int");
    key.index = 1;
    // "outer" names a type that stands later in the file.
    doc.type("outer", {{"time", "timestamp"}, {"name", "char", 16}, {"pair", "inner", 2}, {"load", "double"}})
        .type("inner", {{"lo", "uint16_t"}, {"hi", "uint16_t"}})
        .type(TypeDoc{"indexed", {key}, std::nullopt});
    const SchemaId id = folder_.add(doc);
    const std::string bytes = read_file_bytes(folder_.file_of(id));
    EXPECT_NE(bytes.find("\"net/provider\""), std::string::npos);  // slashes stand plain
    LogCapture log;
    SchemaPtr schema = load(folder_.file_of(id));
    ASSERT_NE(schema, nullptr) << log.all();
    ASSERT_EQ(schema->num_types, 3);
    EXPECT_EQ(std::string(schema->md5_digest_str), SchemaFolder::hex(id));
    EXPECT_EQ(0, std::memcmp(schema->md5_digest, id.data(), 16));
    EXPECT_EQ(schema->types[0]->fields[2]->type, schema->types[1]);
    JsonPtr again(obx_schema_to_json(schema.get()));  // name, version, sizes, offsets and indexes all come back
    EXPECT_EQ(schema_pretty_text(again.get()), bytes);
    // The id hashes the printed text: escaping slashes gives another id.
    SlashEscaping on(true);
    uint8_t escaped[16];
    ASSERT_TRUE(obx_schema_fill_md5(schema.get(), escaped));
    EXPECT_NE(0, std::memcmp(escaped, id.data(), 16));
}

TEST_F(SchemaJsonTest, VersionGateAndValuesThatAreNoEventSchema) {
    const struct { const char* version; bool accepted; } versions[] = {
        {"1.5.0", true}, {"1.4.2", true}, {"1.5.9", true}, {"1.0.0", true}, {"1.5", true},     {"1.6.0", false},
        {"2.0.0", false}, {"0.5.0", false}, {"1", false},  {"", false},     {"v1.5.0", false}, {"1.255.0", false},
    };
    for (const auto& [version, accepted] : versions) {
        LogCapture log;
        JsonPtr doc = EventSchemaDoc().obx_version(version).type("t", {{"v", "int"}}).json();
        EXPECT_EQ(SchemaPtr(obx_schema_from_json(doc.get())) != nullptr, accepted) << version;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), accepted ? Lines{} : Lines{std::string("Schema version ") + version +
                                                                    " is incompatible with current version 1.5.0"});
    }
    LogCapture log;  // no "obx_version": a value that is no event schema is a normal outcome
    EXPECT_EQ(obx_schema_from_json(json_parse("{\"provider_name\": \"p\", \"types\": []}").get()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_INFO), Lines{"Not an event schema"});
}

// array_length and index are 32-bit values kept in 16 bits; 0 or absent length is 1.
TEST_F(SchemaJsonTest, FieldDecodingOfNumbersAndCountingModesAndItsWayBack) {
    const struct { const char* patch; uint16_t array_length, index; int mode; int length_written; } cases[] = {
        {"{}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE, 0},
        {"{\"array_length\": 0}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE, 0},
        {"{\"array_length\": 4, \"index\": 7}", 4, 7, OBX_COUNTING_MODE_ABSOLUTE, 4},
        {"{\"array_length\": 65537, \"index\": 65538}", 1, 2, OBX_COUNTING_MODE_ABSOLUTE, 0},
        {"{\"array_length\": -1}", 65535, 0, OBX_COUNTING_MODE_ABSOLUTE, 65535},
        {"{\"array_length\": \"4\"}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE, 0},
        {"{\"index\": \"3\"}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE, 0},  // fails the first template, passes the second
        {"{\"counting_mode\": \"RUNNING_SUM\"}", 1, 0, OBX_COUNTING_MODE_RUNNING_SUM, 0},
        {"{\"counting_mode\": \"ABSOLUTE_MONOTONIC\"}", 1, 0, OBX_COUNTING_MODE_RUNNING_SUM, 0},
        {"{\"counting_mode\": \"absolute\"}", 1, 0, OBX_COUNTING_MODE_UNKNOWN, -2},  // -2: no JSON form
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.patch);
        LogCapture log;
        JsonPtr value = json_parse("{\"field_name\": \"f\", \"description\": \"d\", \"type_name\": \"int\", "
                                   "\"counting_mode\": \"ABSOLUTE\", \"offset\": 0, \"type_size\": 4}");
        json_object_update(value.get(), json_parse(c.patch).get());  // the patch's keys replace those
        obx_type_field_definition_t* field = obx_field_from_json(value.get());
        ASSERT_NE(field, nullptr) << log.all();
        EXPECT_EQ(field->array_length, c.array_length);
        EXPECT_EQ(field->index, c.index);
        EXPECT_EQ(field->counting_mode, c.mode);
        EXPECT_TRUE(log.lines().empty()) << log.all();  // a counting mode is never a reason to refuse
        JsonPtr encoded(obx_field_to_json(field));
        obx_type_field_definition_destroy(field);
        ASSERT_EQ(encoded == nullptr, c.length_written == -2);
        if (encoded) {
            EXPECT_EQ(obx_json_object_get_number(encoded.get(), "array_length"), c.length_written);
            EXPECT_EQ(obx_json_object_get_number(encoded.get(), "index"), c.index);
            EXPECT_STREQ(obx_json_object_get_string(encoded.get(), "counting_mode"),
                         c.mode == OBX_COUNTING_MODE_ABSOLUTE ? "ABSOLUTE" : "RUNNING_SUM");
        }
    }
}

TEST_F(SchemaJsonTest, TemplateMismatchesOfFieldsTypesAndSchemas) {
    const std::string field = "Field definition JSON does not match schema with or without 'index'.";
    const std::string type = "Type definition JSON does not match schema '{\"name\" : \"\", \"size\" : 0, \"fields\" : []}'";
    const struct { std::string text; Lines errors; } cases[] = {
        {"{\"name\": \"t\", \"size\": 0, \"fields\": []}", {}},  // size 0 fails without a line of its own
        {"{\"name\": \"t\", \"fields\": []}", {type}},
        {"{\"name\": \"t\", \"size\": \"4\", \"fields\": []}", {type}},
        {"{\"name\": \"t\", \"size\": 4, \"fields\": [3]}", {field}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(obx_type_from_json(json_parse(c.text).get()), nullptr) << c.text;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), c.errors) << c.text;
    }
    // A type failing inside a schema reports its position.
    JsonPtr doc = EventSchemaDoc().type("ok", {{"v", "int"}}).type(TypeDoc{"zero", {FieldDoc("v", "int")}, 0}).json();
    LogCapture log;
    EXPECT_EQ(obx_schema_from_json(doc.get()), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Lines{"Failed to deserialize type #1 from JSON array"});
    // The types array has a fixed size: a longer file is refused before anything is built.
    EventSchemaDoc many("many");
    for (int i = 0; i <= OBX_MAX_TYPES; ++i) many.type("t" + std::to_string(i), {{"v", "uint8_t"}});
    EXPECT_EQ(obx_schema_from_json(many.json().get()), nullptr);
    EXPECT_TRUE(log.has("Schema 'many' has 255 types, more than the limit of 254")) << log.all();
}

TEST_F(SchemaJsonTest, SchemaEncodingPrintsTheProviderVersionAndReadingKeepsThePositions) {
    SchemaPtr schema(obx_schema_create("p", obx_version_make(255, 0, 65535)));
    schema->base_schema = built_ins_.get();
    obx_type_field_info_t info = {"f", "", "int", 0, 1};
    ASSERT_EQ(obx_schema_add_type(schema.get(), "t", &info, 1, nullptr), OBX_SCHEMA_OK);
    JsonPtr value(obx_schema_to_json(schema.get()));
    EXPECT_EQ(json_text(value.get()),
              "{\"title\":\"Ombrix schema\",\"obx_version\":\"1.5.0\",\"provider_name\":\"p\","
              "\"provider_version\":\"255.0.65535\",\"types\":[{\"name\":\"t\",\"size\":4,\"fields\":["
              "{\"field_name\":\"f\",\"description\":\"\",\"type_name\":\"int\",\"counting_mode\":\"ABSOLUTE\","
              "\"offset\":0,\"type_size\":4,\"index\":0}],\"type_index\":0}]}");
    // Reading, the position wins over a stated "type_index".
    JsonPtr doc = EventSchemaDoc().type("a", {{"v", "int"}}).type("b", {{"v", "int"}}).json();
    obx_json_object_set_number(json_array_get(json_object_get(doc.get(), "types"), 0), "type_index", 1);
    SchemaPtr read(obx_schema_from_json(doc.get()));
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(read->types[0]->name, "a");
}

TEST_F(SchemaJsonTest, LoadFileFailuresNameTheirCause) {
    FieldDoc unknown("v", "nosuch"), far("v", "int"), small("v", "uint64_t"), self("me", "loop");
    unknown.type_size = small.type_size = 4;
    far.offset = 6;
    self.type_size = 8;
    const std::string missing = folder_.path() + "/schema_missing.json";
    auto file_of = [&](TypeDoc type) { return folder_.file_of(folder_.add(EventSchemaDoc("p").type(type))); };
    const struct { std::string path, error; } cases[] = {  // no error given: the layout is refused
        {missing, "Failed reading schema JSON from file '" + missing + "'"},
        {file_of({"t", {unknown}, 4}), "Definition of type nosuch not found within the schema p"},
        {file_of({"t", {far}, 8}), ""}, {file_of({"t", {small}, 8}), ""}, {file_of({"loop", {self}, 8}), ""},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(load(c.path), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_ERROR).empty() ? "" : log.at(OBX_LOG_ERROR).back(),
                  c.error.empty() ? "Refusing schema file '" + c.path + "': its type layout is inconsistent" : c.error);
    }
    // A schema without types loads; it has no JSON form, so its digest stays zero.
    SchemaPtr loaded = load(folder_.file_of(folder_.add(EventSchemaDoc("p"))));
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(obx_md5_is_zero(loaded->md5_digest));
    EXPECT_EQ(std::string(loaded->md5_digest_str), std::string(32, '0'));
}

TEST(SchemaIds, HexTextAndBackAndMd5OfBytes) {
    uint8_t md5[16];
    char text[33];
    ASSERT_TRUE(obx_md5_compute("abc", 3, md5));
    obx_md5_to_hex_into(md5, text);
    EXPECT_STREQ(text, "900150983cd24fb0d6963f7d28e17f72");
    const struct { const char* text; bool ok; int bytes_written; } cases[] = {  // bytes equal to those of "abc"
        {"900150983CD24FB0D6963F7D28E17F72trailing", true, 16}, {"900150zz3cd24fb0d6963f7d28e17f72", false, 3},
        {"9001", false, 2}, {nullptr, true, 0},
    };
    for (const auto& c : cases) {
        uint8_t out[16];
        std::memset(out, 0xEE, sizeof out);
        EXPECT_EQ(obx_hex_to_md5(c.text, out), c.ok);
        EXPECT_EQ(0, std::memcmp(out, md5, c.bytes_written));
        EXPECT_EQ(c.bytes_written < 16 ? out[c.bytes_written] : 0xEE, 0xEE) << (c.text ? c.text : "<null>");
    }
}

}  // namespace
