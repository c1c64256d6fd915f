#include "data/schema/built_in_types.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "data/schema/schema.h"

namespace {

struct Row {
    uint32_t id;
    const char* name;
    uint64_t size;
};

// Ids are stored in data files: a reordering of the table must fail here.
const Row kRows[] = {
    {1, "bool", 1},           {2, "char", 1},           {3, "short", 2},
    {4, "int", 4},            {5, "long", 8},           {6, "long long", 8},
    {7, "unsigned char", 1},  {8, "unsigned short", 2}, {9, "unsigned int", 4},
    {10, "unsigned long", 8}, {11, "unsigned long long", 8},
    {12, "float", 4},         {13, "double", 8},        {14, "int8_t", 1},
    {15, "int16_t", 2},       {16, "int32_t", 4},       {17, "int64_t", 8},
    {18, "uint8_t", 1},       {19, "uint16_t", 2},      {20, "uint32_t", 4},
    {21, "uint64_t", 8},      {22, "timestamp", 8},
};

TEST(BuiltInTypes, EveryRowHasItsStableIdNameAndSize) {
    ASSERT_EQ(sizeof(kRows) / sizeof(kRows[0]), static_cast<size_t>(OBX_BUILT_IN_TYPE_COUNT));
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(obx_built_in_type_name(row.id), row.name);
        EXPECT_EQ(obx_built_in_type_size(row.id), row.size);
        EXPECT_EQ(obx_built_in_type_id(row.name), row.id);
    }
    EXPECT_EQ(obx_built_in_types[OBX_BUILT_IN_TYPE_COUNT].id, 0u);
    EXPECT_EQ(obx_built_in_types[OBX_BUILT_IN_TYPE_COUNT].name, nullptr);
}

TEST(BuiltInTypes, IdsAndNamesOutsideTheTableGiveNothing) {
    for (uint32_t id : {0u, 23u, 255u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(obx_built_in_type_name(id), nullptr);
        EXPECT_EQ(obx_built_in_type_size(id), 0u);
    }
    // Exact comparison: no case folding, no trimming, no prefixes.
    for (const char* name : {"uint128_t", "", "Int", "int ", "unsigned", "long long long", "timestamp_t"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(obx_built_in_type_id(name), 0u);
    }
    EXPECT_EQ(obx_built_in_type_id(nullptr), 0u);
}

TEST(BuiltInTypes, PrintGivesHeaderThenOneLinePerRow) {
    char* buffer = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&buffer, &length);
    ASSERT_NE(stream, nullptr);
    obx_built_in_types_print(stream);
    std::fclose(stream);
    std::string text(buffer, length);
    std::free(buffer);

    const std::string expected_start =
        " Id Name                       Size    \n"
        "  1 bool                       1       \n"
        "  2 char                       1       \n";
    EXPECT_EQ(text.substr(0, expected_start.size()), expected_start);
    const std::string expected_end = " 22 timestamp                  8       \n";
    ASSERT_GE(text.size(), expected_end.size());
    EXPECT_EQ(text.substr(text.size() - expected_end.size()), expected_end);
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    EXPECT_EQ(lines, 1u + OBX_BUILT_IN_TYPE_COUNT);
}

TEST(BuiltInTypes, RegisteringFillsTheSchemaInTableOrder) {
    obx_schema_t* schema = obx_schema_create("<built-in>", 1281);
    ASSERT_NE(schema, nullptr);
    ASSERT_TRUE(obx_schema_register_built_in_types(schema));
    ASSERT_EQ(schema->num_types, OBX_BUILT_IN_TYPE_COUNT);
    for (int i = 0; i < OBX_BUILT_IN_TYPE_COUNT; ++i) {
        const obx_type_definition_t* type = schema->types[i];
        SCOPED_TRACE(kRows[i].name);
        EXPECT_STREQ(type->name, kRows[i].name);
        EXPECT_NE(type->name, kRows[i].name);  // a copy, freed with the schema
        EXPECT_EQ(type->id, kRows[i].id);
        EXPECT_EQ(type->size, kRows[i].size);
        EXPECT_EQ(type->num_fields, 0u);
        EXPECT_EQ(type->fields, nullptr);
    }
    obx_schema_destroy(schema);
}

// Rows are appended behind what is there; the fixed array must never be overrun.
TEST(BuiltInTypes, RegisteringStopsBeforeTheTypesArrayIsFull) {
    struct Case {
        int present;
        bool result;
        int num_types_after;
    };
    const Case cases[] = {
        {0, true, 22},
        {OBX_MAX_TYPES - OBX_BUILT_IN_TYPE_COUNT, true, OBX_MAX_TYPES},
        {OBX_MAX_TYPES - OBX_BUILT_IN_TYPE_COUNT + 1, false, OBX_MAX_TYPES},
        {OBX_MAX_TYPES, false, OBX_MAX_TYPES},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.present);
        obx_schema_t* schema = obx_schema_create("s", 0);
        ASSERT_NE(schema, nullptr);
        for (int i = 0; i < c.present; ++i) schema->types[schema->num_types++] = obx_type_definition_create("x");
        EXPECT_EQ(obx_schema_register_built_in_types(schema), c.result);
        EXPECT_EQ(schema->num_types, c.num_types_after);
        obx_schema_destroy(schema);
    }
    EXPECT_FALSE(obx_schema_register_built_in_types(nullptr));
}

}  // namespace
