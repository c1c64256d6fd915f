#include "data/encoded_payload.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"

using namespace obx_test;

namespace {

// A page-like buffer with some structure, so compression has something to find.
Bytes sample_page(size_t size) {
    Bytes page(size);
    uint32_t state = 12345;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        page[i] = (i % 64 < 40) ? static_cast<uint8_t>(i / 64) : static_cast<uint8_t>(state >> 24);
    }
    return page;
}

// 80 bytes of source fields as a page holds them: id in 64 bytes, tag in 16, zero-padded.
std::string source_fields(const std::string& id, const std::string& tag) {
    std::string fields(OBX_OBXP_SOURCE_STRINGS_SIZE, '\0');
    fields.replace(0, std::min<size_t>(id.size(), 64), id.substr(0, 64));
    fields.replace(64, std::min<size_t>(tag.size(), 16), tag.substr(0, 16));
    return fields;
}

const char kErrorTag[] = "[encoded_data] ";

}  // namespace

// ---- encoded header -----------------------------------------------------------------------

TEST(EncodedHeader, ReadTakesTheFixedFieldsAtTheirOffsets) {
    FrameSpec spec;
    spec.codec = Codec::snappy;
    spec.first_timestamp = 0x0102030405060708ull;
    spec.last_timestamp = 0x1112131415161718ull;
    const Bytes payload = encoded_payload(sample_page(500), spec);
    obx_encoded_header_t header;
    ASSERT_TRUE(obx_encoded_header_read(payload.data(), payload.size(), &header));
    EXPECT_EQ(header.header_size, 24 + 6 + 3);
    EXPECT_EQ(header.compression_type, 'S');
    EXPECT_EQ(header.stream_size, payload.size() - header.header_size);
    EXPECT_EQ(header.first_timestamp, 0x0102030405060708ull);
    EXPECT_EQ(header.last_timestamp, 0x1112131415161718ull);
}

