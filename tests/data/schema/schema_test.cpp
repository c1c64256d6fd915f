#include "data/schema/schema.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/log_capture.h"
#include "utils/json.h"
#include "utils/logger.h"

namespace {

using obx_test::LogCapture;

// A schema on top of the built-ins, as a type system holds it.
class SchemaTest : public ::testing::Test {
protected:
    void SetUp() override {
        built_ins_ = obx_schema_create("<built-in>", 1281);
        ASSERT_TRUE(obx_schema_register_built_in_types(built_ins_));
        schema_ = obx_schema_create("prov", 0x10001);
        schema_->base_schema = built_ins_;
    }
    void TearDown() override {
        obx_schema_destroy(schema_);
        obx_schema_destroy(built_ins_);
    }

    // Fields given as {name, type}, each a scalar.
    int add(const char* type_name, const std::vector<std::pair<const char*, const char*>>& fields,
            uint8_t* index = nullptr) {
        std::vector<obx_type_field_info_t> infos;
        for (const auto& f : fields) infos.push_back({f.first, "", f.second, OBX_COUNTING_MODE_ABSOLUTE, 1});
        return obx_schema_add_type(schema_, type_name, infos.data(), infos.size(), index);
    }

    obx_schema_t* built_ins_ = nullptr;
    obx_schema_t* schema_ = nullptr;
};

// Packed: no alignment, no padding, offsets run in list order.
TEST_F(SchemaTest, RegistrationLaysFieldsOutPacked) {
    struct FieldCase {
        const char* name;
        const char* type;
        uint16_t array_length;
        uint64_t offset;
        uint64_t type_size;
    };
    struct Case {
        const char* type_name;
        std::vector<FieldCase> fields;
        uint64_t size;
    };
    const std::vector<Case> cases = {
        {"sizes_1_8_2", {{"a", "uint8_t", 1, 0, 1}, {"b", "uint64_t", 1, 1, 8}, {"c", "uint16_t", 1, 9, 2}}, 11},
        {"int_array", {{"values", "int", 4, 0, 4}}, 16},
        {"mixed", {{"flag", "bool", 1, 0, 1}, {"name", "char", 5, 1, 1}, {"v", "double", 2, 6, 8}}, 22},
        // A composite field takes the registered type's size as its element size.
        {"nested", {{"head", "char", 1, 0, 1}, {"pair", "sizes_1_8_2", 2, 1, 11}}, 23},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type_name);
        std::vector<obx_type_field_info_t> infos;
        for (const FieldCase& f : c.fields) infos.push_back({f.name, "d", f.type, 1, f.array_length});
        uint8_t index = 0xEE;
        ASSERT_EQ(obx_schema_add_type(schema_, c.type_name, infos.data(), infos.size(), &index), OBX_SCHEMA_OK);
        const obx_type_definition_t* type = schema_->types[index];
        ASSERT_NE(type, nullptr);
        EXPECT_STREQ(type->name, c.type_name);
        EXPECT_EQ(type->id, 0u);
        EXPECT_EQ(type->size, c.size);
        ASSERT_EQ(type->num_fields, c.fields.size());
        for (size_t i = 0; i < c.fields.size(); ++i) {
            const obx_type_field_definition_t* field = type->fields[i];
            SCOPED_TRACE(c.fields[i].name);
            EXPECT_STREQ(field->field_name, c.fields[i].name);
            EXPECT_STREQ(field->type_name, c.fields[i].type);
            EXPECT_STREQ(field->description, "d");
            EXPECT_EQ(field->counting_mode, 1);
            EXPECT_EQ(field->offset, c.fields[i].offset);
            EXPECT_EQ(field->type_size, c.fields[i].type_size);
            EXPECT_EQ(field->array_length, c.fields[i].array_length);
            EXPECT_EQ(field->type, obx_schema_find_type(schema_, c.fields[i].type));
            EXPECT_EQ(field->index, 0u);
        }
        EXPECT_TRUE(obx_type_definition_fits(type));
    }
    EXPECT_EQ(obx_schema_get_type_size(schema_, "nested"), 23u);
    EXPECT_TRUE(obx_schema_validate_layout(schema_));
}

