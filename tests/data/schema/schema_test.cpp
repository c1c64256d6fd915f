#include "data/schema/schema.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "data/schema/event_json.h"
#include "data/schema/schema_json.h"
#include "data/schema/type_system.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "utils/logger.h"

namespace {

using namespace obx_test;
using Lines = std::vector<std::string>;
using Infos = std::vector<obx_type_field_info_t>;
struct SchemaDeleter { void operator()(obx_schema_t* schema) const { obx_schema_destroy(schema); } };
using SchemaPtr = std::unique_ptr<obx_schema_t, SchemaDeleter>;
const std::string kField = "{\"field_name\": \"v\", \"description\": \"\", \"type_name\": \"int\", \"counting_mode\": \"ABSOLUTE\", \"offset\": 0, \"type_size\": 4}";

// A schema on top of the built-ins, as a type system holds it, and a folder of schema files.
class SchemaTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(obx_schema_register_built_in_types(built_ins_));
        schema_->base_schema = built_ins_;
    }
    void TearDown() override { obx_schema_destroy(schema_); obx_schema_destroy(built_ins_); }
    // Scalar fields of the given names, all of one type.
    int add(const char* type_name, const std::vector<const char*>& names, const char* field_type = "int") {
        Infos infos;
        for (const char* name : names) infos.push_back({name, "", field_type, OBX_COUNTING_MODE_ABSOLUTE, 1});
        return obx_schema_add_type(schema_, type_name, infos.data(), infos.size(), nullptr);
    }
    SchemaPtr load(const std::string& path) { return SchemaPtr(obx_schema_load_file(path.c_str(), built_ins_)); }

    obx_schema_t* built_ins_ = obx_schema_create("<built-in>", OBX_SCHEMA_JSON_VERSION_WORD);
    obx_schema_t* schema_ = obx_schema_create("prov", 0x10001);
    SlashEscaping slashes_{false};  // as obx_read runs
    SchemaFolder folder_;
};

// Ids are stored in data files: a reordering of the table must fail here.
TEST_F(SchemaTest, BuiltInTypesHaveTheirStableIdsNamesAndSizes) {
    std::string rows;  // id name size, in registration order
    for (int i = 0; i < built_ins_->num_types; ++i)
        rows += std::to_string(built_ins_->types[i]->id) + " " + built_ins_->types[i]->name + " " + std::to_string(built_ins_->types[i]->size) + ",";
    EXPECT_EQ(rows, "1 bool 1,2 char 1,3 short 2,4 int 4,5 long 8,6 long long 8,7 unsigned char 1,8 unsigned short 2,9 unsigned int 4,10 unsigned long 8,11 unsigned long long 8,12 float 4,13 double 8,14 int8_t 1,15 int16_t 2,16 int32_t 4,17 int64_t 8,18 uint8_t 1,19 uint16_t 2,20 uint32_t 4,21 uint64_t 8,22 timestamp 8,");
}

// Registration by hand is not on the reader's path (schema files are decoded whole): one
// refusal as a smoke check, of a name the base schema holds.
TEST_F(SchemaTest, RegistrationRefusesANameOfTheBaseSchema) {
    LogCapture log;
    uint8_t index = 0x77;
    const obx_type_field_info_t f = {"f", "", "int", 0, 1};
    EXPECT_EQ(obx_schema_add_type(schema_, "uint64_t", &f, 1, &index), 2);
    EXPECT_TRUE(index == 0x77 && schema_->num_types == 0);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Lines{"Schema 'prov' already contains type 'uint64_t'"});
}

// A type read from a file may carry a built-in's name; it wins within its own schema.
TEST_F(SchemaTest, LookupWalksTheBaseChainAndOwnTypesWin) {
    obx_type_definition_t* own = schema_->types[schema_->num_types++] = obx_type_definition_create("uint64_t");
    EXPECT_TRUE(obx_schema_find_type(schema_, "uint64_t") == own && obx_schema_find_type(built_ins_, "uint64_t") == built_ins_->types[20]);
    EXPECT_EQ(obx_schema_find_type(schema_, "INT"), nullptr);
}

