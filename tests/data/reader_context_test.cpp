// The life of one input file: header checks, the JSON frame, the chunk walk and the
// page walk, on files laid out by the fixture builders.
#include "data/reader_context.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "tools/read_options.h"
#include "tools/read_run.h"

namespace {

using namespace obx_test;

// One buffer as the walk handed it on.
struct Handed {
    Bytes data;
    bool in_compressed;
};

std::vector<Handed>& handed() {
    static std::vector<Handed> buffers;
    return buffers;
}
bool handler_result = true;

bool record_buffer(obx_reader_context_t*, const uint8_t* data, size_t size, bool in_compressed) {
    handed().push_back({Bytes(data, data + size), in_compressed});
    return handler_result;
}

// Options for one test, a temp folder for its files, and the buffer recorder.
class ReaderTest : public testing::Test {
protected:
    void SetUp() override {
        std::memset(&options_, 0, sizeof(options_));
        ASSERT_TRUE(obx_read_options_init(&options_));
        ASSERT_TRUE(obx_string_array_append(&options_.include_counters, "*"));
        free(options_.schema_path);
        options_.schema_path = strdup(dir_.path().c_str());
        handed().clear();
        handler_result = true;
        previous_ = obx_reader_set_buffer_handler(record_buffer);
    }
    void TearDown() override {
        obx_reader_set_buffer_handler(previous_);
        obx_read_options_release(&options_);
    }

    // Writes a file and returns its path.
    std::string file(const std::string& name, const Bytes& bytes, bool gzip = false) {
        const std::string path = dir_.file(name);
        write_file(path, bytes, gzip);
        return path;
    }

    struct Outcome {
        bool ok;
        std::string out;
        std::string err;
    };
    Outcome process(const std::string& path, bool is_first = true) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool ok = obx_reader_process_file(path.c_str(), &options_, is_first);
        Outcome outcome{ok, "", ""};
        outcome.err = testing::internal::GetCapturedStderr();
        outcome.out = testing::internal::GetCapturedStdout();
        return outcome;
    }

    static FileHeaderSpec header(uint32_t block_size = 64) {
        FileHeaderSpec spec;
        spec.block_size = block_size;
        return spec;
    }

    TempDir dir_;
    obx_read_options_t options_;
    obx_reader_buffer_handler_t previous_ = nullptr;
};

Bytes text_bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

FrameSpec snappy_frame() {
    FrameSpec spec;
    spec.codec = Codec::snappy;
    return spec;
}

Bytes with_magic(const std::string& magic, size_t size, uint8_t fill) {
    Bytes bytes = text_bytes(magic);
    bytes.resize(size, fill);
    return bytes;
}

struct HeaderCase {
    const char* name;
    FileHeaderSpec spec;
    bool ok;
    std::string report;  // behind "Failed processing file <path>: "; empty when ok
    std::string error;   // a logged error that must be there, if any
};

