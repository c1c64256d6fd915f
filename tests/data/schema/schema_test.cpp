#include "data/schema/schema.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

namespace {

using obx_test::LogCapture;
using Lines = std::vector<std::string>;
using Infos = std::vector<obx_type_field_info_t>;

// A schema on top of the built-ins, as a type system holds it.
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

    obx_schema_t* built_ins_ = obx_schema_create("<built-in>", 1281);
    obx_schema_t* schema_ = obx_schema_create("prov", 0x10001);
};

// Packed: no alignment, no padding, offsets run in list order.
TEST_F(SchemaTest, RegistrationLaysFieldsOutPacked) {
    const struct { const char* name; Infos fields; std::vector<uint64_t> offsets, type_sizes; uint64_t size; } cases[] = {
        {"sizes_1_8_2", {{"a", "d", "uint8_t", 1, 1}, {"b", "", "uint64_t", 0, 1}, {"c", "", "uint16_t", 0, 1}},
         {0, 1, 9}, {1, 8, 2}, 11},
        {"int_array", {{"values", "", "int", 0, 4}}, {0}, {4}, 16},
        // A composite field takes the registered type's size as its element size.
        {"nested", {{"head", "", "char", 0, 1}, {"pair", "", "sizes_1_8_2", 0, 2}}, {0, 1}, {1, 11}, 23},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        uint8_t index = 0xEE;
        ASSERT_EQ(obx_schema_add_type(schema_, c.name, c.fields.data(), c.fields.size(), &index), OBX_SCHEMA_OK);
        const obx_type_definition_t* type = schema_->types[index];
        EXPECT_EQ(type->size, c.size);
        ASSERT_EQ(type->num_fields, c.fields.size());
        for (size_t i = 0; i < c.fields.size(); ++i) {
            const obx_type_field_definition_t* field = type->fields[i];
            EXPECT_EQ(field->offset, c.offsets[i]);
            EXPECT_EQ(field->type_size, c.type_sizes[i]);
            EXPECT_EQ(field->array_length, c.fields[i].array_length);
            EXPECT_EQ(field->type, obx_schema_find_type(schema_, c.fields[i].type_name));
        }
    }
}

TEST_F(SchemaTest, RegistrationRefusalsLogOneLineAndLeaveTheSchemaAsItWas) {
    ASSERT_EQ(add("taken", {"a"}), OBX_SCHEMA_OK);
    obx_schema_t* unnamed = obx_schema_create(nullptr, 0);
    unnamed->base_schema = built_ins_;
    const obx_type_field_info_t f = {"f", "", "int", 0, 1}, a = {"a", "", "int", 0, 1}, b = {"b", "", "int", 0, 1},
                                g = {"g", "", "later", 0, 1};
    const std::string dup = "[obx_schema_add_type] Failed to register new type 't': field name '";
    const struct { obx_schema_t* schema; const char* type_name; Infos fields; int code; std::string error; } cases[] = {
        {schema_, "t", {f, g}, 3, "Unable to register type 't': type 'later' of the field 'g' is undefined"},
        {schema_, "taken", {f}, 2, "Schema 'prov' already contains type 'taken'"},
        {unnamed, "uint64_t", {f}, 2, "Schema '<undefined>' already contains type 'uint64_t'"},
        // Field i is compared with those before it for i up to count-2: the last one never is.
        {schema_, "t", {a, a, f}, 2, dup + "a' occurs more than once."},
        {schema_, "t", {a, b, f, b, f}, 2, dup + "b' occurs more than once."},
        {schema_, "t", {}, 3, "[obx_schema_add_type] Unable to register type 't': a type needs at least one field"},
        {nullptr, "t", {f}, 3, "[obx_schema_add_type] Missing schema or type name"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        uint8_t index = 0x77;
        EXPECT_EQ(obx_schema_add_type(c.schema, c.type_name, c.fields.data(), c.fields.size(), &index), c.code) << c.error;
        EXPECT_EQ(index, 0x77);
        EXPECT_EQ(schema_->num_types + unnamed->num_types, 1);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), Lines{c.error});
    }
    obx_schema_destroy(unnamed);
    EXPECT_EQ(add("aba", {"a", "b", "a"}), OBX_SCHEMA_OK);  // a repeat as the last field is accepted
}