// Only fields 1 .. count-2 are compared with those before them: the last one never is.
TEST_F(SchemaTest, DuplicateFieldNamesAreFoundExceptInTheLastField) {
    struct Case {
        std::vector<const char*> names;
        int code;
        const char* repeated;
    };
    const std::vector<Case> cases = {
        {{"a", "b", "a"}, OBX_SCHEMA_OK, nullptr},
        {{"a", "a", "b"}, OBX_SCHEMA_NAME_TAKEN, "a"},
        {{"a", "a"}, OBX_SCHEMA_OK, nullptr},
        {{"a", "b", "b"}, OBX_SCHEMA_OK, nullptr},
        {{"a", "b", "c", "b", "d"}, OBX_SCHEMA_NAME_TAKEN, "b"},
        {{"x", "y", "z", "w", "x"}, OBX_SCHEMA_OK, nullptr},
        {{"x", "y", "z", "x", "w"}, OBX_SCHEMA_NAME_TAKEN, "x"},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string type_name = "type" + std::to_string(n++);
        SCOPED_TRACE(type_name);
        std::vector<std::pair<const char*, const char*>> fields;
        for (const char* name : c.names) fields.push_back({name, "uint32_t"});
        LogCapture log;
        const uint8_t before = schema_->num_types;
        EXPECT_EQ(add(type_name.c_str(), fields), c.code);
        if (c.repeated) {
            EXPECT_TRUE(log.has("[obx_schema_add_type] Failed to register new type '" + type_name + "': field name '" +
                                c.repeated + "' occurs more than once."))
                << log.all();
            EXPECT_EQ(schema_->num_types, before);
        } else {
            ASSERT_EQ(schema_->num_types, before + 1);
            EXPECT_EQ(schema_->types[before]->size, 4u * c.names.size());
        }
    }
}