TEST_F(ReaderTest, HeaderChecksInOrder) {
    std::vector<HeaderCase> cases;
    auto add = [&](const char* name, bool ok, std::string report, std::string error,
                   void (*change)(FileHeaderSpec&)) {
        FileHeaderSpec spec = header();
        change(spec);
        cases.push_back({name, spec, ok, report, error});
    };
    add("good", true, "", "", [](FileHeaderSpec&) {});
    add("wrong end magic passes", true, "", "", [](FileHeaderSpec& s) { s.magic_end = "XXXX"; });
    add("big endian mark passes", true, "", "", [](FileHeaderSpec& s) { s.byte_order = 1; });
    add("bad magic", false, "Invalid data file header", "Wrong data page magic number.",
        [](FileHeaderSpec& s) { s.magic = "OBXG"; });
    add("newer minor", false, "Invalid data file header",
        "Version of data page 1.8.0 is incompatible with Ombrix version 1.22.1",
        [](FileHeaderSpec& s) { s.version_minor = 8; });
    add("file size 255", false, "Invalid data file header",
        "Wrong data file size 255 is less then file header size 256", [](FileHeaderSpec& s) { s.file_size = 255; });
    add("block size 15", false, "Block size 15 must be in range between 16 and 125829120 bytes ", "",
        [](FileHeaderSpec& s) { s.block_size = 15; });
    add("block size 0", false, "Block size 0 must be in range between 16 and 125829120 bytes ", "",
        [](FileHeaderSpec& s) { s.block_size = 0; });
    add("block size 0x7800000", false, "Block size 125829120 must be in range between 16 and 125829120 bytes ", "",
        [](FileHeaderSpec& s) { s.block_size = 0x7800000; });
    add("block size 0xFFFFFFFF", false, "Block size -1 must be in range between 16 and 125829120 bytes ", "",
        [](FileHeaderSpec& s) { s.block_size = 0xFFFFFFFF; });
    add("block size 16", true, "", "", [](FileHeaderSpec& s) { s.block_size = 16; });
    add("block size 0x77FFFFF", true, "", "", [](FileHeaderSpec& s) { s.block_size = 0x77FFFFF; });
    add("missing schema", false, "Failed to load type system", "", [](FileHeaderSpec& s) {
        s.event_schema_ids = {"0123456789abcdef0123456789abcdef"};
    });

    for (const HeaderCase& c : cases) {
        const std::string path = file("a.bin", file_header(c.spec));
        LogCapture log;
        const Outcome r = process(path);
        EXPECT_EQ(r.ok, c.ok) << c.name;
        if (c.ok) {
            EXPECT_EQ(r.out, "\"a\":[]") << c.name;
            EXPECT_EQ(r.err, "") << c.name;
        } else {
            EXPECT_EQ(r.out, "") << c.name << ": no key for a file that failed before its walk";
            EXPECT_EQ(r.err, "Failed processing file " + path + ": " + c.report + "\n") << c.name;
        }
        if (!c.error.empty()) {
            EXPECT_TRUE(log.has(c.error)) << c.name << "\n" << log.all();
        }
    }
}

TEST_F(ReaderTest, PrintHeadersComesBeforeValidation) {
    options_.print_headers = true;
    FileHeaderSpec spec = header();
    spec.magic = "BAD!";
    const std::string path = file("a.bin", file_header(spec));
    LogCapture log;
    const Outcome r = process(path);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.out.rfind("Data file header\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("BAD!"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "Failed processing file " + path + ": Invalid data file header\n");
}

TEST_F(ReaderTest, ShortOrMissingHeaderFailsTheFile) {
    const std::string short_path = file("short.bin", Bytes(100, 0));
    const Outcome r = process(short_path);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("Failed processing file " + short_path + ": Failed reading data file header: ", 0), 0u)
        << r.err;

    LogCapture log;
    const Outcome missing = process(dir_.file("missing.bin"));
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ(missing.out, "");
    EXPECT_TRUE(log.has("Failed to open data file " + dir_.file("missing.bin") + ": No such file or directory"))
        << log.all();
    EXPECT_TRUE(log.has("Failed to initialize reader context")) << log.all();
}

struct ChunkCase {
    const char* name;
    Bytes body;                 // bytes behind the header
    bool ok;
    std::vector<size_t> sizes;  // sizes of the buffers handed on, all uncompressed
    std::string error;          // logged at error when the walk fails
};

