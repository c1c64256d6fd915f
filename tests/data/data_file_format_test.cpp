#include "data/data_file_format.h"
#include "data/encoded_payload.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"

using namespace obx_test;
using Lines = std::vector<std::string>;

namespace {

obx_data_file_header_t decoded(const FileHeaderFields& layout) { obx_data_file_header_t header; obx_data_file_header_decode(file_header(layout).data(), &header); return header; }

}  // namespace

// Magic first, then the version (major 1, minor up to 7, any patch), then the file size.
// The end magic, byte order and block size are not looked at here.
TEST(DataFileHeader, ValidationChecksMagicVersionAndSizeInThatOrder) {
    const std::string v = "Version of data page ", tail = " is incompatible with Ombrix version 1.22.1";
    const struct { std::function<void(FileHeaderFields&)> change; std::string error; } cases[] = {
        {[](FileHeaderFields& s) { s.magic_end = "XXXX"; s.byte_order = 7; s.block_size = 0; s.version_patch = 65535; }, ""},
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
    layout.counters_schema_id = "00112233445566778899aabbccddeeff";
    layout.event_schema_ids = {"0123456789abcdefFEDCBA9876543210", "", "", "", "", "", "ffeeddccbbaa99887766554433221100"};
    layout.byte_order = 2;
    layout.magic_end = std::string("ob\0f", 4);  // cut at the zero, padded to four
    const obx_data_file_header_t header = decoded(layout);
    std::string zeros;
    for (int slot = 1; slot < 6; ++slot) zeros += " schema id[" + std::to_string(slot) + "]         = " + std::string(32, '0') + "\n";
    EXPECT_EQ(written([&](FILE* s) { obx_data_file_header_print(s, &header); }),
              "Data file header\n magic number         = OBXF\n version              = 255.254.65535\n file size            = 18446744073709551615\n source id            = " + std::string(64, 'a') +
              "\n source tag           = " + std::string(16, 'b') + "\n first timestamp      = 1700000000000000\n last timestamp       = 1700000060000000\n data block size      = 4096\n"
              " counters schema id   = 00112233445566778899aabbccddeeff\n schema id[0]         = 0123456789abcdeffedcba9876543210\n" + zeros +
              " schema id[6]         = ffeeddccbbaa99887766554433221100\n byte order           = 2 (BE)\n end magic number     =   ob\n");
}

// Only the fourth byte decides: "CNTX" and "XXXE" are as good as "OBXX" and "OBXE".
TEST(BlockType, NamesAndTheFourthByteThatAloneDecidesTheType) {
    const struct { const char* magic; uint32_t type; const char* name; } cases[] = {
        {"OBXD", OBX_COUNTERS_BLOCK, "OBX_COUNTERS_BLOCK"}, {"XXXE", OBX_EVENTS_BLOCK, "OBX_EVENTS_BLOCK"},
        {"OBXS", OBX_SCHEMAS_BLOCK, "OBX_SCHEMAS_BLOCK"},   {"OBXB", OBX_BLOB_BLOCK, "OBX_BLOB_BLOCK"},
        {"OBXP", OBX_PAGE_BLOCK, "OBX_PAGE_BLOCK"},         {"CNTX", OBX_CNTX_BLOCK, "OBX_CNTX_BLOCK"},
        {"OBXd", OBX_UNKNOWN_BLOCK, "Unknown block"},       {"OBX\0", OBX_UNKNOWN_BLOCK, "Unknown block"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(obx_block_type_get(reinterpret_cast<const uint8_t*>(c.magic)), c.type) << c.magic;
        EXPECT_STREQ(obx_block_type_name(c.type), c.name);
    }
    EXPECT_STREQ(obx_block_type_name(7), "Unknown block");
}

// The type index is 16 bits wide.
TEST(BlockHeads, EventHeadPrinterGivesItsTextByteForByte) {
    const Bytes event = event_block(3, 0x0105, 17, {}, 5);
    EXPECT_EQ(written([&](FILE* s) { obx_event_block_print(s, event.data()); }), "Event header\n magic number         = OBXE\n schema index         = 3\n type index           = 261\n number of events     = 17\n");
}

// A length byte, then the text cut at 255 bytes; nothing written past out_size.
TEST(PascalString, TooLongIsCutAndTooSmallABufferIsRefused) {
    const std::string l300(300, 'L'), tag = "[obx_copy_as_pascal_string_info_buffer] ";
    Bytes out(264, 0xEE);
    LogCapture log;
    EXPECT_EQ(obx_copy_as_pascal_string_info_buffer(l300.c_str(), 300, out.data(), 256), 256u);
    EXPECT_EQ(obx_copy_as_pascal_string_info_buffer("abc", 64, out.data() + 256, 3), 0u);
    EXPECT_EQ(out, concat({Bytes{255}, Bytes(255, 'L'), Bytes(8, 0xEE)}));
    EXPECT_EQ(log.at(3), (Lines{tag + "string of 300 bytes cannot fit pascal string, truncated to 255 characters",
                                tag + "buffer of 3 bytes is too small to accomodate string of 3 bytes"}));
}

TEST(EncodedDecode, BrokenStreamsFailWithTheirMessages) {
    Bytes page(5000);
    for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i % 64 < 40 ? i / 64 : (i * 2654435761u) >> 24);
    const Bytes snappy_stream = snappy_compress(page), good = encoded_payload(page), cut(good.begin(), good.end() - 1);
    const auto raw = [](uint8_t type, const Bytes& stream) { FrameFields f; f.codec = Codec::none; f.compression_type = type; return encoded_payload(stream, f); };
    const auto gzip = [&](auto set) { FrameFields f; set(f); return encoded_payload(page, f); };
    const std::string tag = "[encoded_data] ", not_gzip = tag + "Error: stream is not gzip compressed data", too_small = tag + "Error: Compressed data is too small";
    const std::string z_failed = tag + "zlib decompression failed", z_error = tag + "zlib error while decompressing", s_failed = tag + "snappy decompression failed";
    // Sizes that point past the bytes there, in 64 bits so that a stream size near 4 GiB cannot wrap around.
    const std::string past = tag + "Error: encoded header of 33 bytes and stream of ", available = " bytes available";
    const std::string cut_past = past + std::to_string(good.size() - 33) + " bytes run past the " + std::to_string(cut.size()) + available;
    const std::string huge_past = past + "4294967295 bytes run past the " + std::to_string(good.size()) + available;
    const std::string needs = tag + "Error: encoded header needs 24 bytes, only 23 available", below = tag + "Error: encoded header size 23 is below the minimum of 24 bytes";
    // size: what obx_encoded_get_uncompressed_size gives; then the error lines of that call and
    // of decoding into `size` bytes.
    const struct { Bytes payload; size_t size; Lines size_log, decode_log; } cases[] = {
        {cut, 0, {cut_past}, {cut_past}},
        {gzip([](FrameFields& f) { f.stream_size = 0xFFFFFFFFu; }), 0, {huge_past}, {huge_past}},
        {Bytes(good.begin(), good.begin() + 23), 0, {needs}, {needs}},
        {gzip([](FrameFields& f) { f.header_size = 23; }), 0, {below}, {below}},
        {raw('G', {0x1F}), 0, {not_gzip}, {not_gzip, z_failed}},
        {raw('G', {0x1F, 0x8B, 0x08}), 0, {too_small}, {too_small, z_failed}},
        {gzip([](FrameFields& f) { f.isize = 5001; }), 5001, {}, {z_error, z_failed}},  // ISIZE one too many
        {gzip([](FrameFields& f) { f.isize = 100; }), 100, {}, {z_failed}},             // ISIZE far too few
        {raw('S', Bytes(snappy_stream.begin(), snappy_stream.end() - 1)), 5000, {}, {s_failed}},
        {raw('Z', gzip_compress(page)), 0, {}, {}},  // unknown compression types are silent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.decode_log) + " " + std::to_string(c.size));
        LogCapture log;
        EXPECT_EQ(obx_encoded_get_uncompressed_size(c.payload.data(), c.payload.size()), c.size);
        EXPECT_EQ(log.at(3), c.size_log);
        log.clear();
        Bytes out(c.size + 100, 0xEE);  // bytes behind the stored size must stay untouched; the payload has its exact size for ASan
        EXPECT_FALSE(obx_encoded_decode_into(c.payload.data(), c.payload.size(), out.data(), c.size));
        EXPECT_EQ(log.at(3), c.decode_log);
        EXPECT_EQ(Bytes(out.begin() + c.size, out.end()), Bytes(100, 0xEE));
    }
}
