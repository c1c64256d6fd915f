// The data file format (header, block heads, encoded pages) and the life of one input file: header checks, the JSON frame, the chunk walk and the
// page walk, on files laid out by the fixture builders.
#include "data/reader/reader_context.h"
#include "data/format/data_file_format.h"
#include "data/format/encoded_payload.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "fixtures/temp_dir.h"
#include "tools/read_options.h"

namespace {

using namespace obx_test;
using Lines = std::vector<std::string>;

// Every buffer as the walk handed it on: "chunk:" or "page:" (decoded), then its bytes.
std::vector<std::string> g_handed;
bool g_handler_result = true;

bool record_buffer(obx_reader_context_t*, const uint8_t* data, size_t size, bool in_compressed) { return g_handed.push_back((in_compressed ? "page:" : "chunk:") + std::string(data, data + size)), g_handler_result; }
std::string as(const char* kind, const Bytes& bytes) { return kind + std::string(bytes.begin(), bytes.end()); }

Bytes with_magic(const std::string& magic, size_t size, uint8_t fill) { Bytes bytes(magic.begin(), magic.end()); bytes.resize(size, fill); return bytes; }
FileHeaderFields header(uint32_t block_size) { FileHeaderFields head; head.block_size = block_size; return head; }
// A frame of `page` with the fields `set` changes.
template <class Set> Bytes frame(const Bytes& page, Set set) { FrameFields fields; set(fields); return page_frame(page, fields); }

// Options for one test, a temp folder for its input file, and the buffer recorder.
class ReaderTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(obx_read_options_init(&options_));
        free(options_.schema_path), options_.schema_path = strdup(dir_.path().c_str());
        previous_ = obx_reader_set_buffer_handler(record_buffer), g_handler_result = true;
    }
    void TearDown() override { obx_reader_set_buffer_handler(previous_); obx_read_options_release(&options_); }
    // Processes `bytes` as the file a.bin (written through gzip when asked). What the
    // processor wrote lands in out_ and err_ (its report, without the leading "Failed
    // processing file <path>: "), what it handed on in g_handed.
    bool process(const Bytes& bytes, bool gzip = false) {
        write_file(path_, bytes, gzip), g_handed.clear();
        testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
        const bool ok = obx_reader_process_file(path_.c_str(), &options_, true);
        err_ = testing::internal::GetCapturedStderr();
        const std::string lead = "Failed processing file " + path_ + ": ";
        if (err_.rfind(lead, 0) == 0) err_ = err_.substr(lead.size());
        out_ = testing::internal::GetCapturedStdout();
        return ok;
    }

    TempDir dir_;
    const std::string path_ = dir_.file("a.bin");
    obx_read_options_t options_{};
    obx_reader_buffer_handler_t previous_ = nullptr;
    std::string out_, err_;
};

// A file of exactly 256 bytes is valid with an empty body; a header that fails leaves no
// key behind, and -p prints the header before anything checks it. The block size is
// printed signed.
TEST_F(ReaderTest, HeaderChecksInOrder) {
    // How the header is changed, and the report (empty when the file passes).
    const std::string in_range = " must be in range between 16 and 125829120 bytes ";
    const std::pair<void (*)(FileHeaderFields&), std::string> cases[] = {
        {[](FileHeaderFields& s) { s.block_size = 16; }, ""},
        {[](FileHeaderFields& s) { s.block_size = 0x77FFFFF; }, ""},
        {[](FileHeaderFields& s) { s.magic = "OBXG"; s.block_size = 0; }, "Invalid data file header"},
        {[](FileHeaderFields& s) { s.block_size = 15; }, "Block size 15" + in_range},
        {[](FileHeaderFields& s) { s.block_size = 0x7800000; }, "Block size 125829120" + in_range},
        {[](FileHeaderFields& s) { s.block_size = 0xFFFFFFFF; }, "Block size -1" + in_range},
        {[](FileHeaderFields& s) { s.event_schema_ids = {"0123456789abcdef0123456789abcdef"}; }, "Failed to load type system"},
    };
    for (const bool print : {false, true}) {
        options_.print_headers = print;
        for (const auto& [change, expected] : cases) {
            SCOPED_TRACE(expected + (print ? " (-p)" : ""));
            FileHeaderFields head = header(64);
            change(head);
            EXPECT_EQ(process(file_header(head)), expected.empty());
            EXPECT_EQ(err_, expected.empty() ? "" : expected + "\n");
            const std::string end = " end magic number     = obxf\n";  // -p: the header first, then the key
            EXPECT_EQ(out_.rfind("Data file header\n", 0) == 0, print) << out_;
            EXPECT_EQ(out_.substr(print ? out_.find(end) + end.size() : 0), expected.empty() ? "\"a\":[]" : "");
        }
    }
}