TEST(EncodedHeader, FieldsThatPointPastTheBytesThereAreRefused) {
    const Bytes good = encoded_payload(Bytes(40, 'x'), FrameSpec());
    FrameSpec small_h;
    small_h.header_size = 23;
    FrameSpec long_stream;
    long_stream.stream_size = 0xFFFFFFFFu;
    const size_t kWhole = SIZE_MAX;
    const struct {
        const char* name;
        Bytes payload;
        size_t available;  // kWhole: all of the payload
        bool ok;
        std::string message;
    } cases[] = {
        {"exact fit", good, good.size(), true, ""},
        {"stream one byte short", good, good.size() - 1, false,
         "[encoded_data] Error: encoded header of 33 bytes and stream of " +
             std::to_string(good.size() - 33) + " bytes run past the " + std::to_string(good.size() - 1) +
             " bytes available"},
        {"fewer bytes than the fixed header", good, 23, false,
         "[encoded_data] Error: encoded header needs 24 bytes, only 23 available"},
        {"nothing there", good, 0, false, "[encoded_data] Error: encoded header needs 24 bytes, only 0 available"},
        {"header size below the fixed part", encoded_payload(Bytes(40, 'x'), small_h), kWhole, false,
         "[encoded_data] Error: encoded header size 23 is below the minimum of 24 bytes"},
        {"stream size near 4 GiB", encoded_payload(Bytes(40, 'x'), long_stream), kWhole, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t available = c.available == kWhole ? c.payload.size() : c.available;
        ASSERT_LE(available, c.payload.size());
        // An exact-size copy, so that any read past `available` is caught by the sanitizers.
        const Bytes copy(c.payload.begin(), c.payload.begin() + available);
        const uint8_t* bytes = available ? copy.data() : c.payload.data();
        LogCapture log;
        obx_encoded_header_t header;
        EXPECT_EQ(obx_encoded_header_read(bytes, available, &header), c.ok);
        EXPECT_EQ(obx_encoded_get_uncompressed_size(bytes, available) != 0, c.ok);
        if (!c.message.empty()) {
            EXPECT_TRUE(log.has(c.message)) << log.all();
        }
        if (!c.ok) {
            EXPECT_FALSE(log.at(3).empty());
        }
    }
}

// ---- Pascal strings -----------------------------------------------------------------------

TEST(PascalString, CopiesLengthByteAndTextWithinTheBuffer) {
    const std::string long_text(300, 'L');
    const std::string id64 = std::string(64, 'I') + "JJJJ";  // no NUL within the first 64
    const struct {
        const char* name;
        const char* text;
        size_t max_length;
        size_t out_size;
        size_t result;
        Bytes stored;
        std::string message;
    } cases[] = {
        {"short text", "abc", 64, 10, 4, {3, 'a', 'b', 'c'}, ""},
        {"cut at max_length", "abcdef", 2, 10, 3, {2, 'a', 'b'}, ""},
        {"64 bytes without a NUL stored whole", id64.c_str(), 64, 65, 65, Bytes(), ""},
        {"empty text stores one zero byte", "", 16, 1, 1, {0}, ""},
        {"300 bytes truncated to 255", long_text.c_str(), 300, 256, 256, Bytes(),
         "[obx_copy_as_pascal_string_info_buffer] string of 300 bytes cannot fit pascal string, truncated to 255 "
         "characters"},
        {"no room for the length byte", "abc", 64, 3, 0, Bytes(),
         "[obx_copy_as_pascal_string_info_buffer] buffer of 3 bytes is too small to accomodate string of 3 bytes"},
        {"text longer than the buffer", "abcdef", 64, 2, 0, Bytes(),
         "[obx_copy_as_pascal_string_info_buffer] buffer of 2 bytes is too small to accomodate string of 6 bytes"},
        {"empty text, empty buffer", "", 16, 0, 0, Bytes(),
         "[obx_copy_as_pascal_string_info_buffer] buffer of 0 bytes is too small to accomodate string of 0 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out(c.out_size + 8, 0xEE);
        LogCapture log;
        EXPECT_EQ(obx_copy_as_pascal_string_info_buffer(c.text, c.max_length, out.data(), c.out_size), c.result);
        if (!c.stored.empty()) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + c.stored.size()), c.stored);
        }
        if (c.result) {
            EXPECT_EQ(out[0], c.result - 1);
            EXPECT_EQ(std::string(reinterpret_cast<char*>(&out[1]), c.result - 1), std::string(c.text, c.result - 1));
        }
        for (size_t i = c.result; i < out.size(); ++i) ASSERT_EQ(out[i], 0xEE) << "byte " << i << " written";
        if (c.message.empty())
            EXPECT_TRUE(log.at(3).empty()) << log.all();
        else
            EXPECT_TRUE(log.has(c.message)) << log.all();
    }
}

TEST(PascalString, HeaderSizeCountsBothStringsBoundedOrWhole) {
    const std::string full = std::string(64, 'i') + std::string(16, 't');  // no NUL anywhere
    const std::string mixed = source_fields("node01", "tag");
    const std::string long_id(100, 'x');
    EXPECT_EQ(obx_obxp_header_size(full.data()), 24u + 64 + 16);
    EXPECT_EQ(obx_obxp_header_size(mixed.data()), 24u + 6 + 3);
    EXPECT_EQ(obx_obxp_header_size(source_fields("", "").data()), 24u);
    EXPECT_EQ(obx_obxp_header_size("node01", "tag"), 24u + 6 + 3);
    EXPECT_EQ(obx_obxp_header_size(long_id.c_str(), ""), 24u + 100);
}

// ---- making headers -----------------------------------------------------------------------