// Layouts are taken as stated; what a walker must check against its buffer is how far
// rendering reads: nested types, overlapping and empty arrays, text read byte by byte.
TEST_F(SchemaTest, ReachOfATypeIsTheFarthestByteItsRenderingReads) {
    ASSERT_EQ(add("rec", {"a", "b"}), OBX_SCHEMA_OK);  // two ints, size 8
    ASSERT_EQ(add("outer", {"r"}, "rec"), OBX_SCHEMA_OK);
    obx_type_definition_t *rec = schema_->types[0], *outer = schema_->types[1], *int_type = rec->fields[1]->type;
    obx_type_field_definition_t* field = rec->fields[1];
    const struct { uint64_t offset, type_size; uint16_t array_length; const char* type; uint64_t reach; } cases[] = {
        {4, 4, 1, "int", 8}, {9, 4, 1, "int", 13},         // packed; past the record's size
        {4, 4, 3, "int", 16}, {4, 1, 3, "int", 10},        // an array; elements that overlap
        {6, 4, 0, "int", 6}, {2, 4, 1, nullptr, 4},        // nothing read: the first field still ends at 4
        {4, 4, 8, "char", 12}, {4, 4, 1, "char", 5},       // text is read byte by byte; one char is one byte
        {UINT64_MAX - 1, 4, 1, "int", UINT64_MAX}, {0, UINT64_MAX / 2 + 1, 3, "int", UINT64_MAX},  // past 64 bits
    };
    for (const auto& c : cases) {
        field->offset = c.offset, field->type_size = c.type_size, field->array_length = c.array_length;
        field->type = c.type ? obx_schema_find_type(schema_, c.type) : nullptr;
        EXPECT_EQ(obx_type_definition_reach(rec), c.reach) << c.offset << " " << c.type_size << " x" << c.array_length;
        if (c.reach != UINT64_MAX) {
            EXPECT_EQ(obx_type_definition_reach(outer), c.reach);
        }
    }
    field->type = int_type, field->offset = 20, field->type_size = 4, field->array_length = 1;
    outer->fields[0]->array_length = 3, outer->fields[0]->type_size = 2;
    EXPECT_EQ(obx_type_definition_reach(outer), 2u * 2 + 24);
    EXPECT_TRUE(obx_schema_validate_layout(schema_));  // sizes are not compared

    rec->fields[0]->type = outer;  // rec -> outer -> rec: no record could hold it
    EXPECT_EQ(obx_type_definition_reach(outer), UINT64_MAX);
    LogCapture log;
    EXPECT_FALSE(obx_schema_validate_layout(schema_));
    EXPECT_EQ(log.at(OBX_LOG_ERROR).at(0), "Type 'rec' contains itself through field 'r' of type 'outer'");
}

TEST_F(SchemaTest, LoadedFileKeepsItsMd5AndEncodesBackToTheSameText) {
    FieldDoc key("k", "int");
    key.index = 1;
    const SchemaId id = folder_.add(EventSchemaDoc("net/provider", "2.7.300").type("outer", {{"time", "timestamp"}, {"name", "char", 16}, {"pair", "inner", 2}, {"load", "double"}})
                                        .type("inner", {{"lo", "uint16_t"}, {"hi", "uint16_t"}}).type(TypeDoc{"indexed", {key}}));
    SchemaPtr schema = load(folder_.file_of(id));
    ASSERT_NE(schema, nullptr);
    EXPECT_EQ(std::string(schema->md5_digest_str), SchemaFolder::hex(id));
    EXPECT_EQ(schema->types[0]->fields[2]->type, schema->types[1]);
    EXPECT_EQ(schema_pretty_text(JsonPtr(obx_schema_to_json(schema.get())).get()), read_file_bytes(folder_.file_of(id)));
}