// The body is cut into block_size chunks, handed on unchanged; only a tail of 1 to 3
// bytes is refused. The frames of a page chunk are decoded in turn; one that does not fit
// what is left of the chunk, or lacks its trailer, ends that chunk without a word and the
// walk goes on; one that fits but does not decode ends the file. A failed walk leaves the
// file's array open. Plain and gzip-wrapped files walk alike.
TEST_F(ReaderTest, BodyWalkOverChunksAndFrames) {
    const Bytes block = chunk(with_magic("OBXD", 16, 1), 512), tail = with_magic("OBXE", 20, 2), four = with_magic("OBXD", 4, 0);
    const Bytes page_a = with_magic("OBXE", 100, 0x11), page_b = with_magic("OBXD", 60, 0x22), page_c = with_magic("CNTX", 33, 0x33);
    // 4 + H + S is 258 once cut to 32 bits: a trailer stands there.
    Bytes lying = frame(page_b, [](FrameFields& f) { f.header_size = 255; f.stream_size = 0xFFFFFFFFu; });
    lying.resize(258), lying.insert(lying.end(), {'o', 'b', 'x', 'p'});
    const Bytes frame_a = page_frame(page_a), frame_b = frame(page_b, [](FrameFields& f) { f.codec = Codec::snappy; }), frame_c = page_frame(page_c);
    const auto pad = [](const std::vector<Bytes>& parts) { return chunk(concat(parts), 512); };
    const std::string no_header = "No data block header read from the file ";  // and the path
    // The body behind the header, what is handed on, and a line logged at error: "" when the
    // file passes, "-" for a failure with only its report.
    const struct { const char* name; Bytes body; std::vector<std::string> handed; std::string error; } cases[] = {
        {"three bytes", Bytes(3, 7), {}, no_header},
        {"four bytes", four, {as("chunk:", four)}, ""},
        {"chunk and short tail", concat({block, tail}), {as("chunk:", block), as("chunk:", tail)}, ""},
        {"gzip, snappy, gzip", pad({frame_a, frame_b, frame_c}), {as("page:", page_a), as("page:", page_b), as("page:", page_c)}, ""},
        {"pages, plain chunk", concat({pad({frame_b}), block, pad({frame_a})}), {as("page:", page_b), as("chunk:", block), as("page:", page_a)}, ""},
        {"wrong 2nd trailer", concat({pad({frame_a, frame(page_b, [](FrameFields& f) { f.trailer = "obxq"; }), frame_b}), pad({frame_b})}), {as("page:", page_a), as("page:", page_b)}, ""},
        {"stream past the chunk", concat({pad({frame_a, lying}), pad({frame_b})}), {as("page:", page_a), as("page:", page_b)}, ""},
        {"sizes past the bytes read", concat({frame_a, with_magic("OBXP", 6, 'G')}), {as("page:", page_a)}, ""},
        {"ISIZE one short", pad({frame(page_a, [](FrameFields& f) { f.isize = 99; })}), {}, "-"},
        {"ISIZE above the limit", pad({frame(page_a, [](FrameFields& f) { f.isize = 0x50000000; })}), {}, "Encoded page of 1342177280 bytes is larger than the limit of 1073741824 bytes"},
    };
    for (const auto& c : cases) {
        for (const bool gzip : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (gzip ? " (gzip)" : " (plain)"));
            LogCapture log;
            EXPECT_EQ(process(concat({file_header(header(512)), c.body}), gzip), c.error.empty());
            EXPECT_EQ(g_handed, c.handed);
            EXPECT_EQ(out_ + err_, c.error.empty() ? "\"a\":[]" : "\"a\":[Failed to process data file " + path_ + "\n");
            EXPECT_TRUE(c.error == "-" || (c.error.empty() ? log.at(3).empty() : log.has(c.error) || log.has(c.error + path_))) << log.all();
        }
    }
    // A trailer that ends exactly where the chunk ends belongs to a whole frame.
    EXPECT_TRUE(process(concat({file_header(header(static_cast<uint32_t>(frame_a.size()))), frame_a, frame_a})));
    EXPECT_EQ(g_handed, (std::vector<std::string>{as("page:", page_a), as("page:", page_a)}));
    // A refused buffer ends the file: no chunk is read after it.
    g_handler_result = false;
    EXPECT_FALSE(process(data_file(header(512), {block, block})));
    EXPECT_EQ(g_handed.size(), 1u);
}