// The body is cut into block_size chunks; only a tail of 1 to 3 bytes is refused.
TEST_F(ReaderTest, ChunkWalkOverEveryReadOutcome) {
    const Bytes block = chunk(with_magic("OBXD", 16, 1), 64);
    const ChunkCase cases[] = {
        {"empty body", {}, true, {}, ""},
        {"three bytes", Bytes(3, 7), false, {}, "No data block header read from the file "},
        {"one byte", Bytes(1, 7), false, {}, "No data block header read from the file "},
        {"four bytes", with_magic("OBXD", 4, 0), true, {4}, ""},
        {"one chunk", block, true, {64}, ""},
        {"chunk and short tail", concat({block, with_magic("OBXE", 20, 2)}), true, {64, 20}, ""},
        {"chunk and three bytes", concat({block, Bytes(3, 2)}), false, {64}, "No data block header read from the file "},
        {"two chunks", concat({block, block}), true, {64, 64}, ""},
        {"zero-filled chunk", Bytes(64, 0), true, {64}, ""},
    };
    for (const ChunkCase& c : cases) {
        for (const bool gzip : {false, true}) {
            handed().clear();
            const std::string path = file("a.bin", concat({file_header(header(64)), c.body}), gzip);
            LogCapture log;
            const Outcome r = process(path);
            const std::string label = std::string(c.name) + (gzip ? " (gzip)" : " (plain)");
            EXPECT_EQ(r.ok, c.ok) << label;
            std::vector<size_t> sizes;
            for (const Handed& h : handed()) {
                sizes.push_back(h.data.size());
                EXPECT_FALSE(h.in_compressed) << label;
            }
            EXPECT_EQ(sizes, c.sizes) << label;
            if (c.ok) {
                EXPECT_EQ(r.out, "\"a\":[]") << label;
                EXPECT_EQ(r.err, "") << label;
            } else {
                EXPECT_TRUE(log.has(c.error + path)) << label << "\n" << log.all();
                EXPECT_EQ(r.out, "\"a\":[") << label << ": a failed walk leaves its array open";
                EXPECT_EQ(r.err, "Failed processing file " + path + ": Failed to process data file " + path + "\n");
            }
        }
    }
}

TEST_F(ReaderTest, ChunkBytesAreHandedOnUnchanged) {
    const Bytes first = chunk(with_magic("OBXE", 30, 0x5A), 32);
    const Bytes tail = with_magic("OBXS", 9, 0xA5);
    file("a.bin", concat({file_header(header(32)), first, tail}), true);
    ASSERT_TRUE(process(dir_.file("a.bin")).ok);
    ASSERT_EQ(handed().size(), 2u);
    EXPECT_EQ(handed()[0].data, first);
    EXPECT_EQ(handed()[1].data, tail);
}

TEST_F(ReaderTest, HandlerFailureEndsTheFile) {
    const Bytes block = chunk(with_magic("OBXD", 16, 1), 64);
    const std::string path = file("a.bin", concat({file_header(header(64)), block, block}));
    handler_result = false;
    const Outcome r = process(path);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(handed().size(), 1u) << "no chunk is read after a failure";
    EXPECT_EQ(r.out, "\"a\":[");
}

// Without a handler the walk reaches the block dispatch, which refuses a block it does
// not know, naming where it was found.
TEST_F(ReaderTest, UnknownBlocksReachTheDispatch) {
    obx_reader_set_buffer_handler(nullptr);
    const struct {
        Bytes body;
        std::string error;
    } cases[] = {
        {chunk(text_bytes("ABCZ"), 64), "Reached unknown block type 4 . Magic value 'ABCZ'"},
        {chunk(page_frame(chunk(text_bytes("WXYZ"), 40)), 128),
         "Reached unknown block type 4 in compressed data block. Magic value 'WXYZ'"},
        {chunk(page_frame(chunk(text_bytes("OBXB"), 40), snappy_frame()), 128),
         "Reached unknown block type 3 in compressed data block. Magic value 'OBXB'"},
    };
    for (const auto& c : cases) {
        FileHeaderSpec spec = header(static_cast<uint32_t>(c.body.size()));
        const std::string path = file("a.bin", concat({file_header(spec), c.body}));
        LogCapture log;
        EXPECT_FALSE(process(path).ok) << c.error;
        EXPECT_TRUE(log.has(c.error)) << log.all();
    }
}