TEST_F(SchemaTest, TheTypesArrayStopsAt254) {
    for (int i = 0; i < OBX_MAX_TYPES; ++i) ASSERT_EQ(add(("t" + std::to_string(i)).c_str(), {"v"}), OBX_SCHEMA_OK);
    LogCapture log;
    EXPECT_EQ(add("one_more", {"v"}), OBX_SCHEMA_MAX_TYPES_REACHED);
    EXPECT_EQ(add("t0", {"v"}), OBX_SCHEMA_MAX_TYPES_REACHED);  // the limit is reported before the taken name
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Lines(2, "[obx_schema_add_type] Unable to add new type, reached OBX_MAX_TYPES. "
                                              "schema->num_types = 254"));
}

TEST_F(SchemaTest, LookupWalksTheBaseChainAndOwnTypesWin) {
    // A type read from a file may carry a built-in's name; registration cannot make one.
    obx_type_definition_t* own = obx_type_definition_create("uint64_t");
    own->size = 3;
    schema_->types[schema_->num_types++] = own;
    ASSERT_EQ(add("later", {"x"}), OBX_SCHEMA_OK);
    const struct { const obx_schema_t* schema; const char* name; const obx_type_definition_t* expected; } cases[] = {
        {schema_, "uint64_t", own},             {built_ins_, "uint64_t", built_ins_->types[20]},
        {schema_, "int", built_ins_->types[3]}, {schema_, "later", schema_->types[1]},
        {built_ins_, "later", nullptr},         {schema_, "INT", nullptr},
    };
    for (const auto& c : cases) EXPECT_EQ(obx_schema_find_type(c.schema, c.name), c.expected) << c.name;
    // A type registered now takes the schema's own definition of the name.
    ASSERT_EQ(add("user", {"v"}, "uint64_t"), OBX_SCHEMA_OK);
    EXPECT_EQ(obx_schema_get_type_size(schema_, "user"), 3u);
}