// A damaged gzip wrapping fails the file with zlib's words, never a huge length handed
// on and never a silent end. A small file is inflated whole while its header is read.
TEST_F(ReaderTest, DamagedGzipWrappingFailsWithZlibsWords) {
    for (const size_t chunks : {2u, 64u}) {
        Bytes file = file_header(header(1024));
        uint32_t seed = 12345;  // noise, so that the stream is read in many pieces
        for (size_t b = 0; b < chunks * 1024; ++b, seed = seed * 1103515245u + 12345u)
            file.push_back(static_cast<uint8_t>(b % 1024 < 4 ? "OBXD"[b % 1024] : seed >> 16));
        Bytes bad_crc = gzip_compress(file);
        const Bytes cut(bad_crc.begin(), bad_crc.end() - 12);
        bad_crc[bad_crc.size() - 6] ^= 0xFF;  // inside the CRC of the gzip trailer
        for (const auto& [damaged, reason] : {std::pair{bad_crc, "incorrect data check"}, std::pair{cut, "unexpected end of file"}}) {
            SCOPED_TRACE(reason + (" in " + std::to_string(chunks)) + " chunks");
            LogCapture log;
            EXPECT_FALSE(process(damaged));
            EXPECT_EQ(err_, (chunks == 2 ? std::string("Failed reading data file header: ") + reason : "Failed to process data file " + path_) + "\n");
            EXPECT_EQ(log.has("Failed to read data file " + path_ + ": " + reason), chunks == 64) << log.all();
            EXPECT_LT(g_handed.size(), chunks);
            for (const std::string& h : g_handed) EXPECT_EQ(h.size(), 6 + 1024u);  // "chunk:" and a whole chunk
        }
    }
}

// The file-level date test only skips a file when both bounds are crossed; a bound
// equal to a timestamp is not crossed. Kept as it stands, though it looks wrong.
TEST_F(ReaderTest, FileLevelDateTestAsWritten) {
    const std::tuple<uint64_t, uint64_t, size_t> cases[] = {  // gt, lt, chunks walked
        {300, UINT64_MAX, 1}, {0, 50, 1}, {300, 50, 0}, {200, 100, 1}, {300, 100, 1}};
    FileHeaderFields head = header(64);
    head.first_timestamp = 100, head.last_timestamp = 200;
    for (const auto& [gt, lt, walked] : cases) {
        options_.timestamp_gt = gt, options_.timestamp_lt = lt;
        EXPECT_TRUE(process(data_file(head, {chunk(with_magic("OBXD", 16, 0), 64)})));
        EXPECT_EQ(std::to_string(g_handed.size()) + out_, std::to_string(walked) + "\"a\":[]") << gt << " " << lt;
    }
}

// ---- the header, block heads and encoded pages as the format lays them out ----

// The header laid out with the fields `change` sets, as the reader decodes it.
obx_data_file_header_t decoded(const std::function<void(FileHeaderFields&)>& change) {
    FileHeaderFields layout;
    obx_data_file_header_t header;
    return change(layout), obx_data_file_header_decode(file_header(layout).data(), &header), header;
}

// Magic first, then the version (major 1, minor up to 7, any patch), then the file size.
// The end magic, byte order and block size are not looked at here.
TEST(DataFileHeader, ValidationChecksMagicVersionAndSizeInThatOrder) {
    const std::string v = "Version of data page ", tail = " is incompatible with Ombrix version 1.22.1";
    const struct { std::function<void(FileHeaderFields&)> change; std::string error; } cases[] = {
        {[](FileHeaderFields& s) { s.magic_end = "XXXX"; s.byte_order = 7; s.block_size = 0; s.version_patch = 65535; }, ""},
        {[](FileHeaderFields& s) { s.version_minor = 8; }, v + "1.8.0" + tail},
        {[](FileHeaderFields& s) { s.version_major = 0; }, v + "0.7.0" + tail},
        {[](FileHeaderFields& s) { s.file_size = 255; }, "Wrong data file size 255 is less then file header size 256"},
        {[](FileHeaderFields& s) { s.file_size = ~0ull; }, ""},  // compared unsigned
        {[](FileHeaderFields& s) { s.magic = "OBXQ"; s.version_major = 9; s.file_size = 1; }, "Wrong data page magic number."},
        {[](FileHeaderFields& s) { s.version_minor = 9; s.file_size = 1; }, v + "1.9.0" + tail},
    };
    for (const auto& c : cases) {
        const obx_data_file_header_t header = decoded(c.change);
        LogCapture log;
        EXPECT_EQ(obx_data_file_header_validate(&header), c.error.empty()) << c.error;
        EXPECT_EQ(log.at(3), c.error.empty() ? Lines{} : Lines{c.error});
    }
}