struct PageCase {
    const char* name;
    std::vector<Bytes> chunks;   // each padded to the block size
    bool ok;
    std::vector<Bytes> decoded;  // buffers handed on, in order
    bool silent;                 // nothing on stderr and no error logged
};

TEST_F(ReaderTest, PageWalkOverFrames) {
    const uint32_t block_size = 512;
    const Bytes page_a = with_magic("OBXE", 100, 0x11);
    const Bytes page_b = with_magic("OBXD", 60, 0x22);
    const Bytes page_c = with_magic("CNTX", 33, 0x33);
    const Bytes plain = chunk(with_magic("OBXD", 16, 0x44), block_size);
    const FrameSpec snappy = snappy_frame();
    FrameSpec bad_trailer;
    bad_trailer.trailer = "obxq";
    FrameSpec too_long;
    too_long.stream_size = 100000;
    FrameSpec long_source;
    long_source.source_id = std::string(64, 'n');
    long_source.source_tag = std::string(16, 't');

    const Bytes frame_a = page_frame(page_a);
    const Bytes frame_b = page_frame(page_b, snappy);
    // A frame whose stream ends 2 bytes before the chunk's end: its trailer lies outside.
    Bytes tight = concat({frame_a, page_frame(page_c)});
    const size_t tight_size = tight.size() - 2;
    tight.resize(tight_size);

    const PageCase cases[] = {
        {"gzip frame", {frame_a}, true, {page_a}, true},
        {"snappy frame", {frame_b}, true, {page_b}, true},
        {"frames back to back", {concat({frame_a, frame_b, page_frame(page_c)})}, true, {page_a, page_b, page_c}, true},
        {"full-length source strings", {page_frame(page_c, long_source)}, true, {page_c}, true},
        {"pages then plain chunk", {frame_b, plain, frame_a}, true, {page_b, plain, page_a}, true},
        {"second frame has a wrong trailer", {concat({frame_a, page_frame(page_b, bad_trailer), frame_b}), frame_b},
         true, {page_a, page_b}, true},
        {"first frame has a wrong trailer", {page_frame(page_a, bad_trailer), frame_b}, true, {page_b}, true},
        {"stream runs past the chunk", {concat({frame_a, page_frame(page_b, too_long)}), frame_b}, true,
         {page_a, page_b}, true},
    };
    for (const PageCase& c : cases) {
        handed().clear();
        std::vector<Bytes> chunks;
        for (const Bytes& part : c.chunks) chunks.push_back(chunk(part, block_size));
        const std::string path = file("a.bin", data_file(header(block_size), chunks));
        LogCapture log;
        const Outcome r = process(path);
        EXPECT_EQ(r.ok, c.ok) << c.name;
        ASSERT_EQ(handed().size(), c.decoded.size()) << c.name;
        for (size_t i = 0; i < c.decoded.size(); ++i) {
            EXPECT_EQ(handed()[i].data, c.decoded[i]) << c.name << " buffer " << i;
            EXPECT_EQ(handed()[i].in_compressed, c.decoded[i] != plain) << c.name << " buffer " << i;
        }
        if (c.silent) {
            EXPECT_EQ(r.err, "") << c.name;
            EXPECT_TRUE(log.at(3).empty()) << c.name << "\n" << log.all();
        }
    }

    // A last chunk cut short inside its second frame: that frame is dropped unread.
    const Bytes cut_cases[] = {
        tight,                                                      // trailer past the bytes read
        concat({frame_a, text_bytes("OBXP"), Bytes{30, 'G'}}),      // sizes cannot be read
        concat({frame_a, Bytes(frame_b.begin(), frame_b.begin() + 20)}),  // stream past the bytes read
    };
    for (const Bytes& last_chunk : cut_cases) {
        handed().clear();
        const std::string path = file("a.bin", concat({file_header(header(block_size)), last_chunk}));
        LogCapture log;
        const Outcome r = process(path);
        EXPECT_TRUE(r.ok) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_TRUE(log.at(3).empty()) << log.all();
        ASSERT_EQ(handed().size(), 1u) << last_chunk.size();
        EXPECT_EQ(handed()[0].data, page_a);
    }
}

