// The life of one input file: header checks, the JSON frame, the chunk walk and the
// page walk, on files laid out by the fixture builders.
#include "data/reader_context.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "tools/read_options.h"

namespace {

using namespace obx_test;

// Every buffer as the walk handed it on: "chunk:" or "page:" (decoded), then its bytes.
std::vector<std::string> g_handed;
bool g_handler_result = true;

bool record_buffer(obx_reader_context_t*, const uint8_t* data, size_t size, bool in_compressed) {
    g_handed.push_back((in_compressed ? "page:" : "chunk:") + std::string(data, data + size));
    return g_handler_result;
}
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
        free(options_.schema_path);
        options_.schema_path = strdup(dir_.path().c_str());
        previous_ = obx_reader_set_buffer_handler(record_buffer);
        g_handler_result = true;
    }
    void TearDown() override { obx_reader_set_buffer_handler(previous_); obx_read_options_release(&options_); }
    // Processes `bytes` as the file a.bin (written through gzip when asked). What the
    // processor wrote lands in out_ and err_ (its report, without the leading "Failed
    // processing file <path>: "), what it handed on in g_handed.
    bool process(const Bytes& bytes, bool gzip = false) {
        write_file(path_, bytes, gzip);
        g_handed.clear();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
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
        {[](FileHeaderFields&) {}, ""},
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
            FileHeaderFields head = header(64);
            change(head);
            SCOPED_TRACE(expected + (print ? " (-p)" : ""));
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
    lying.resize(258);
    lying.insert(lying.end(), {'o', 'b', 'x', 'p'});
    const Bytes frame_a = page_frame(page_a), frame_b = frame(page_b, [](FrameFields& f) { f.codec = Codec::snappy; }), frame_c = page_frame(page_c);
    const Bytes a_and_c = concat({frame_a, frame_c});
    const auto pad = [](const std::vector<Bytes>& parts) { return chunk(concat(parts), 512); };
    const std::string no_header = "No data block header read from the file ";  // and the path
    // The body behind the header, what is handed on, and a line logged at error: "" when the
    // file passes, "-" for a failure with only its report.
    const struct { const char* name; Bytes body; std::vector<std::string> handed; std::string error; } cases[] = {
        {"empty body", {}, {}, ""},
        {"three bytes", Bytes(3, 7), {}, no_header},
        {"four bytes", four, {as("chunk:", four)}, ""},
        {"chunk and short tail", concat({block, tail}), {as("chunk:", block), as("chunk:", tail)}, ""},
        {"gzip, snappy, gzip", pad({frame_a, frame_b, frame_c}), {as("page:", page_a), as("page:", page_b), as("page:", page_c)}, ""},
        {"empty page", pad({page_frame({})}), {"page:"}, ""},
        {"pages, plain chunk", concat({pad({frame_b}), block, pad({frame_a})}), {as("page:", page_b), as("chunk:", block), as("page:", page_a)}, ""},
        {"wrong 2nd trailer", concat({pad({frame_a, frame(page_b, [](FrameFields& f) { f.trailer = "obxq"; }), frame_b}), pad({frame_b})}), {as("page:", page_a), as("page:", page_b)}, ""},
        {"stream past the chunk", concat({pad({frame_a, lying}), pad({frame_b})}), {as("page:", page_a), as("page:", page_b)}, ""},
        {"trailer past the bytes read", Bytes(a_and_c.begin(), a_and_c.end() - 2), {as("page:", page_a)}, ""},
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
            EXPECT_EQ(out_, c.error.empty() ? "\"a\":[]" : "\"a\":[");
            EXPECT_EQ(err_, c.error.empty() ? "" : "Failed to process data file " + path_ + "\n");
            const bool logged = c.error.size() > 1 ? log.has(c.error) || log.has(c.error + path_) : log.at(3).empty();
            EXPECT_TRUE(logged || c.error == "-") << log.all();
        }
    }
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
    head.first_timestamp = 100;
    head.last_timestamp = 200;
    for (const auto& [gt, lt, walked] : cases) {
        options_.timestamp_gt = gt;
        options_.timestamp_lt = lt;
        EXPECT_TRUE(process(data_file(head, {chunk(with_magic("OBXD", 16, 0), 64)})));
        EXPECT_EQ(g_handed.size(), walked) << gt << " " << lt;
        EXPECT_EQ(out_, "\"a\":[]");
    }
}

}  // namespace