// Every field has a distinct value, so this also checks the offset each one is decoded from.
TEST(DataFileHeader, PrintGivesEveryLineByteForByteInsideUnterminatedFields) {
    const obx_data_file_header_t header = decoded([](FileHeaderFields& s) {
        s.version_major = 255, s.version_minor = 254, s.version_patch = 65535, s.file_size = ~0ull, s.byte_order = 2, s.source_id = std::string(64, 'a'), s.source_tag = std::string(16, 'b');
        s.counters_schema_id = "00112233445566778899aabbccddeeff", s.event_schema_ids = {"0123456789abcdefFEDCBA9876543210", "", "", "", "", "", "ffeeddccbbaa99887766554433221100"};
        s.magic_end = std::string("ob\0f", 4);  // cut at the zero, padded to four
    });
    std::string zeros;
    for (int slot = 1; slot < 6; ++slot) zeros += " schema id[" + std::to_string(slot) + "]         = " + std::string(32, '0') + "\n";
    EXPECT_EQ(written([&](FILE* s) { obx_data_file_header_print(s, &header); }),
              "Data file header\n magic number         = OBXF\n version              = 255.254.65535\n file size            = 18446744073709551615\n source id            = " + std::string(64, 'a') +
              "\n source tag           = " + std::string(16, 'b') + "\n first timestamp      = 1700000000000000\n last timestamp       = 1700000060000000\n data block size      = 4096\n"
              " counters schema id   = 00112233445566778899aabbccddeeff\n schema id[0]         = 0123456789abcdeffedcba9876543210\n" + zeros +
              " schema id[6]         = ffeeddccbbaa99887766554433221100\n byte order           = 2 (BE)\n end magic number     =   ob\n");
}

// Only the fourth byte decides: "CNTX" and "XXXE" are as good as "OBXX" and "OBXE".
TEST(BlockType, TheFourthByteAloneDecidesTheType) {
    const std::pair<const char*, uint32_t> cases[] = {{"OBXD", OBX_COUNTERS_BLOCK}, {"XXXE", OBX_EVENTS_BLOCK}, {"OBXS", OBX_SCHEMAS_BLOCK}, {"OBXB", OBX_BLOB_BLOCK},
                                                      {"OBXP", OBX_PAGE_BLOCK}, {"CNTX", OBX_CNTX_BLOCK}, {"OBXd", OBX_UNKNOWN_BLOCK}, {"OBX\0", OBX_UNKNOWN_BLOCK}};
    for (const auto& [magic, type] : cases) EXPECT_EQ(obx_block_type_get(reinterpret_cast<const uint8_t*>(magic)), type) << magic;
}

TEST(EncodedDecode, BrokenStreamsFailWithTheirMessages) {
    Bytes page(5000);
    for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i % 64 < 40 ? i / 64 : (i * 2654435761u) >> 24);
    const Bytes snappy_stream = snappy_compress(page), good = encoded_payload(page);
    const auto raw = [](uint8_t type, const Bytes& stream) { FrameFields f; f.codec = Codec::none; f.compression_type = type; return encoded_payload(stream, f); };
    const auto gzip = [&](auto set) { FrameFields f; set(f); return encoded_payload(page, f); };
    const std::string tag = "[encoded_data] ", z_failed = tag + "zlib decompression failed";
    // size: what obx_encoded_get_uncompressed_size gives; then the error lines of decoding into `size` bytes.
    // Sizes that point past the bytes there are added in 64 bits, so that a stream size near 4 GiB cannot wrap around.
    const struct { Bytes payload; size_t size; Lines decode_log; } cases[] = {
        {gzip([](FrameFields& f) { f.stream_size = 0xFFFFFFFFu; }), 0, {tag + "Error: encoded header of 33 bytes and stream of 4294967295 bytes run past the " + std::to_string(good.size()) + " bytes available"}},
        {Bytes(good.begin(), good.begin() + 23), 0, {tag + "Error: encoded header needs 24 bytes, only 23 available"}},
        {gzip([](FrameFields& f) { f.header_size = 23; }), 0, {tag + "Error: encoded header size 23 is below the minimum of 24 bytes"}},
        {raw('G', {0x1F}), 0, {tag + "Error: stream is not gzip compressed data", z_failed}},
        {gzip([](FrameFields& f) { f.isize = 5001; }), 5001, {tag + "zlib error while decompressing", z_failed}},  // ISIZE one too many
        {raw('S', Bytes(snappy_stream.begin(), snappy_stream.end() - 1)), 5000, {tag + "snappy decompression failed"}},
        {raw('Z', gzip_compress(page)), 0, {}},  // unknown compression types are silent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.decode_log) + " " + std::to_string(c.size));
        EXPECT_EQ(obx_encoded_get_uncompressed_size(c.payload.data(), c.payload.size()), c.size);
        LogCapture log;
        Bytes out(c.size + 100, 0xEE);  // bytes behind the stored size must stay untouched; the payload has its exact size for ASan
        EXPECT_FALSE(obx_encoded_decode_into(c.payload.data(), c.payload.size(), out.data(), c.size));
        EXPECT_EQ(log.at(3), c.decode_log);
        EXPECT_EQ(Bytes(out.begin() + c.size, out.end()), Bytes(100, 0xEE));
    }
}

}  // namespace