TEST(ObxpHeader, CopyBuildsTheSameBytesAsTheFixtureBuilder) {
    const struct {
        const char* name;
        std::string id;
        std::string tag;
        uint8_t type;
        uint64_t stream_size;
    } cases[] = {
        {"ordinary", "node01", "tag", 'G', 1234},
        {"64-byte id without NUL", std::string(64, 'n'), "t", 'S', 7},
        {"empty tag", "host", "", 'G', 0},
        {"both empty", "", "", 'S', 0xFFFFFFFFu},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string fields = source_fields(c.id, c.tag);
        const obx_obxp_page_fields_t page = {111, 222, fields.data()};
        FrameSpec spec;
        spec.codec = Codec::none;
        spec.compression_type = c.type;
        spec.stream_size = static_cast<uint32_t>(c.stream_size);
        spec.first_timestamp = 111;
        spec.last_timestamp = 222;
        spec.source_id = c.id;
        spec.source_tag = c.tag;
        const Bytes expected = encoded_payload({}, spec);  // header only: the stream is empty

        Bytes out(expected.size() + 4, 0xEE);
        LogCapture log;
        EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, c.type, c.stream_size, out.data(), expected.size()),
                  expected.size());
        EXPECT_EQ(Bytes(out.begin(), out.begin() + expected.size()), expected);
        EXPECT_EQ(Bytes(out.begin() + expected.size(), out.end()), Bytes(4, 0xEE));
        EXPECT_TRUE(log.at(3).empty()) << log.all();

        char source[OBX_OBXP_SOURCE_STRINGS_SIZE];
        ASSERT_TRUE(obx_obxp_header_get_source(out.data(), expected.size(), source));
        EXPECT_EQ(std::string(source, sizeof(source)), fields);
    }
}

TEST(ObxpHeader, CopyFailsOrCutsWithItsMessages) {
    const std::string fields = source_fields("node01", "tag");  // H = 33
    const obx_obxp_page_fields_t page = {1, 2, fields.data()};
    {
        SCOPED_TRACE("buffer one byte short");
        Bytes out(40, 0xEE);
        LogCapture log;
        EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, 'G', 10, out.data(), 32), 0u);
        EXPECT_EQ(log.at(3), std::vector<std::string>{"[obx_copy_obxp_header_into_buffer] buffer of 32 bytes is too "
                                                      "small to accomodate OBXP header of 33 bytes"});
        EXPECT_EQ(out, Bytes(40, 0xEE));
    }
    {
        SCOPED_TRACE("stream size above 32 bits is reported and cut");
        Bytes out(33);
        LogCapture log;
        EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, 'G', 0x100000005ull, out.data(), out.size()), 33u);
        EXPECT_EQ(log.at(3), std::vector<std::string>{
                                 "[obx_copy_obxp_header_into_buffer] encoded stream size of 4294967301 bytes is too large"});
        EXPECT_EQ(obx_le_u32(out.data() + OBX_ENC_STREAM_SIZE), 5u);
    }
    {
        SCOPED_TRACE("no page");
        Bytes out(64);
        LogCapture log;
        EXPECT_EQ(obx_copy_obxp_header_into_buffer(nullptr, 'G', 1, out.data(), out.size()), 0u);
        EXPECT_EQ(log.at(3).size(), 1u);
    }
}

TEST(ObxpHeader, EmbedKeepsTheTemplatePrefixAndSetsNewStrings) {
    FrameSpec old_source;
    old_source.source_id = "a-much-longer-old-source";
    old_source.source_tag = "old";
    old_source.first_timestamp = 5;
    old_source.last_timestamp = 6;
    const Bytes page = sample_page(300);
    const Bytes templ = encoded_payload(page, old_source);

    FrameSpec new_source = old_source;
    new_source.source_id = "node01";
    new_source.source_tag = "tag";
    const Bytes expected = encoded_payload(page, new_source);
    const size_t expected_h = expected[0];

    const std::string fields = source_fields("node01", "tag");
    Bytes out(expected_h, 0xEE);
    EXPECT_EQ(obx_embed_obxp_header_into_buffer(templ.data(), templ.size(), fields.data(), out.data(), out.size()),
              expected_h);
    EXPECT_EQ(out, Bytes(expected.begin(), expected.begin() + expected_h));

    LogCapture log;
    EXPECT_EQ(obx_embed_obxp_header_into_buffer(templ.data(), 21, fields.data(), out.data(), out.size()), 0u);
    EXPECT_EQ(obx_embed_obxp_header_into_buffer(templ.data(), templ.size(), fields.data(), out.data(), expected_h - 1),
              0u);
    EXPECT_TRUE(log.has("[obx_embed_obxp_header_into_buffer] buffer of 32 bytes is too small to accomodate OBXP "
                        "header of 33 bytes"))
        << log.all();
}

