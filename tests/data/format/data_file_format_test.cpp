// The layout printers, block magics and names, and the schema id slots of a file header:
// the tables of the format as text, byte for byte.
#include "data/format/data_file_format.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fixtures/memory_stream.h"

namespace {

std::string row(const char* name, unsigned offset, unsigned size) {
    char line[80];
    std::snprintf(line, sizeof(line), " %-25s  %-8u  %-u\n", name, offset, size);
    return line;
}

}  // namespace

TEST(DataFileFormat, LayoutPrintersGiveTheTables) {
    const std::string head = "Field                       Offset    Size\n";
    const struct { void (*printer)(FILE*); std::string text; } cases[] = {
        {obx_data_file_header_print_layout_to,
         head + row("magic", 0, 4) + row("version", 4, 4) + row("file_size", 8, 8) + row("source_id", 16, 64) +
             row("source_tag", 80, 16) + row("first_timestamp", 96, 8) + row("last_timestamp", 104, 8) +
             row("block_size", 112, 4) + row("counters_schema_id", 116, 16) + row("event_schema_ids", 132, 112) +
             row("byte_order", 244, 1) + row("padding", 245, 7) + row("magic_end", 252, 4)},
        {obx_event_block_print_layout_to,
         head + row("magic", 0, 4) + row("timestamp", 4, 8) + row("schema_index", 12, 1) + row("type_index", 13, 2) +
             row("num_events", 15, 1)},
        {obx_counters_block_print_layout_to,
         head + row("header.magic", 0, 4) + row("padding", 4, 4) + row("timestamp", 8, 8) + " values[]                   16      \n"},
        {obx_blob_block_print_layout_to, head + row("header.magic", 0, 4) + row("timestamp", 4, 8) + row("data_size", 12, 8)},
    };
    for (const auto& c : cases) EXPECT_EQ(obx_test::written(c.printer), c.text);
}

// Each type writes its magic and reads back as itself; CNTX is written "OBXX" (it reads
// alike), and an unknown type writes nothing.
TEST(DataFileFormat, BlockMagicsAndNames) {
    const struct { uint32_t type; const char* magic; const char* name; } cases[] = {
        {OBX_COUNTERS_BLOCK, "OBXD", "OBX_COUNTERS_BLOCK"}, {OBX_EVENTS_BLOCK, "OBXE", "OBX_EVENTS_BLOCK"},
        {OBX_SCHEMAS_BLOCK, "OBXS", "OBX_SCHEMAS_BLOCK"},   {OBX_BLOB_BLOCK, "OBXB", "OBX_BLOB_BLOCK"},
        {OBX_PAGE_BLOCK, "OBXP", "OBX_PAGE_BLOCK"},         {OBX_CNTX_BLOCK, "OBXX", "OBX_CNTX_BLOCK"},
        {4, "____", "Unknown block"},                       {7, "____", "Unknown block"},
    };
    for (const auto& c : cases) {
        uint8_t block[5] = {'_', '_', '_', '_', '!'};
        obx_block_magic_set(block, c.type);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 5), std::string(c.magic) + "!") << c.type;
        EXPECT_STREQ(obx_block_type_name(c.type), c.name);
        if (c.type != 4 && c.type != 7) {
            EXPECT_EQ(obx_block_type_get(block), c.type);
        }
    }
    const uint8_t cntx[4] = {'C', 'N', 'T', 'X'};
    EXPECT_EQ(obx_block_type_get(cntx), static_cast<uint32_t>(OBX_CNTX_BLOCK));
}

TEST(DataFileFormat, SchemaIdSlotsOfTheHeader) {
    obx_data_file_header_t header;
    std::memset(&header, 0, sizeof(header));
    for (unsigned i = 0; i < 16; ++i) header.event_schema_ids[6][i] = static_cast<uint8_t>(0xf0 + i);
    char* last = obx_data_file_header_get_schema_id_string(&header, 6);
    ASSERT_NE(last, nullptr);
    EXPECT_STREQ(last, "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    std::free(last);
    EXPECT_EQ(obx_data_file_header_get_schema_id_string(&header, 7), nullptr);  // seven slots
    EXPECT_EQ(obx_data_file_header_get_schema_id_string(nullptr, 0), nullptr);
}
