#include "data/data_file_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"

using namespace obx_test;
using Lines = std::vector<std::string>;

namespace {

std::string capture(const std::function<void(FILE*)>& print) {
    char* buffer = nullptr;
    size_t length = 0;
    FILE* stream = open_memstream(&buffer, &length);
    print(stream);
    std::fclose(stream);
    std::string text(buffer, length);
    std::free(buffer);
    return text;
}

obx_data_file_header_t decoded(const FileHeaderFields& layout) {
    obx_data_file_header_t header;
    obx_data_file_header_decode(file_header(layout).data(), &header);
    return header;
}

const char* const kIdA = "00112233445566778899aabbccddeeff";

}  // namespace

TEST(DataFileHeader, ValidationChecksMagicVersionAndSizeInThatOrder) {
    const std::string v = "Version of data page ", tail = " is incompatible with Ombrix version 1.22.1";
    const struct { std::function<void(FileHeaderFields&)> change; std::string error; } cases[] = {
        {[](FileHeaderFields&) {}, ""},  // file size 256
        {[](FileHeaderFields& s) { s.magic_end = "XXXX"; s.byte_order = 7; s.block_size = 0; }, ""},
        {[](FileHeaderFields& s) { s.version_patch = 65535; s.version_minor = 0; }, ""},
        {[](FileHeaderFields& s) { s.version_minor = 8; }, v + "1.8.0" + tail},
        {[](FileHeaderFields& s) { s.version_major = 0; }, v + "0.7.0" + tail},
        {[](FileHeaderFields& s) { s.version_major = 2; s.version_minor = 0; s.version_patch = 3; }, v + "2.0.3" + tail},
        {[](FileHeaderFields& s) { s.file_size = 255; }, "Wrong data file size 255 is less then file header size 256"},
        {[](FileHeaderFields& s) { s.file_size = ~0ull; }, ""},  // compared unsigned
        {[](FileHeaderFields& s) { s.magic = "OBXQ"; s.version_major = 9; s.file_size = 1; }, "Wrong data page magic number."},
        {[](FileHeaderFields& s) { s.version_minor = 9; s.file_size = 1; }, v + "1.9.0" + tail},
    };
    for (const auto& c : cases) {
        FileHeaderFields layout;
        c.change(layout);
        const obx_data_file_header_t header = decoded(layout);
        LogCapture log;
        EXPECT_EQ(obx_data_file_header_validate(&header), c.error.empty()) << c.error;
        EXPECT_EQ(log.at(3), c.error.empty() ? Lines{} : Lines{c.error});
    }
}

// Every field has a distinct value, so this also checks the offset each one is decoded from.
TEST(DataFileHeader, PrintGivesEveryLineByteForByteInsideUnterminatedFields) {
    FileHeaderFields layout;
    layout.version_major = 255;
    layout.version_minor = 254;
    layout.version_patch = 65535;
    layout.file_size = ~0ull;
    layout.source_id = std::string(64, 'a');
    layout.source_tag = std::string(16, 'b');
    layout.counters_schema_id = kIdA;
    layout.event_schema_ids = {"0123456789abcdefFEDCBA9876543210", "", "", "", "", "", kIdA};
    layout.byte_order = 2;
    layout.magic_end = std::string("ob\0f", 4);  // cut at the zero, padded to four
    const obx_data_file_header_t header = decoded(layout);
    const std::string zeros = std::string(32, '0') + "\n";
    EXPECT_EQ(capture([&](FILE* s) { obx_data_file_header_print(s, &header); }),
              "Data file header\n"
              " magic number         = OBXF\n"
              " version              = 255.254.65535\n"
              " file size            = 18446744073709551615\n"
              " source id            = " + std::string(64, 'a') + "\n"
              " source tag           = " + std::string(16, 'b') + "\n"
              " first timestamp      = 1700000000000000\n"
              " last timestamp       = 1700000060000000\n"
              " data block size      = 4096\n"
              " counters schema id   = 00112233445566778899aabbccddeeff\n"
              " schema id[0]         = 0123456789abcdeffedcba9876543210\n"
              " schema id[1]         = " + zeros + " schema id[2]         = " + zeros +
              " schema id[3]         = " + zeros + " schema id[4]         = " + zeros +
              " schema id[5]         = " + zeros +
              " schema id[6]         = 00112233445566778899aabbccddeeff\n"
              " byte order           = 2 (BE)\n"
              " end magic number     =   ob\n");
    EXPECT_EQ(obx_data_file_header_get_schema_id_string(&header, 7), nullptr);  // slots 0 to 6 only
}