// ---- source strings back ------------------------------------------------------------------

TEST(ObxpHeader, GetSourceFillsBothFieldsAndClearsWhatWasThere) {
    const struct {
        const char* name;
        std::string id;
        std::string tag;
    } cases[] = {
        {"ordinary", "node01", "tag"},
        {"full id and tag", std::string(64, 'i'), std::string(16, 't')},
        {"empty", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FrameSpec spec;
        spec.source_id = c.id;
        spec.source_tag = c.tag;
        const Bytes payload = encoded_payload(Bytes(10, 'p'), spec);
        char out[OBX_OBXP_SOURCE_STRINGS_SIZE];
        std::memset(out, 'Z', sizeof(out));  // left over from an earlier page
        ASSERT_TRUE(obx_obxp_header_get_source(payload.data(), payload.size(), out));
        EXPECT_EQ(std::string(out, sizeof(out)), source_fields(c.id, c.tag));
    }
}

TEST(ObxpHeader, GetSourceRefusesLengthsPastTheBytesOrNegative) {
    auto header_with = [](const Bytes& strings) {
        ByteWriter w;
        w.u8(static_cast<uint8_t>(24 + strings.size() - 2)).u8('G').u32(0).u64(0).u64(0).raw(strings);
        return w.take();
    };
    const struct {
        const char* name;
        Bytes strings;  // the bytes from offset 22 on
        bool ok;
        std::string id;
        std::string tag;
    } cases[] = {
        {"well formed", {2, 'a', 'b', 1, 'c'}, true, "ab", "c"},
        {"id longer than its field is cut at 64", [] {
             ByteWriter w;
             w.u8(70).text(std::string(70, 'q')).u8(1).text("t");
             return w.take();
         }(), true, std::string(64, 'q'), "t"},
        {"id with an inner NUL stops there", {3, 'a', 0, 'b', 0}, true, "a", ""},
        {"negative id length", {0x80, 'a', 'b', 1, 'c'}, false, "", ""},
        {"negative tag length", {1, 'a', 0xFF, 'c'}, false, "", ""},
        {"id runs past the end", {9, 'a', 'b'}, false, "", ""},
        {"no tag length byte", {2, 'a', 'b'}, false, "", ""},
        {"tag runs past the end", {1, 'a', 5, 'b'}, false, "", ""},
        {"no id length byte", {}, false, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes header = header_with(c.strings);
        char out[OBX_OBXP_SOURCE_STRINGS_SIZE];
        std::memset(out, 'Z', sizeof(out));
        LogCapture log;
        EXPECT_EQ(obx_obxp_header_get_source(header.data(), header.size(), out), c.ok);
        if (c.ok) {
            EXPECT_EQ(std::string(out, sizeof(out)), source_fields(c.id, c.tag));
        } else {
            EXPECT_EQ(std::string(out, sizeof(out)), std::string(sizeof(out), 'Z'));
            EXPECT_EQ(log.at(3).size(), 1u) << log.all();
        }
    }
}

// ---- decompression ------------------------------------------------------------------------

TEST(EncodedDecode, GzipAndSnappyPagesComeBackWhole) {
    const size_t sizes[] = {0, 1, 4096, 100000};
    const Codec codecs[] = {Codec::gzip, Codec::snappy};
    for (Codec codec : codecs) {
        for (size_t size : sizes) {
            SCOPED_TRACE(std::string(codec == Codec::gzip ? "gzip " : "snappy ") + std::to_string(size));
            const Bytes page = sample_page(size);
            FrameSpec spec;
            spec.codec = codec;
            const Bytes payload = encoded_payload(page, spec);
            LogCapture log;

            EXPECT_EQ(obx_encoded_get_uncompressed_size(payload.data(), payload.size()), size);
            Bytes out(size);
            EXPECT_TRUE(obx_encoded_decode_into(payload.data(), payload.size(), out.data(), out.size()));
            EXPECT_EQ(out, page);

            size_t allocated_size = 12345;
            uint8_t* allocated = obx_encoded_decode_alloc(payload.data(), payload.size(), &allocated_size);
            ASSERT_NE(allocated, nullptr);
            EXPECT_EQ(allocated_size, size);
            EXPECT_EQ(Bytes(allocated, allocated + allocated_size), page);
            std::free(allocated);
            EXPECT_TRUE(log.at(3).empty()) << log.all();
        }
    }
}

TEST(EncodedDecode, BrokenStreamsFailWithTheirMessages) {
    const Bytes page = sample_page(5000);
    const Bytes gzip_stream = gzip_compress(page);
    const Bytes snappy_stream = snappy_compress(page);
    auto raw = [](uint8_t type, const Bytes& stream) {
        FrameSpec spec;
        spec.codec = Codec::none;
        spec.compression_type = type;
        return encoded_payload(stream, spec);
    };
    auto gzip_with_isize = [&](uint32_t isize) {
        FrameSpec spec;
        spec.isize = isize;
        return encoded_payload(page, spec);
    };
    auto cut_snappy = [&] {
        Bytes cut(snappy_stream.begin(), snappy_stream.end() - 1);
        return raw('S', cut);
    };
    const std::string not_gzip = std::string(kErrorTag) + "Error: stream is not gzip compressed data";
    const std::string too_small = std::string(kErrorTag) + "Error: Compressed data is too small";
    const std::string zlib_error = std::string(kErrorTag) + "zlib error while decompressing";
    const std::string zlib_failed = std::string(kErrorTag) + "zlib decompression failed";
    const std::string snappy_failed = std::string(kErrorTag) + "snappy decompression failed";

    const struct {
        const char* name;
        Bytes payload;
        size_t size;                      // what obx_encoded_get_uncompressed_size gives
        std::vector<std::string> size_log;  // error lines of that call
        std::vector<std::string> decode_log;  // error lines of decoding into `size` bytes
    } cases[] = {
        {"one-byte gzip stream", raw('G', {0x1F}), 0, {not_gzip}, {not_gzip, zlib_failed}},
        {"empty gzip stream", raw('G', {}), 0, {not_gzip}, {not_gzip, zlib_error, zlib_failed}},
        {"gzip magic only", raw('G', {0x1F, 0x8B}), 0, {too_small}, {too_small, zlib_failed}},
        {"three gzip bytes", raw('G', {0x1F, 0x8B, 0x08}), 0, {too_small}, {too_small, zlib_failed}},
        {"snappy stream called gzip", raw('G', snappy_stream), 0, {not_gzip}, {not_gzip, zlib_error, zlib_failed}},
        {"ISIZE one too large", gzip_with_isize(5001), 5001, {}, {zlib_error, zlib_failed}},
        {"ISIZE one too small", gzip_with_isize(4999), 4999, {}, {zlib_failed}},
        {"ISIZE zero", gzip_with_isize(0), 0, {}, {zlib_failed}},
        {"snappy stream cut short", cut_snappy(), 5000, {}, {snappy_failed}},
        {"snappy length that is no varint", raw('S', Bytes(11, 0xFF)), 0, {}, {snappy_failed}},
        {"unknown compression type is silent", raw('Z', gzip_stream), 0, {}, {}},
        {"zero compression type is silent", raw(0, snappy_stream), 0, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        EXPECT_EQ(obx_encoded_get_uncompressed_size(c.payload.data(), c.payload.size()), c.size);
        EXPECT_EQ(log.at(3), c.size_log);
        log.clear();
        // One guard byte behind the stored size, which must stay untouched.
        Bytes out(c.size + 1, 0xEE);
        EXPECT_FALSE(obx_encoded_decode_into(c.payload.data(), c.payload.size(), out.data(), c.size));
        EXPECT_EQ(log.at(3), c.decode_log);
        EXPECT_EQ(out[c.size], 0xEE);
    }
}

TEST(EncodedDecode, LyingIsizeNeverWritesPastTheBuffer) {
    const Bytes page = sample_page(5000);
    FrameSpec spec;
    spec.isize = 100;
    const Bytes payload = encoded_payload(page, spec);
    Bytes out(200, 0xEE);
    LogCapture log;
    EXPECT_FALSE(obx_encoded_decode_into(payload.data(), payload.size(), out.data(), 100));
    EXPECT_EQ(Bytes(out.begin() + 100, out.end()), Bytes(100, 0xEE));
}

TEST(EncodedDecode, BufferOfAnotherSizeIsRefused) {
    const Bytes page = sample_page(1000);
    const Codec codecs[] = {Codec::gzip, Codec::snappy};
    for (Codec codec : codecs) {
        FrameSpec spec;
        spec.codec = codec;
        const Bytes payload = encoded_payload(page, spec);
        for (size_t size : {size_t{999}, size_t{1001}, size_t{0}}) {
            SCOPED_TRACE(size);
            Bytes out(size);
            LogCapture log;
            EXPECT_FALSE(obx_encoded_decode_into(payload.data(), payload.size(), out.data(), out.size()));
            EXPECT_EQ(log.at(3), std::vector<std::string>{"invalid buffer size to uncompress obxp data"});
        }
    }
}

TEST(EncodedDecode, AllocatingDecodeReportsItsOwnFailures) {
    const Bytes payload = encoded_payload(sample_page(100), FrameSpec());
    {
        LogCapture log;
        EXPECT_EQ(obx_encoded_decode_alloc(payload.data(), payload.size(), nullptr), nullptr);
        EXPECT_EQ(log.at(3), std::vector<std::string>{"'uncompressed_size' must be allocated"});
    }
    {
        FrameSpec spec;
        spec.isize = 101;
        const Bytes lying = encoded_payload(sample_page(100), spec);
        size_t size = 0;
        LogCapture log;
        EXPECT_EQ(obx_encoded_decode_alloc(lying.data(), lying.size(), &size), nullptr);
        EXPECT_EQ(size, 101u);
        EXPECT_FALSE(log.at(3).empty());
    }
    {
        size_t size = 77;
        LogCapture log;
        EXPECT_EQ(obx_encoded_decode_alloc(payload.data(), 10, &size), nullptr);
        EXPECT_EQ(size, 0u);
    }
}

TEST(EncodedDecode, DecompressDirectlyByType) {
    const Bytes page = sample_page(3000);
    const Bytes gzip_stream = gzip_compress(page);
    const Bytes snappy_stream = snappy_compress(page);
    const Bytes gzip_cut(gzip_stream.begin(), gzip_stream.begin() + gzip_stream.size() / 2);
    const struct {
        const char* name;
        uint8_t type;
        const Bytes* stream;
        size_t out_size;
        bool ok;
        std::vector<std::string> log;
    } cases[] = {
        {"gzip", 'G', &gzip_stream, 3000, true, {}},
        {"snappy", 'S', &snappy_stream, 3000, true, {}},
        {"snappy into a larger buffer", 'S', &snappy_stream, 4000, true, {}},
        {"snappy into a smaller buffer", 'S', &snappy_stream, 2999, false, {"[encoded_data] snappy decompression failed"}},
        {"gzip into a smaller buffer", 'G', &gzip_stream, 2999, false, {"[encoded_data] zlib decompression failed"}},
        {"gzip read as snappy", 'S', &gzip_stream, 3000, false, {"[encoded_data] snappy decompression failed"}},
        {"gzip stream cut short", 'G', &gzip_cut, 3000, false, {"[encoded_data] zlib decompression failed"}},
        {"unknown type", 'X', &gzip_stream, 3000, false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out(c.out_size);
        LogCapture log;
        EXPECT_EQ(obx_encoded_decompress(c.type, c.stream->data(), c.stream->size(), out.data(), out.size()), c.ok);
        EXPECT_EQ(log.at(3), c.log);
        if (c.ok) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + page.size()), page);
        }
    }
}