struct BadFrameCase {
    const char* name;
    Bytes frame;
    std::string error;  // logged; empty when the file fails with only its report
};

// A frame that fits but does not decode ends the file.
TEST_F(ReaderTest, FramesThatDoNotDecodeFailTheFile) {
    const Bytes page = with_magic("OBXE", 200, 0x66);
    FrameSpec wrong_isize;
    wrong_isize.isize = 199;
    FrameSpec huge_isize;
    huge_isize.isize = 0x50000000;
    FrameSpec unknown_type;
    unknown_type.compression_type = 'X';
    FrameSpec snappy_as_gzip;
    snappy_as_gzip.codec = Codec::snappy;
    snappy_as_gzip.compression_type = 'G';
    // The snappy preamble says 90 bytes where the stream makes 100.
    Bytes corrupt_snappy = page_frame(Bytes(page.begin(), page.begin() + 100), snappy_frame());
    const size_t stream_start = 4 + corrupt_snappy[4];
    ASSERT_EQ(corrupt_snappy[stream_start], 100);
    corrupt_snappy[stream_start] = 90;

    const BadFrameCase cases[] = {
        {"ISIZE one short", page_frame(page, wrong_isize), ""},
        {"ISIZE above the limit", page_frame(page, huge_isize),
         "Encoded page of 1342177280 bytes is larger than the limit of 1073741824 bytes"},
        {"unknown compression", page_frame(page, unknown_type), ""},
        {"snappy stream marked gzip", page_frame(page, snappy_as_gzip),
         "[encoded_data] Error: stream is not gzip compressed data"},
        {"corrupt snappy stream", corrupt_snappy, ""},
    };
    for (const BadFrameCase& c : cases) {
        handed().clear();
        const std::string path = file("a.bin", data_file(header(512), {chunk(c.frame, 512)}));
        LogCapture log;
        const Outcome r = process(path);
        EXPECT_FALSE(r.ok) << c.name;
        EXPECT_TRUE(handed().empty()) << c.name;
        EXPECT_EQ(r.err, "Failed processing file " + path + ": Failed to process data file " + path + "\n") << c.name;
        if (!c.error.empty()) {
            EXPECT_TRUE(log.has(c.error)) << c.name << "\n" << log.all();
        }
    }
}

TEST_F(ReaderTest, BinFormatRefusesPagesButHandsOnPlainChunks) {
    options_.format = OBX_OUTPUT_FORMAT_BIN;
    const Bytes plain = chunk(with_magic("OBXD", 16, 1), 128);
    const std::string plain_path = file("plain.bin", data_file(header(128), {plain}));
    const Outcome ok = process(plain_path);
    EXPECT_TRUE(ok.ok);
    EXPECT_EQ(ok.out, "") << "no JSON frame outside format json";
    EXPECT_EQ(handed().size(), 1u);

    handed().clear();
    const std::string page_path = file("page.bin", data_file(header(128), {chunk(page_frame(plain), 128)}));
    LogCapture log;
    const Outcome refused = process(page_path);
    EXPECT_FALSE(refused.ok);
    EXPECT_TRUE(handed().empty());
    EXPECT_TRUE(log.has("binary re-export is not supported yet")) << log.all();
    EXPECT_EQ(refused.err, "Failed processing file " + page_path + ": Failed to process data file " + page_path + "\n");
}

