// The life of one input file: header checks, the JSON frame, the chunk walk and the
// page walk, on files laid out by the fixture builders.
#include "data/reader_context.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
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
std::string as_chunk(const Bytes& bytes) { return "chunk:" + std::string(bytes.begin(), bytes.end()); }
std::string as_page(const Bytes& bytes) { return "page:" + std::string(bytes.begin(), bytes.end()); }

Bytes with_magic(const std::string& magic, size_t size, uint8_t fill) {
    Bytes bytes(magic.begin(), magic.end());
    bytes.resize(size, fill);
    return bytes;
}

FileHeaderFields header(uint32_t block_size = 64) {
    FileHeaderFields head;
    head.block_size = block_size;
    return head;
}

std::string report(const std::string& path, const std::string& text) {
    return "Failed processing file " + path + ": " + text + "\n";
}

// Options for one test, a temp folder for its files, and the buffer recorder.
class ReaderTest : public testing::Test {
protected:
    void SetUp() override {
        std::memset(&options_, 0, sizeof(options_));
        ASSERT_TRUE(obx_read_options_init(&options_));
        free(options_.schema_path);
        options_.schema_path = strdup(dir_.path().c_str());
        g_handler_result = true;
        previous_ = obx_reader_set_buffer_handler(record_buffer);
    }
    void TearDown() override {
        obx_reader_set_buffer_handler(previous_);
        obx_read_options_release(&options_);
    }
    std::string file(const std::string& name, const Bytes& bytes, bool gzip = false) {
        write_file(dir_.file(name), bytes, gzip);
        return dir_.file(name);
    }
    // What the file processor wrote lands in out_ and err_, what it handed on in g_handed.
    bool process(const std::string& path, bool is_first = true) {
        g_handed.clear();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool ok = obx_reader_process_file(path.c_str(), &options_, is_first);
        err_ = testing::internal::GetCapturedStderr();
        out_ = testing::internal::GetCapturedStdout();
        return ok;
    }

    TempDir dir_;
    obx_read_options_t options_;
    obx_reader_buffer_handler_t previous_ = nullptr;
    std::string out_, err_;
};

// A file of exactly 256 bytes is valid with an empty body; a header that fails leaves no
// key behind, and -p prints the header before anything checks it.
TEST_F(ReaderTest, HeaderChecksInOrder) {
    // How the header is changed, and the report behind "Failed processing file <path>: "
    // (empty when the file passes).
    const std::string in_range = " must be in range between 16 and 125829120 bytes ";
    const std::pair<void (*)(FileHeaderFields&), std::string> cases[] = {
        {[](FileHeaderFields&) {}, ""},
        {[](FileHeaderFields& s) { s.block_size = 16; }, ""},
        {[](FileHeaderFields& s) { s.block_size = 0x77FFFFF; }, ""},
        {[](FileHeaderFields& s) { s.magic = "OBXG"; }, "Invalid data file header"},
        {[](FileHeaderFields& s) { s.block_size = 15; }, "Block size 15" + in_range},
        {[](FileHeaderFields& s) { s.block_size = 0x7800000; }, "Block size 125829120" + in_range},
        {[](FileHeaderFields& s) { s.block_size = 0xFFFFFFFF; }, "Block size -1" + in_range},
        {[](FileHeaderFields& s) { s.event_schema_ids = {"0123456789abcdef0123456789abcdef"}; },
         "Failed to load type system"},
    };
    for (const bool print : {false, true}) {
        options_.print_headers = print;
        for (const auto& [change, expected] : cases) {
            FileHeaderFields head = header();
            change(head);
            SCOPED_TRACE(expected + (print ? " (-p)" : ""));
            const std::string path = file("a.bin", file_header(head));
            EXPECT_EQ(process(path), expected.empty());
            EXPECT_EQ(err_, expected.empty() ? "" : report(path, expected));
            const std::string key = expected.empty() ? "\"a\":[]" : "";
            if (print) {  // the header first, then the key of a file that passes
                EXPECT_EQ(out_.rfind("Data file header\n", 0), 0u) << out_;
                EXPECT_EQ(out_.find("\"a\":["), key.empty() ? std::string::npos : out_.size() - key.size()) << out_;
            } else {
                EXPECT_EQ(out_, key);
            }
        }
    }
}

