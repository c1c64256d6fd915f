#include "data/encoded_payload.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"

using namespace obx_test;
using Lines = std::vector<std::string>;

namespace {

// A page with runs and noise, so compression has something to find.
Bytes sample_page(size_t size) {
    Bytes page(size);
    for (size_t i = 0; i < size; ++i) page[i] = static_cast<uint8_t>(i % 64 < 40 ? i / 64 : (i * 2654435761u) >> 24);
    return page;
}

// 80 bytes of source fields as a page holds them: id in 64 bytes, tag in 16, zero-padded.
std::string source_fields(const std::string& id, const std::string& tag) {
    return (id + std::string(64, '\0')).substr(0, 64) + (tag + std::string(16, '\0')).substr(0, 16);
}

}  // namespace

TEST(EncodedHeader, ReadRefusesSizesPastTheBytesThere) {
    FrameFields small_h, long_stream;
    const Bytes good = encoded_payload(sample_page(500));
    small_h.header_size = 23;
    long_stream.stream_size = 0xFFFFFFFFu;  // must not wrap around
    const Bytes huge = encoded_payload(Bytes(40, 'x'), long_stream);
    auto past = [](size_t stream, size_t available) {
        return "[encoded_data] Error: encoded header of 33 bytes and stream of " + std::to_string(stream) +
               " bytes run past the " + std::to_string(available) + " bytes available";
    };
    const struct { Bytes payload; size_t available; std::string error; } cases[] = {
        {good, good.size() - 1, past(good.size() - 33, good.size() - 1)},
        {huge, huge.size(), past(0xFFFFFFFFu, huge.size())},
        {good, 23, "[encoded_data] Error: encoded header needs 24 bytes, only 23 available"},
        {encoded_payload(Bytes(40, 'x'), small_h), 60,
         "[encoded_data] Error: encoded header size 23 is below the minimum of 24 bytes"},
    };
    for (const auto& c : cases) {
        // An exact-size copy, so that any read past `available` is caught by the sanitizers.
        const Bytes copy(c.payload.begin(), c.payload.begin() + std::min(c.available, c.payload.size()));
        LogCapture log;
        EXPECT_EQ(obx_encoded_get_uncompressed_size(copy.data(), copy.size()), 0u);
        EXPECT_EQ(log.at(3), Lines{c.error});
    }
}

TEST(PascalString, CopiesLengthByteAndTextWithinTheBuffer) {
    const std::string l300(300, 'L'), id64 = std::string(64, 'I') + "JJJJ";  // no NUL within the first 64
    const std::string tag = "[obx_copy_as_pascal_string_info_buffer] ";
    const struct { const char* text; size_t max_length, out_size, result; std::string error; } cases[] = {
        {id64.c_str(), 64, 65, 65, ""},
        {"", 16, 1, 1, ""},
        {l300.c_str(), 300, 256, 256, tag + "string of 300 bytes cannot fit pascal string, truncated to 255 characters"},
        {"abc", 64, 3, 0, tag + "buffer of 3 bytes is too small to accomodate string of 3 bytes"},
    };
    for (const auto& c : cases) {
        Bytes out(c.out_size + 8, 0xEE);
        LogCapture log;
        EXPECT_EQ(obx_copy_as_pascal_string_info_buffer(c.text, c.max_length, out.data(), c.out_size), c.result);
        Bytes expected(out.size(), 0xEE);
        if (c.result) expected[0] = static_cast<uint8_t>(c.result - 1);
        std::copy(c.text, c.text + (c.result ? c.result - 1 : 0), expected.begin() + 1);
        EXPECT_EQ(out, expected) << c.out_size;
        EXPECT_EQ(log.at(3), c.error.empty() ? Lines{} : Lines{c.error});
    }
    EXPECT_EQ(obx_obxp_header_size((std::string(64, 'i') + std::string(16, 't')).data()), 24u + 64 + 16);
}

TEST(ObxpHeader, CopyBuildsTheBytesOfTheFixtureBuilderOrFailsWithItsMessages) {
    FrameFields layout;
    layout.codec = Codec::none;  // stored type 'N'
    layout.stream_size = 5;
    layout.source_id = std::string(64, 'n');
    const std::string fields = source_fields(layout.source_id, layout.source_tag);  // H = 24 + 64 + 3
    const obx_obxp_page_fields_t page = {layout.first_timestamp, layout.last_timestamp, fields.data()};
    Bytes out(95, 0xEE);
    LogCapture log;
    EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, 'N', 0x100000005ull, out.data(), 91), 91u);
    EXPECT_EQ(out, concat({encoded_payload({}, layout), Bytes(4, 0xEE)}));  // the stream size cut to 32 bits
    EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, 'G', 10, out.data(), 90), 0u);
    EXPECT_EQ(log.at(3), (Lines{"[obx_copy_obxp_header_into_buffer] encoded stream size of 4294967301 bytes is too large",
                                "[obx_copy_obxp_header_into_buffer] buffer of 90 bytes is too small to accomodate "
                                "OBXP header of 91 bytes"}));
}