// A gzip-wrapped file that is damaged gives a read failure with zlib's words, never a
// huge length handed on and never a silent end. A small file is inflated whole while its
// header is read; a large one fails in its body.
TEST_F(ReaderTest, DamagedGzipWrappingFailsWithAClearMessage) {
    for (const size_t chunks : {2u, 64u}) {
        Bytes body;
        uint32_t seed = 12345;
        for (size_t i = 0; i < chunks; ++i) {
            Bytes block = with_magic("OBXD", 1024, 0);
            for (size_t b = 4; b < block.size(); ++b) {
                seed = seed * 1103515245u + 12345u;
                block[b] = static_cast<uint8_t>(seed >> 16);
            }
            body = concat({body, block});
        }
        const std::string good = file("good.bin", concat({file_header(header(1024)), body}), true);
        std::ifstream in(good, std::ios::binary);
        const Bytes wrapped((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        ASSERT_GT(wrapped.size(), 40u);

        Bytes bad_crc = wrapped;
        bad_crc[bad_crc.size() - 6] ^= 0xFF;  // inside the CRC of the gzip trailer
        const Bytes truncated(wrapped.begin(), wrapped.end() - 12);

        for (const Bytes& damaged : {bad_crc, truncated}) {
            handed().clear();
            const std::string path = file("bad.bin", damaged);
            LogCapture log;
            const Outcome r = process(path);
            const std::string label = std::to_string(chunks) + " chunks, " +
                                      (damaged.size() == wrapped.size() ? "bad CRC" : "truncated");
            EXPECT_FALSE(r.ok) << label;
            std::string reason;
            const std::string body_prefix = "Failed to read data file " + path + ": ";
            for (const std::string& line : log.at(3))
                if (line.rfind(body_prefix, 0) == 0) reason = line.substr(body_prefix.size());
            const std::string header_prefix = "Failed processing file " + path + ": Failed reading data file header: ";
            if (chunks == 2) {
                ASSERT_EQ(r.err.rfind(header_prefix, 0), 0u) << label << "\n" << r.err;
                reason = r.err.substr(header_prefix.size());
            }
            EXPECT_FALSE(reason.empty()) << label << "\n" << log.all() << r.err;
            EXPECT_EQ(reason.find("Success"), std::string::npos) << label << ": " << reason;
            EXPECT_EQ(reason.find(path), std::string::npos) << label << ": the path is said once";
            EXPECT_LT(handed().size(), chunks) << label;
            for (const Handed& h : handed()) EXPECT_EQ(h.data.size(), 1024u) << label;
        }
    }
}

// The file-level date test only skips a file when the bounds are crossed.
TEST_F(ReaderTest, FileLevelDateTestAsWritten) {
    const struct {
        uint64_t gt;
        uint64_t lt;
        bool walked;
    } cases[] = {
        {0, UINT64_MAX, true},
        {300, UINT64_MAX, true},  // the whole file is older than gt, still walked
        {0, 50, true},            // the whole file is newer than lt, still walked
        {300, 50, false},         // both: skipped
        {200, 100, true},         // last equals gt: not below it
        {300, 100, true},         // first equals lt: not above it
    };
    FileHeaderSpec spec = header(64);
    spec.first_timestamp = 100;
    spec.last_timestamp = 200;
    const std::string path = file("a.bin", data_file(spec, {chunk(with_magic("OBXD", 16, 0), 64)}));
    for (const auto& c : cases) {
        handed().clear();
        options_.timestamp_gt = c.gt;
        options_.timestamp_lt = c.lt;
        const Outcome r = process(path);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(handed().size(), c.walked ? 1u : 0u) << c.gt << " " << c.lt;
        EXPECT_EQ(r.out, "\"a\":[]");
    }
}

TEST_F(ReaderTest, JsonKeyIsTheBaseNameUpToItsFirstDot) {
    ASSERT_EQ(mkdir(dir_.file("b.c.d").c_str(), 0755), 0);
    const struct {
        std::string name;
        std::string key;
    } cases[] = {
        {"b.c.bin", "b"}, {"data", "data"}, {"x.y.z.bin", "x"}, {".hidden", ""}, {"b.c.d/e", "e"}, {"b.c.d/f.g", "f"},
    };
    for (const auto& c : cases) {
        const std::string path = file(c.name, file_header(header()));
        std::vector<char> buffer(path.begin(), path.end());
        buffer.push_back('\0');
        testing::internal::CaptureStdout();
        EXPECT_TRUE(obx_reader_process_file(buffer.data(), &options_, false)) << c.name;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), ",\"" + c.key + "\":[]") << c.name;
        EXPECT_EQ(std::string(buffer.data()), path) << "the caller's path is left as it was";
    }
}