// The body is cut into block_size chunks, handed on unchanged; only a tail of 1 to 3
// bytes is refused. The frames of a page chunk are decoded in turn; one that does not fit
// what is left of the chunk, or lacks its trailer, ends that chunk without a word and the
// walk goes on; one that fits but does not decode ends the file. A failed walk leaves the
// file's array open. Plain and gzip-wrapped files walk alike.
TEST_F(ReaderTest, BodyWalkOverChunksAndFrames) {
    const Bytes block = chunk(with_magic("OBXD", 16, 1), 512), tail = with_magic("OBXE", 20, 2);
    const Bytes four = with_magic("OBXD", 4, 0), zeros(512, 0);
    const Bytes page_a = with_magic("OBXE", 100, 0x11), page_b = with_magic("OBXD", 60, 0x22);
    const Bytes page_c = with_magic("CNTX", 33, 0x33);
    FrameFields snappy, bad_trailer, too_long, long_source, wrong_isize, huge_isize;
    snappy.codec = Codec::snappy;
    bad_trailer.trailer = "obxq";
    too_long.stream_size = 100000;
    long_source.source_id = std::string(64, 'n');
    long_source.source_tag = std::string(16, 't');
    wrong_isize.isize = 99;
    huge_isize.isize = 0x50000000;
    const Bytes frame_a = page_frame(page_a), frame_b = page_frame(page_b, snappy), frame_c = page_frame(page_c);
    const Bytes a_and_c = concat({frame_a, frame_c});
    const auto pad = [](const std::vector<Bytes>& parts) { return chunk(concat(parts), 512); };
    const std::string no_header = "No data block header read from the file ";  // and the path
    const struct {
        const char* name;
        Bytes body;  // behind the header
        std::vector<std::string> handed;
        std::string error;  // logged at error; "" when the file passes, "-" for a failure with only its report
    } cases[] = {
        {"empty body", {}, {}, ""},
        {"one byte", Bytes(1, 7), {}, no_header},
        {"three bytes", Bytes(3, 7), {}, no_header},
        {"four bytes", four, {as_chunk(four)}, ""},
        {"two chunks", concat({block, block}), {as_chunk(block), as_chunk(block)}, ""},
        {"chunk and short tail", concat({block, tail}), {as_chunk(block), as_chunk(tail)}, ""},
        {"chunk and three bytes", concat({block, Bytes(3, 2)}), {as_chunk(block)}, no_header},
        {"zero-filled chunk", zeros, {as_chunk(zeros)}, ""},
        {"gzip frame", pad({frame_a}), {as_page(page_a)}, ""},
        {"snappy frame", pad({frame_b}), {as_page(page_b)}, ""},
        {"back to back", pad({frame_a, frame_b, frame_c}), {as_page(page_a), as_page(page_b), as_page(page_c)}, ""},
        {"full-length source strings", pad({page_frame(page_c, long_source)}), {as_page(page_c)}, ""},
        {"pages, plain chunk", concat({pad({frame_b}), block, pad({frame_a})}),
         {as_page(page_b), as_chunk(block), as_page(page_a)}, ""},
        {"wrong 2nd trailer", concat({pad({frame_a, page_frame(page_b, bad_trailer), frame_b}), pad({frame_b})}),
         {as_page(page_a), as_page(page_b)}, ""},
        {"wrong 1st trailer", concat({pad({page_frame(page_a, bad_trailer)}), pad({frame_b})}),
         {as_page(page_b)}, ""},
        {"stream past the chunk", concat({pad({frame_a, page_frame(page_b, too_long)}), pad({frame_b})}),
         {as_page(page_a), as_page(page_b)}, ""},
        {"trailer past the bytes read", Bytes(a_and_c.begin(), a_and_c.end() - 2), {as_page(page_a)}, ""},
        {"sizes past the bytes read", concat({frame_a, with_magic("OBXP", 6, 'G')}), {as_page(page_a)}, ""},
        {"stream past the bytes read", concat({frame_a, Bytes(frame_b.begin(), frame_b.begin() + 20)}),
         {as_page(page_a)}, ""},
        {"ISIZE one short", pad({page_frame(page_a, wrong_isize)}), {}, "-"},
        {"ISIZE above the limit", pad({page_frame(page_a, huge_isize)}), {},
         "Encoded page of 1342177280 bytes is larger than the limit of 1073741824 bytes"},
    };
    for (const auto& c : cases) {
        for (const bool gzip : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (gzip ? " (gzip)" : " (plain)"));
            const std::string path = file("a.bin", concat({file_header(header(512)), c.body}), gzip);
            LogCapture log;
            EXPECT_EQ(process(path), c.error.empty());
            EXPECT_EQ(g_handed, c.handed);
            EXPECT_EQ(out_, c.error.empty() ? "\"a\":[]" : "\"a\":[");
            EXPECT_EQ(err_, c.error.empty() ? "" : report(path, "Failed to process data file " + path));
            const bool logged = c.error.size() > 1 ? log.has(c.error) || log.has(c.error + path) : log.at(3).empty();
            EXPECT_TRUE(logged || c.error == "-") << log.all();
        }
    }
    // A refused buffer ends the file: no chunk is read after it.
    g_handler_result = false;
    EXPECT_FALSE(process(file("a.bin", data_file(header(512), {block, block}))));
    EXPECT_EQ(g_handed.size(), 1u);
}