TEST(BlockType, NamesMagicsAndTheFourthByteThatAloneDecidesTheType) {
    const struct { uint32_t type; const char* name; std::string magic; } cases[] = {  // magic: what "????" becomes
        {OBX_COUNTERS_BLOCK, "OBX_COUNTERS_BLOCK", "OBXD"}, {OBX_EVENTS_BLOCK, "OBX_EVENTS_BLOCK", "OBXE"},
        {OBX_SCHEMAS_BLOCK, "OBX_SCHEMAS_BLOCK", "OBXS"},   {OBX_BLOB_BLOCK, "OBX_BLOB_BLOCK", "OBXB"},
        {OBX_UNKNOWN_BLOCK, "Unknown block", "????"},       {OBX_PAGE_BLOCK, "OBX_PAGE_BLOCK", "OBXP"},
        {OBX_CNTX_BLOCK, "OBX_CNTX_BLOCK", "OBXX"},         {7, "Unknown block", "????"},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(obx_block_type_name(c.type), c.name);
        uint8_t block[5] = {'?', '?', '?', '?', 0xEE};
        obx_block_magic_set(block, c.type);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 5), c.magic + "\xEE");
        EXPECT_EQ(obx_block_type_get(block), c.type < 7 ? c.type : OBX_UNKNOWN_BLOCK) << c.name;
    }
    EXPECT_EQ(obx_block_type_get(reinterpret_cast<const uint8_t*>("XXXE")), OBX_EVENTS_BLOCK);
    EXPECT_EQ(obx_block_type_get(reinterpret_cast<const uint8_t*>("CNTX")), OBX_CNTX_BLOCK);
    int known = 0;  // letters 0..255 behind "OBX": only the six above
    for (int letter = 0; letter < 256; ++letter) {
        const uint8_t magic[4] = {'O', 'B', 'X', static_cast<uint8_t>(letter)};
        known += obx_block_type_get(magic) != OBX_UNKNOWN_BLOCK;
    }
    EXPECT_EQ(known, 6);
}

TEST(BlockHeads, PrintersGiveTheirTextByteForByte) {
    const Bytes event = event_block(3, 0x0105, 17, {}, 5);
    const Bytes counters = counters_block(1700000000123456ull, {});
    const Bytes blob = blob_block(42, {1, 2, 3});
    const struct { std::function<void(FILE*)> print; std::string text; } cases[] = {
        {[&](FILE* s) { obx_event_block_print(s, event.data()); },
         "Event header\n magic number         = OBXE\n schema index         = 3\n"
         " type index           = 261\n number of events     = 17\n"},
        {[&](FILE* s) { obx_counters_block_print(s, counters.data()); },
         "Data block\n magic number         = OBXD\n last timestamp       = 1700000000123456\n"},
        {[&](FILE* s) { obx_blob_block_print(s, blob.data()); },
         "Blob block\n magic number         = OBXB\n timestamp            = 42\n data size            = 3\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(capture(c.print), c.text);
}

TEST(PageFrame, SizesAndTrailerAreCheckedAgainstTheBytesThere) {
    const Bytes frame = page_frame(Bytes(100, 'a'));
    obx_page_frame_t info;
    EXPECT_FALSE(obx_page_frame_read(frame.data(), OBX_PAGE_FRAME_MIN_READ - 1, &info));
    ASSERT_TRUE(obx_page_frame_read(frame.data(), OBX_PAGE_FRAME_MIN_READ, &info));
    EXPECT_EQ(obx_page_frame_size(&info), frame.size());
    EXPECT_TRUE(obx_page_frame_has_trailer(frame.data(), frame.size(), &info));
    EXPECT_FALSE(obx_page_frame_has_trailer(frame.data(), frame.size() - 1, &info));
    FrameFields wrong;
    wrong.trailer = "obxq";
    EXPECT_FALSE(obx_page_frame_has_trailer(page_frame(Bytes(100, 'a'), wrong).data(), frame.size(), &info));

    // A stream size near 4 GiB must not wrap the frame's end around to a small number.
    FrameFields lying;
    lying.header_size = 255;
    lying.stream_size = 0xFFFFFFFFu;
    const Bytes huge = page_frame(Bytes(10, 'a'), lying);
    ASSERT_TRUE(obx_page_frame_read(huge.data(), huge.size(), &info));
    EXPECT_EQ(obx_page_frame_stream_end(&info), 4ull + 255 + 0xFFFFFFFFull);
    EXPECT_FALSE(obx_page_frame_has_trailer(huge.data(), huge.size(), &info));
}