TEST_F(ReaderTest, OtherFormatsHaveNoFileFrame) {
    const std::string path = file("a.bin", file_header(header()));
    for (obx_output_format_t format : {OBX_OUTPUT_FORMAT_NDJSON, OBX_OUTPUT_FORMAT_TXT, OBX_OUTPUT_FORMAT_CSV,
                                       OBX_OUTPUT_FORMAT_INFLUX}) {
        options_.format = format;
        const Outcome r = process(path, false);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(r.out, "") << format;
    }
}

// is_first goes by position: a first file that fails before its key still leaves the
// second file's comma behind the brace.
TEST_F(ReaderTest, RunFrameCountsFailuresByPosition) {
    const std::string good = file("b.c.bin", file_header(header()));
    const std::string bad = file("bad.bin", Bytes(10, 0));
    const struct {
        std::vector<std::string> inputs;
        std::string out;
        int failed;
    } cases[] = {
        {{}, "{}", 0},
        {{good}, "{\"b\":[]}", 0},
        {{bad, good}, "{,\"b\":[]}", 1},
        {{good, bad, good}, "{\"b\":[],\"b\":[]}", 1},
        {{bad, dir_.file("missing")}, "{}", 2},
    };
    for (const auto& c : cases) {
        obx_string_array_destroy(options_.data_files);
        options_.data_files = obx_string_array_create();
        for (const std::string& input : c.inputs) ASSERT_TRUE(obx_string_array_append(&options_.data_files, input.c_str()));
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        LogCapture log;
        const int failed = obx_read_run(&options_);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
        EXPECT_EQ(failed, c.failed) << c.out;
    }
}

TEST_F(ReaderTest, FirstPassHeaderRead) {
    FileHeaderSpec spec = header(128);
    spec.source_id = "node7";
    spec.first_timestamp = 42;
    const std::string good = file("good.bin", file_header(spec), true);
    obx_data_file_header_t read;
    std::memset(&read, 0, sizeof(read));
    ASSERT_TRUE(obx_read_file_header(good.c_str(), &options_, &read));
    EXPECT_STREQ(read.source_id, "node7");
    EXPECT_EQ(read.first_timestamp, 42u);
    EXPECT_EQ(read.block_size, 128u);

    spec.version_major = 2;
    const struct {
        std::string path;
        std::string error;
    } cases[] = {
        {file("short.bin", Bytes(255, 0)), "Failed to read header from file: " + dir_.file("short.bin")},
        {file("old.bin", file_header(spec)), "Invalid header in file: " + dir_.file("old.bin")},
        {dir_.file("missing.bin"), "Failed to initialize reader context"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_FALSE(obx_read_file_header(c.path.c_str(), &options_, &read)) << c.path;
        EXPECT_TRUE(log.has(c.error)) << log.all();
    }
}

TEST_F(ReaderTest, ReportGoesStraightToStderr) {
    obx_reader_context_t context;
    std::memset(&context, 0, sizeof(context));
    context.path = "/x/y.bin";
    testing::internal::CaptureStderr();
    obx_reader_report(&context, "value %d of %s", 7, "eight");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed processing file /x/y.bin: value 7 of eight\n");
}

TEST_F(ReaderTest, FileExistsAndCloseAcceptNothing) {
    EXPECT_TRUE(obx_reader_file_exists(file("a.bin", Bytes(1, 0)).c_str()));
    EXPECT_FALSE(obx_reader_file_exists(dir_.file("none").c_str()));
    EXPECT_FALSE(obx_reader_file_exists(nullptr));
    obx_reader_close(nullptr);
}

}  // namespace