TEST(ObxpHeader, GetSourceFillsBothFieldsOrRefusesLengthsPastTheBytesOrNegative) {
    const Bytes id70 = ByteWriter().u8(70).text(std::string(70, 'q')).u8(16).text(std::string(16, 't')).take();
    const struct { Bytes strings; std::string id, tag; } cases[] = {  // strings from offset 22 on; "?": refused
        {{2, 'a', 'b', 1, 'c'}, "ab", "c"}, {id70, std::string(64, 'q'), std::string(16, 't')},
        {{3, 'a', 0, 'b', 0}, "a", ""}, {{0x80, 'a', 'b', 1, 'c'}, "?", "?"}, {{1, 'a', 0xFF, 'c'}, "?", "?"},
        {{9, 'a', 'b'}, "?", "?"}, {{2, 'a', 'b'}, "?", "?"}, {{1, 'a', 5, 'b'}, "?", "?"},
    };
    for (const auto& c : cases) {
        const Bytes header = ByteWriter().u8(static_cast<uint8_t>(22 + c.strings.size())).u8('G').zeros(20)
                                 .raw(c.strings).take();
        char out[OBX_OBXP_SOURCE_STRINGS_SIZE];
        std::memset(out, 'Z', sizeof(out));  // left over from an earlier page
        LogCapture log;
        const bool ok = c.id != "?";
        EXPECT_EQ(obx_obxp_header_get_source(header.data(), header.size(), out), ok);
        EXPECT_EQ(std::string(out, sizeof(out)), ok ? source_fields(c.id, c.tag) : std::string(sizeof(out), 'Z'))
            << ::testing::PrintToString(c.strings);
        EXPECT_EQ(log.at(3).size(), ok ? 0u : 1u) << log.all();
    }
}

TEST(EncodedDecode, GzipAndSnappyPagesComeBackWholeIntoABufferOfTheStoredSize) {
    for (Codec codec : {Codec::gzip, Codec::snappy}) {
        for (size_t size : {size_t{0}, size_t{1}, size_t{100000}}) {
            SCOPED_TRACE(std::to_string(codec == Codec::gzip) + " " + std::to_string(size));
            const Bytes page = sample_page(size);
            FrameFields layout;
            layout.codec = codec;
            const Bytes payload = encoded_payload(page, layout);
            LogCapture log;
            Bytes out(size + 1);
            EXPECT_TRUE(obx_encoded_decode_into(payload.data(), payload.size(), out.data(), size));
            EXPECT_EQ(Bytes(out.begin(), out.end() - 1), page);
            for (size_t wrong : {size + 1, size - 1})
                EXPECT_FALSE(obx_encoded_decode_into(payload.data(), payload.size(), out.data(), wrong));
            EXPECT_EQ(log.at(3), Lines(2, "invalid buffer size to uncompress obxp data"));
        }
    }
}

TEST(EncodedDecode, BrokenStreamsFailWithTheirMessages) {
    const Bytes page = sample_page(5000), snappy_stream = snappy_compress(page);
    auto payload = [&](uint8_t type, const Bytes& stream, std::optional<uint32_t> isize = std::nullopt) {
        FrameFields layout;
        layout.codec = isize ? Codec::gzip : Codec::none;
        layout.compression_type = type;
        layout.isize = isize;
        return encoded_payload(isize ? page : stream, layout);
    };
    const std::string tag = "[encoded_data] ", not_gzip = tag + "Error: stream is not gzip compressed data";
    const std::string too_small = tag + "Error: Compressed data is too small", z_failed = tag + "zlib decompression failed";
    const std::string z_error = tag + "zlib error while decompressing", s_failed = tag + "snappy decompression failed";
    // size: what obx_encoded_get_uncompressed_size gives; then the error lines of that call and
    // of decoding into `size` bytes.
    const struct { Bytes payload; size_t size; Lines size_log, decode_log; } cases[] = {
        {payload('G', {0x1F}), 0, {not_gzip}, {not_gzip, z_failed}},
        {payload('G', {}), 0, {not_gzip}, {not_gzip, z_error, z_failed}},
        {payload('G', {0x1F, 0x8B, 0x08}), 0, {too_small}, {too_small, z_failed}},
        {payload('G', {}, 5001), 5001, {}, {z_error, z_failed}},
        {payload('G', {}, 100), 100, {}, {z_failed}},
        {payload('S', Bytes(snappy_stream.begin(), snappy_stream.end() - 1)), 5000, {}, {s_failed}},
        {payload('S', Bytes(11, 0xFF)), 0, {}, {s_failed}},
        {payload('Z', gzip_compress(page)), 0, {}, {}},  // unknown compression types are silent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.decode_log) + " " + std::to_string(c.size));
        LogCapture log;
        EXPECT_EQ(obx_encoded_get_uncompressed_size(c.payload.data(), c.payload.size()), c.size);
        EXPECT_EQ(log.at(3), c.size_log);
        log.clear();
        Bytes out(c.size + 100, 0xEE);  // bytes behind the stored size must stay untouched
        EXPECT_FALSE(obx_encoded_decode_into(c.payload.data(), c.payload.size(), out.data(), c.size));
        EXPECT_EQ(log.at(3), c.decode_log);
        EXPECT_EQ(Bytes(out.begin() + c.size, out.end()), Bytes(100, 0xEE));
    }
}
