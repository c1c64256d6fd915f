#include "data/schema/built_in_types.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "data/schema/schema.h"

namespace {

// Ids are stored in data files: a reordering of the table must fail here.
const struct { uint32_t id; const char* name; uint64_t size; } kRows[] = {
    {1, "bool", 1}, {2, "char", 1}, {3, "short", 2}, {4, "int", 4}, {5, "long", 8}, {6, "long long", 8},
    {7, "unsigned char", 1}, {8, "unsigned short", 2}, {9, "unsigned int", 4}, {10, "unsigned long", 8},
    {11, "unsigned long long", 8}, {12, "float", 4}, {13, "double", 8}, {14, "int8_t", 1}, {15, "int16_t", 2},
    {16, "int32_t", 4}, {17, "int64_t", 8}, {18, "uint8_t", 1}, {19, "uint16_t", 2}, {20, "uint32_t", 4},
    {21, "uint64_t", 8}, {22, "timestamp", 8},
};

TEST(BuiltInTypes, EveryRowHasItsStableIdNameAndSizeAndNothingElseIsFound) {
    obx_schema_t* schema = obx_schema_create("s", 0);
    ASSERT_TRUE(obx_schema_register_built_in_types(schema));
    ASSERT_EQ(schema->num_types, OBX_BUILT_IN_TYPE_COUNT);
    for (size_t i = 0; i < std::size(kRows); ++i) {
        const auto& row = kRows[i];
        EXPECT_STREQ(obx_built_in_type_name(row.id), row.name);
        EXPECT_EQ(obx_built_in_type_size(row.id), row.size) << row.name;
        EXPECT_EQ(obx_built_in_type_id(row.name), row.id);
        const obx_type_definition_t* type = schema->types[i];  // registered in table order
        EXPECT_EQ(std::string(type->name) + " " + std::to_string(type->id) + " " + std::to_string(type->size),
                  std::string(row.name) + " " + std::to_string(row.id) + " " + std::to_string(row.size));
    }
    obx_schema_destroy(schema);
    EXPECT_EQ(obx_built_in_type_name(0), nullptr);
    EXPECT_EQ(obx_built_in_type_name(23), nullptr);
    EXPECT_EQ(obx_built_in_type_size(0) + obx_built_in_type_size(23), 0u);
    // Exact comparison: no case folding, no trimming, no prefixes.
    for (const char* name : {"uint128_t", "", "Int", "int ", "unsigned", "timestamp_t", static_cast<const char*>(nullptr)})
        EXPECT_EQ(obx_built_in_type_id(name), 0u) << (name ? name : "<null>");
}

// Rows are appended behind what is there; the fixed array must never be overrun.
TEST(BuiltInTypes, RegisteringStopsBeforeTheTypesArrayIsFull) {
    for (int present : {OBX_MAX_TYPES - OBX_BUILT_IN_TYPE_COUNT, OBX_MAX_TYPES - OBX_BUILT_IN_TYPE_COUNT + 1}) {
        obx_schema_t* schema = obx_schema_create("s", 0);
        for (int i = 0; i < present; ++i) schema->types[schema->num_types++] = obx_type_definition_create("x");
        EXPECT_EQ(obx_schema_register_built_in_types(schema), present == OBX_MAX_TYPES - OBX_BUILT_IN_TYPE_COUNT);
        EXPECT_EQ(schema->num_types, OBX_MAX_TYPES);
        EXPECT_STREQ(schema->types[OBX_MAX_TYPES - 1]->name, kRows[OBX_MAX_TYPES - 1 - present].name);
        obx_schema_destroy(schema);
    }
}

}  // namespace