// A damaged gzip wrapping fails the file with zlib's words, never a huge length handed
// on and never a silent end. A small file is inflated whole while its header is read.
TEST_F(ReaderTest, DamagedGzipWrappingFailsWithZlibsWords) {
    for (const size_t chunks : {2u, 64u}) {
        Bytes body;
        uint32_t seed = 12345;
        for (size_t b = 0; b < chunks * 1024; ++b) {
            seed = seed * 1103515245u + 12345u;
            body.push_back(static_cast<uint8_t>(b % 1024 < 4 ? "OBXD"[b % 1024] : seed >> 16));
        }
        std::ifstream in(file("good.bin", concat({file_header(header(1024)), body}), true), std::ios::binary);
        Bytes bad_crc((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const Bytes cut(bad_crc.begin(), bad_crc.end() - 12);
        bad_crc[bad_crc.size() - 6] ^= 0xFF;  // inside the CRC of the gzip trailer
        const std::pair<Bytes, std::string> cases[] = {{bad_crc, "incorrect data check"},
                                                       {cut, "unexpected end of file"}};
        for (const auto& [damaged, reason] : cases) {
            SCOPED_TRACE(reason + " in " + std::to_string(chunks) + " chunks");
            const std::string path = file("bad.bin", damaged);
            LogCapture log;
            EXPECT_FALSE(process(path));
            EXPECT_EQ(err_, chunks == 2 ? report(path, "Failed reading data file header: " + reason)
                                        : report(path, "Failed to process data file " + path));
            EXPECT_EQ(log.has("Failed to read data file " + path + ": " + reason), chunks == 64) << log.all();
            EXPECT_LT(g_handed.size(), chunks);
            for (const std::string& h : g_handed) EXPECT_EQ(h.size(), 6 + 1024u);  // "chunk:" and a whole chunk
        }
    }
}

// The file-level date test only skips a file when both bounds are crossed; a bound
// equal to a timestamp is not crossed.
TEST_F(ReaderTest, FileLevelDateTestAsWritten) {
    // gt, lt, chunks walked
    const std::tuple<uint64_t, uint64_t, size_t> cases[] = {
        {0, UINT64_MAX, 1}, {300, UINT64_MAX, 1}, {0, 50, 1}, {300, 50, 0}, {200, 100, 1}, {300, 100, 1}};
    FileHeaderFields head = header(64);
    head.first_timestamp = 100;
    head.last_timestamp = 200;
    const std::string path = file("a.bin", data_file(head, {chunk(with_magic("OBXD", 16, 0), 64)}));
    for (const auto& [gt, lt, walked] : cases) {
        options_.timestamp_gt = gt;
        options_.timestamp_lt = lt;
        EXPECT_TRUE(process(path));
        EXPECT_EQ(g_handed.size(), walked) << gt << " " << lt;
        EXPECT_EQ(out_, "\"a\":[]");
    }
}

}  // namespace