TEST_F(SchemaTest, RegistrationRefusalsLeaveTheSchemaAsItWas) {
    obx_type_field_info_t good = {"f", "", "int", 0, 1};
    obx_type_field_info_t unknown_type = {"f", "", "nosuch", 0, 1};
    obx_type_field_info_t no_name = {nullptr, "", "int", 0, 1};
    obx_type_field_info_t no_type = {"f", "", nullptr, 0, 1};
    obx_type_field_info_t zero_length = {"f", "", "int", 0, 0};
    obx_type_field_info_t two_unknown[] = {good, {"g", "", "later", 0, 1}};
    ASSERT_EQ(add("taken", {{"a", "int"}}), OBX_SCHEMA_OK);

    struct Case {
        const char* label;
        obx_schema_t* schema;
        const char* type_name;
        const obx_type_field_info_t* fields;
        size_t count;
        int code;
        std::string message;  // empty: any clear error line
    };
    const std::vector<Case> cases = {
        {"unknown field type", schema_, "t", &unknown_type, 1, OBX_SCHEMA_BAD_ARGUMENT,
         "Unable to register type 't': type 'nosuch' of the field 'f' is undefined"},
        {"type named later", schema_, "t", two_unknown, 2, OBX_SCHEMA_BAD_ARGUMENT,
         "Unable to register type 't': type 'later' of the field 'g' is undefined"},
        {"own name taken", schema_, "taken", &good, 1, OBX_SCHEMA_NAME_TAKEN,
         "Schema 'prov' already contains type 'taken'"},
        {"built-in name taken through the base", schema_, "uint64_t", &good, 1, OBX_SCHEMA_NAME_TAKEN,
         "Schema 'prov' already contains type 'uint64_t'"},
        {"zero fields", schema_, "t", &good, 0, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"no field list", schema_, "t", nullptr, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"field without name", schema_, "t", &no_name, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"field without type", schema_, "t", &no_type, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"array length 0", schema_, "t", &zero_length, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"no type name", schema_, nullptr, &good, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
        {"no schema", nullptr, "t", &good, 1, OBX_SCHEMA_BAD_ARGUMENT, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        uint8_t index = 0x77;
        EXPECT_EQ(obx_schema_add_type(c.schema, c.type_name, c.fields, c.count, &index), c.code);
        EXPECT_EQ(index, 0x77);
        EXPECT_EQ(schema_->num_types, 1);
        ASSERT_EQ(log.at(OBX_LOG_ERROR).size(), 1u) << log.all();
        if (!c.message.empty()) {
            EXPECT_EQ(log.at(OBX_LOG_ERROR)[0], c.message);
        }
    }
}

TEST_F(SchemaTest, TheTypesArrayStopsAt254) {
    obx_schema_t* schema = obx_schema_create(nullptr, 0);
    schema->base_schema = built_ins_;
    obx_type_field_info_t field = {"v", "", "uint8_t", 0, 1};
    for (int i = 0; i < OBX_MAX_TYPES; ++i) {
        uint8_t index = 0;
        ASSERT_EQ(obx_schema_add_type(schema, ("t" + std::to_string(i)).c_str(), &field, 1, &index), OBX_SCHEMA_OK);
        ASSERT_EQ(index, i);
    }
    EXPECT_EQ(schema->num_types, OBX_MAX_TYPES);
    LogCapture log;
    uint8_t index = 0x55;
    EXPECT_EQ(obx_schema_add_type(schema, "one_more", &field, 1, &index), OBX_SCHEMA_MAX_TYPES_REACHED);
    EXPECT_TRUE(log.has("[obx_schema_add_type] Unable to add new type, reached OBX_MAX_TYPES. schema->num_types = 254"))
        << log.all();
    EXPECT_EQ(index, 0x55);
    EXPECT_EQ(schema->num_types, OBX_MAX_TYPES);
    EXPECT_EQ(obx_schema_find_type(schema, "one_more"), nullptr);
    // A taken name at the limit still reports the limit first.
    EXPECT_EQ(obx_schema_add_type(schema, "t0", &field, 1, nullptr), OBX_SCHEMA_MAX_TYPES_REACHED);
    obx_schema_destroy(schema);
}

TEST_F(SchemaTest, LookupWalksTheBaseChainAndOwnTypesWin) {
    // A type read from a file may carry a built-in's name; registration cannot make one.
    obx_type_definition_t* own = obx_type_definition_create("uint64_t");
    own->size = 3;
    schema_->types[schema_->num_types++] = own;
    ASSERT_EQ(add("later", {{"x", "int"}}), OBX_SCHEMA_OK);

    struct Case {
        const obx_schema_t* schema;
        const char* name;
        const obx_type_definition_t* expected;
    };
    const std::vector<Case> cases = {
        {schema_, "uint64_t", own},
        {built_ins_, "uint64_t", built_ins_->types[20]},
        {schema_, "int", built_ins_->types[3]},
        {schema_, "later", schema_->types[1]},
        {built_ins_, "later", nullptr},
        {schema_, "INT", nullptr},
        {schema_, "in", nullptr},
        {schema_, "", nullptr},
        {schema_, nullptr, nullptr},
        {nullptr, "int", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name ? c.name : "<null>");
        EXPECT_EQ(obx_schema_find_type(c.schema, c.name), c.expected);
    }
    EXPECT_EQ(obx_schema_get_type_size(schema_, "uint64_t"), 3u);
    EXPECT_EQ(obx_schema_get_type_size(built_ins_, "uint64_t"), 8u);
    EXPECT_EQ(obx_schema_get_type_size(schema_, "nosuch"), 0u);

    // A type registered now takes the schema's own definition of the name.
    uint8_t index = 0;
    ASSERT_EQ(add("user", {{"v", "uint64_t"}}, &index), OBX_SCHEMA_OK);
    EXPECT_EQ(schema_->types[index]->fields[0]->type, own);
    EXPECT_EQ(schema_->types[index]->size, 3u);
}

TEST_F(SchemaTest, FieldIndexesFollowTheOrderOfTheNames) {
    uint8_t t = 0;
    ASSERT_EQ(add("rec", {{"a", "int"}, {"b", "int"}, {"c", "int"}}, &t), OBX_SCHEMA_OK);
    auto indexes = [&]() {
        std::vector<int> v;
        for (int i = 0; i < 3; ++i) v.push_back(schema_->types[t]->fields[i]->index);
        return v;
    };
    struct Case {
        const char* label;
        std::vector<const char*> names;
        std::vector<int> expected;
        std::vector<std::string> indexed;  // record order
        bool mismatch;
    };
    const std::vector<Case> cases = {
        {"two in reverse order", {"c", "a"}, {2, 0, 1}, {"a", "c"}, false},
        {"one unknown", {"b", "nosuch"}, {0, 1, 0}, {"b"}, true},
        {"a missing name is passed over", {"a", nullptr, "c"}, {1, 0, 2}, {"a", "c"}, true},
        {"a name given twice keeps the later number", {"a", "a"}, {2, 0, 0}, {"a"}, false},
        {"no names clears all", {}, {0, 0, 0}, {}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        static const char* const kNone[] = {nullptr};
        const char* const* names = c.names.empty() ? kNone : c.names.data();
        EXPECT_EQ(obx_schema_set_field_indexes(schema_, t, names, c.names.size()), OBX_SCHEMA_OK);
        EXPECT_EQ(indexes(), c.expected);
        EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
        const std::vector<std::string> debug = log.at(OBX_LOG_DEBUG);
        const bool mismatch_logged =
            !debug.empty() && debug.back().rfind("Mismatch in assigned indices: expected ", 0) == 0;
        EXPECT_EQ(mismatch_logged, c.mismatch) << log.all();

        size_t count = 99;
        const char** got = obx_schema_get_indexed_field_names(schema_, t, &count);
        ASSERT_NE(got, nullptr);
        std::vector<std::string> texts(got, got + count);
        EXPECT_EQ(texts, c.indexed);
        if (count) {  // borrowed, not copied
            EXPECT_EQ(got[0], schema_->types[t]->fields[c.expected[0] ? 0 : 1]->field_name);
        }
        std::free(got);
    }
    LogCapture log;
    const char* one[] = {"b", "nosuch"};
    obx_schema_set_field_indexes(schema_, t, one, 2);
    EXPECT_TRUE(log.has("Mismatch in assigned indices: expected 2, but assigned 1 (rec).")) << log.all();
}

TEST_F(SchemaTest, FieldIndexRefusals) {
    ASSERT_EQ(add("rec", {{"a", "int"}}), OBX_SCHEMA_OK);
    schema_->types[0]->fields[0]->index = 4;
    const char* names[] = {"a"};
    struct Case {
        obx_schema_t* schema;
        const char* const* names;
        uint32_t type_index;
        std::string message;
    };
    const std::vector<Case> cases = {
        {nullptr, names, 0, "[obx_schema_set_field_indexes] Schema pointer is NULL!"},
        {schema_, nullptr, 0, "[obx_schema_set_field_indexes] Index names array is NULL!"},
        {schema_, names, 1, "[obx_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)"},
        {schema_, names, 300, "[obx_schema_set_field_indexes] Invalid type_index: 300 (out of range, max: 0)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        LogCapture log;
        EXPECT_EQ(obx_schema_set_field_indexes(c.schema, c.type_index, c.names, 1), OBX_SCHEMA_BAD_ARGUMENT);
        EXPECT_TRUE(log.has(c.message)) << log.all();
        EXPECT_EQ(schema_->types[0]->fields[0]->index, 4);  // untouched
    }
}

TEST_F(SchemaTest, IndexedFieldNameRefusalsQuoteTheSourcePath) {
    ASSERT_EQ(add("rec", {{"a", "int"}}), OBX_SCHEMA_OK);
    obx_schema_t* holed = obx_schema_create("holed", 0);
    holed->num_types = 1;  // a slot counted but empty
    struct Case {
        const obx_schema_t* schema;
        uint32_t type_index;
        bool with_count;
        std::string tail;
    };
    const std::vector<Case> cases = {
        {schema_, 0, false, "] out_count is NULL"},
        {nullptr, 0, true, "] schema is NULL"},
        {schema_, 1, true, "] type_index 1 out of bounds (max: 0)"},
        {holed, 0, true, "] schema->types[0] is NULL"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tail);
        LogCapture log;
        size_t count = 5;
        EXPECT_EQ(obx_schema_get_indexed_field_names(c.schema, c.type_index, c.with_count ? &count : nullptr),
                  nullptr);
        if (c.with_count) {
            EXPECT_EQ(count, 0u);
        }
        const std::vector<std::string> errors = log.at(OBX_LOG_ERROR);
        ASSERT_EQ(errors.size(), 1u) << log.all();
        EXPECT_EQ(errors[0].rfind("[src/data/schema ", 0), 0u) << errors[0];
        ASSERT_GE(errors[0].size(), c.tail.size());
        EXPECT_EQ(errors[0].substr(errors[0].size() - c.tail.size()), c.tail);
    }
    obx_schema_destroy(holed);
}

TEST_F(SchemaTest, AdjustResolvesEveryFieldOrStopsAtTheFirstUnknown) {
    ASSERT_EQ(add("inner", {{"x", "int"}}), OBX_SCHEMA_OK);
    ASSERT_EQ(add("outer", {{"i", "inner"}, {"n", "uint8_t"}}), OBX_SCHEMA_OK);
    obx_type_definition_t* outer = schema_->types[1];
    for (int i = 0; i < 2; ++i) outer->fields[i]->type = nullptr;
    EXPECT_TRUE(obx_schema_adjust_type_fields(schema_, outer));
    EXPECT_EQ(outer->fields[0]->type, schema_->types[0]);
    EXPECT_EQ(outer->fields[1]->type, built_ins_->types[17]);

    std::free(outer->fields[0]->type_name);
    outer->fields[0]->type_name = strdup("gone");
    LogCapture log;
    EXPECT_FALSE(obx_schema_adjust_type_fields(schema_, outer));
    EXPECT_TRUE(log.has("Definition of type gone not found within the schema prov")) << log.all();
    EXPECT_EQ(outer->fields[0]->type, nullptr);
    EXPECT_FALSE(obx_schema_adjust_type_fields(schema_, nullptr));
}

// The renderers read records through offsets and sizes without checks of their own.
TEST_F(SchemaTest, LayoutCheckRefusesFieldsOutsideTheirRecord) {
    struct Case {
        const char* label;
        uint64_t offset;
        uint64_t type_size;
        uint16_t array_length;
        uint64_t record_size;
        bool resolved;
        bool fits;
    };
    const std::vector<Case> cases = {
        {"exactly at the end", 4, 4, 1, 8, true, true},
        {"array exactly at the end", 0, 4, 2, 8, true, true},
        {"one byte past", 5, 4, 1, 8, true, false},
        {"array one element past", 4, 4, 2, 8, true, false},
        {"element smaller than its type", 0, 2, 1, 8, true, false},
        {"element larger than its type", 0, 8, 1, 8, true, true},
        {"offset wraps around", UINT64_MAX - 1, 4, 1, 8, true, false},
        {"size product wraps around", 0, UINT64_MAX / 2 + 1, 2, 8, true, false},
        {"unresolved", 0, 4, 1, 8, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        obx_type_definition_t* type = obx_type_definition_create("rec");
        type->size = c.record_size;
        type->fields = static_cast<obx_type_field_definition_t**>(calloc(1, sizeof(void*)));
        obx_type_field_definition_t* field = obx_type_field_definition_create();
        field->field_name = strdup("f");
        field->type_name = strdup("int");
        field->offset = c.offset;
        field->type_size = c.type_size;
        field->array_length = c.array_length;
        field->type = c.resolved ? obx_schema_find_type(schema_, "int") : nullptr;
        type->fields[type->num_fields++] = field;
        LogCapture log;
        EXPECT_EQ(obx_type_definition_fits(type), c.fits);
        if (!c.fits) {
            ASSERT_FALSE(log.at(OBX_LOG_ERROR).empty());
            const std::string line = log.at(OBX_LOG_ERROR)[0];
            EXPECT_NE(line.find("'f'"), std::string::npos) << line;
            EXPECT_NE(line.find("'rec'"), std::string::npos) << line;
        }
        obx_type_definition_destroy(type);
    }
}

TEST_F(SchemaTest, LayoutCheckRefusesTypesThatContainThemselves) {
    ASSERT_EQ(add("a", {{"x", "int"}}), OBX_SCHEMA_OK);
    ASSERT_EQ(add("b", {{"y", "a"}}), OBX_SCHEMA_OK);
    ASSERT_EQ(add("c", {{"z", "b"}}), OBX_SCHEMA_OK);
    ASSERT_EQ(add("d", {{"u", "c"}, {"w", "a"}}), OBX_SCHEMA_OK);
    EXPECT_TRUE(obx_schema_validate_layout(schema_));

    // Point a's field at c: a -> c -> b -> a. All three are 4 bytes, so only the cycle is wrong.
    obx_type_field_definition_t* x = schema_->types[0]->fields[0];
    x->type = schema_->types[2];
    ASSERT_EQ(x->type_size, schema_->types[2]->size);
    LogCapture log;
    EXPECT_FALSE(obx_schema_validate_layout(schema_));
    ASSERT_FALSE(log.at(OBX_LOG_ERROR).empty());
    EXPECT_NE(log.at(OBX_LOG_ERROR)[0].find("contains itself"), std::string::npos) << log.all();

    // The plain self-reference.
    x->type = schema_->types[0];
    EXPECT_FALSE(obx_schema_validate_layout(schema_));
    EXPECT_FALSE(obx_schema_validate_layout(nullptr));
}

TEST_F(SchemaTest, TypeToJsonStringGivesThePlainOrPrettyForm) {
    obx_type_field_info_t fields[] = {{"id", "the id", "uint32_t", OBX_COUNTING_MODE_ABSOLUTE, 1},
                                      {"tags", "", "char", OBX_COUNTING_MODE_RUNNING_SUM, 3}};
    ASSERT_EQ(obx_schema_add_type(schema_, "rec", fields, 2, nullptr), OBX_SCHEMA_OK);
    char* plain = obx_schema_type_to_json_string(schema_, "rec", 0);
    ASSERT_NE(plain, nullptr);
    EXPECT_STREQ(plain,
                 "{\"name\":\"rec\",\"size\":7,\"fields\":["
                 "{\"field_name\":\"id\",\"description\":\"the id\",\"type_name\":\"uint32_t\","
                 "\"counting_mode\":\"ABSOLUTE\",\"offset\":0,\"type_size\":4,\"index\":0},"
                 "{\"field_name\":\"tags\",\"description\":\"\",\"type_name\":\"char\","
                 "\"counting_mode\":\"RUNNING_SUM\",\"array_length\":3,\"offset\":4,\"type_size\":1,\"index\":0}]}");
    obx_json_free_serialized_string(plain);

    char* pretty = obx_schema_type_to_json_string(schema_, "rec", 1);
    ASSERT_NE(pretty, nullptr);
    EXPECT_EQ(std::string(pretty).rfind("{\n    \"name\": \"rec\",\n    \"size\": 7,\n    \"fields\": [\n", 0), 0u)
        << pretty;
    obx_json_free_serialized_string(pretty);

    EXPECT_EQ(obx_schema_type_to_json_string(schema_, "nosuch", 0), nullptr);
}

}  // namespace