// array_length and index are 32-bit values kept in 16 bits; 0 or absent length is 1.
// An unknown counting mode is no reason to refuse.
TEST_F(SchemaTest, FieldDecodingOfNumbersAndCountingModes) {
    const struct { const char* patch; uint16_t array_length, index; int mode; } cases[] = {
        {"{\"array_length\": 0}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE},
        {"{\"array_length\": 65537, \"index\": 65538}", 1, 2, OBX_COUNTING_MODE_ABSOLUTE},
        {"{\"index\": \"3\"}", 1, 0, OBX_COUNTING_MODE_ABSOLUTE},  // fails the first template, passes the second
        {"{\"counting_mode\": \"ABSOLUTE_MONOTONIC\"}", 1, 0, OBX_COUNTING_MODE_RUNNING_SUM},
        {"{\"counting_mode\": \"absolute\"}", 1, 0, OBX_COUNTING_MODE_UNKNOWN},
    };
    for (const auto& c : cases) {
        LogCapture log;
        JsonPtr value = json_parse(kField);  // the patch's keys replace those
        json_object_update(value.get(), json_parse(c.patch).get());
        obx_type_field_definition_t* field = obx_field_from_json(value.get());
        ASSERT_NE(field, nullptr) << c.patch << log.all();
        EXPECT_EQ(std::vector<int>({field->array_length, field->index, field->counting_mode}), std::vector<int>({c.array_length, c.index, c.mode})) << c.patch;
        EXPECT_EQ(log.all(), "");
        obx_type_field_definition_destroy(field);
    }
}

// Each document as a schema file: loaded, or refused with the line given (the version
// gate: same major, minor up to 5, the patch not looked at, two parts are enough).
TEST_F(SchemaTest, SchemaFilesLoadedOrRefusedWithTheirCause) {
    const auto doc = [](const std::string& version, const std::string& types) { return "{\"obx_version\": \"" + version + "\", \"provider_name\": \"p\", \"provider_version\": \"1.0.0\", \"types\": [" + types + "]}"; };
    const auto type = [](const std::string& size, const std::string& fields) { return "{\"name\": \"t\", \"size\": " + size + ", \"fields\": [" + fields + "]}"; };
    const std::string t = type("4", kField), incompatible = " is incompatible with current version 1.5.0";
    std::string many = t;  // the types array has a fixed size: a longer file is refused before anything is built
    for (int i = 0; i < OBX_MAX_TYPES; ++i) many += "," + t;
    const struct { std::string text, error; } cases[] = {  // no error: loaded
        {doc("1.5.9", t), ""}, {doc("1.5", t), ""}, {doc("1.6.0", t), "Schema version 1.6.0" + incompatible}, {doc("2.0.0", t), "Schema version 2.0.0" + incompatible}, {doc("1", t), "Schema version 1" + incompatible},
        {"{\"provider_name\": \"p\", \"types\": []}", "Not an event schema"},  // logged as information only
        {doc("1.5.0", t + "," + type("0", kField)), "Failed to deserialize type #1 from JSON array"},  // size 0 has no line of its own
        {doc("1.5.0", type("\"4\"", kField)), "Type definition JSON does not match schema '{\"name\" : \"\", \"size\" : 0, \"fields\" : []}'"},
        {doc("1.5.0", type("4", "3")), "Field definition JSON does not match schema with or without 'index'."},
        {doc("1.5.0", many), "Schema 'p' has 255 types, more than the limit of 254"},
        {doc("1.5.0", type("4", "{\"field_name\": \"v\", \"description\": \"\", \"type_name\": \"nosuch\", \"counting_mode\": \"ABSOLUTE\", \"offset\": 0, \"type_size\": 4}")),
         "Definition of type nosuch not found within the schema p"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(load(folder_.file_of(folder_.add_text(c.text))) != nullptr, c.error.empty()) << c.error;
        EXPECT_TRUE(c.error.empty() ? log.at(OBX_LOG_ERROR).empty() : log.has(c.error)) << log.all();
    }
    // The position wins over a stated "type_index".
    SchemaPtr read = load(folder_.file_of(folder_.add_text(doc("1.5.0", "{\"name\": \"a\", \"size\": 4, \"type_index\": 1, \"fields\": [" + kField + "]}," + type("4", kField)))));
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(read->types[0]->name, "a");
}

}  // namespace

// A schema added as text keeps its place and its types even when a field names a type
// that does not exist; an event of such a type cannot be rendered, and says so safely.
TEST(TypeSystem, AddedSchemaKeepsItsTypesWhenTheyCannotBeResolved) {
    obx_type_system_t* system = obx_type_system_create();
    ASSERT_NE(system, nullptr);
    const std::string good = obx_test::EventSchemaDoc("good").type("g", {{"a", "uint8_t"}}).pretty();
    const std::string broken = obx_test::EventSchemaDoc("broken").type("b", {{"x", "no_such_type"}, {"y", "uint8_t"}}).pretty();
    uint8_t index = 99;
    EXPECT_EQ(obx_type_system_add_schema(system, good.c_str(), &index), 0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(obx_type_system_add_schema(system, broken.c_str(), &index), 0);
    EXPECT_EQ(index, 1);
    ASSERT_EQ(system->num_schemas, 2u);
    ASSERT_EQ(system->schemas[1]->num_types, 1u);
    EXPECT_STREQ(system->schemas[1]->types[0]->name, "b");
    EXPECT_EQ(system->schemas[1]->types[0]->fields[0]->type, nullptr);
    EXPECT_EQ(obx_type_system_add_schema(system, broken.c_str(), &index), 0);  // known by its text
    EXPECT_EQ(index, 1);
    const uint8_t event[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(obx_event_to_json(system->schemas[1]->types[0], event), nullptr);
    obx_type_system_destroy(system);
}