TEST_F(SchemaTest, FieldIndexesFollowTheOrderOfTheNamesOrNameTheCauseOfARefusal) {
    ASSERT_EQ(add("rec", {"a", "b", "c"}), OBX_SCHEMA_OK);
    const obx_type_definition_t* rec = schema_->types[0];
    const struct { std::vector<const char*> names; std::vector<int> expected; Lines indexed; size_t assigned; } cases[] = {
        {{"c", "a"}, {2, 0, 1}, {"a", "c"}, 2},
        {{"b", "nosuch"}, {0, 1, 0}, {"b"}, 1},
        {{"a", "a"}, {2, 0, 0}, {"a"}, 2},  // a name given twice keeps the later number
        {{nullptr}, {0, 0, 0}, {}, 0},      // no names clear all
    };
    for (const auto& c : cases) {
        LogCapture log;
        const size_t count = c.names[0] ? c.names.size() : 0;
        EXPECT_EQ(obx_schema_set_field_indexes(schema_, 0, c.names.data(), count), OBX_SCHEMA_OK);
        EXPECT_EQ((std::vector<int>{rec->fields[0]->index, rec->fields[1]->index, rec->fields[2]->index}), c.expected);
        EXPECT_EQ(log.has("Mismatch in assigned indices: expected " + std::to_string(count) + ", but assigned " +
                          std::to_string(c.assigned) + " (rec)."), count != c.assigned) << log.all();
        size_t got_count = 99;
        const char** got = obx_schema_get_indexed_field_names(schema_, 0, &got_count);
        EXPECT_EQ(Lines(got, got + got_count), c.indexed);
        std::free(got);
    }
    obx_schema_t* holed = obx_schema_create("holed", 0);
    holed->num_types = 1;  // a slot counted but empty
    const char* names[] = {"a"};
    size_t count = 5;
    const std::string set = "[obx_schema_set_field_indexes] ", get = "[src/data/schema N] ";  // N: the source line
    const struct { std::function<bool()> call; std::string error; } refusals[] = {  // call: true on success
        {[&] { return !obx_schema_set_field_indexes(nullptr, 0, names, 1); }, set + "Schema pointer is NULL!"},
        {[&] { return !obx_schema_set_field_indexes(schema_, 0, nullptr, 1); }, set + "Index names array is NULL!"},
        {[&] { return !obx_schema_set_field_indexes(schema_, 1, names, 1); },
         set + "Invalid type_index: 1 (out of range, max: 0)"},
        {[&] { return !!obx_schema_get_indexed_field_names(schema_, 0, nullptr); }, get + "out_count is NULL"},
        {[&] { return !!obx_schema_get_indexed_field_names(nullptr, 0, &count); }, get + "schema is NULL"},
        {[&] { return !!obx_schema_get_indexed_field_names(schema_, 1, &count); },
         get + "type_index 1 out of bounds (max: 0)"},
        {[&] { return !!obx_schema_get_indexed_field_names(holed, 0, &count); }, get + "schema->types[0] is NULL"},
    };
    for (const auto& c : refusals) {
        LogCapture log;
        EXPECT_FALSE(c.call());
        Lines errors = log.at(OBX_LOG_ERROR);
        for (auto& line : errors) line = std::regex_replace(line, std::regex("^(\\[src/data/schema) \\d+\\]"), "$1 N]");
        EXPECT_EQ(errors, Lines{c.error});
    }
    EXPECT_EQ(count, 0u);
    obx_schema_destroy(holed);
}

// The renderers read records through offsets and sizes without checks of their own.
TEST_F(SchemaTest, LayoutCheckRefusesFieldsOutsideTheirRecordAndTypesThatContainThemselves) {
    const struct { uint64_t offset, type_size; uint16_t array_length; bool resolved, fits; } cases[] = {
        // Past the end, an element below the size of its type, an unresolved type.
        {5, 4, 1, true, false}, {4, 4, 2, true, false}, {0, 2, 1, true, false}, {0, 4, 1, false, false},
        {UINT64_MAX - 1, 4, 1, true, false}, {0, UINT64_MAX / 2 + 1, 2, true, false},  // wrapping around
        {0, 8, 1, true, true},  {4, 4, 1, true, true},  // an element may be larger than its type
    };
    ASSERT_EQ(add("rec", {"a", "b"}), OBX_SCHEMA_OK);
    obx_type_definition_t* rec = schema_->types[0];
    obx_type_field_definition_t* field = rec->fields[1];
    obx_type_definition_t* int_type = field->type;
    for (const auto& c : cases) {
        field->offset = c.offset;
        field->type_size = c.type_size;
        field->array_length = c.array_length;
        field->type = c.resolved ? int_type : nullptr;
        LogCapture log;
        EXPECT_EQ(obx_type_definition_fits(rec), c.fits) << c.offset << " " << c.type_size << " x" << c.array_length;
        EXPECT_EQ(log.at(OBX_LOG_ERROR).size(), c.fits ? 0u : 1u);
    }
    ASSERT_EQ(add("b", {"y"}, "rec"), OBX_SCHEMA_OK);
    ASSERT_EQ(add("c", {"z"}, "b"), OBX_SCHEMA_OK);
    EXPECT_TRUE(obx_schema_validate_layout(schema_));
    rec->fields[0]->type = schema_->types[2];  // rec -> c -> b -> rec; every element still fits
    rec->fields[0]->type_size = 8;
    LogCapture log;
    EXPECT_FALSE(obx_schema_validate_layout(schema_));
    EXPECT_EQ(log.at(OBX_LOG_ERROR).at(0), "Type 'rec' contains itself through field 'y' of type 'b'");
}

}  // namespace
