// The reader's file input against zlib's gzread, read for read: the same counts, bytes,
// ends and error texts, on plain files, good gzip files of one and several members, and
// gzip files damaged every way (cut, bytes flipped in the deflate data and in the trailer,
// odd headers, bytes behind the last member), with the read sizes the reader uses.
#include "data/reader/file_input.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

namespace {

// Everything one sequence of reads gives, call by call.
std::string reads_by_zlib(const std::string& path, const std::vector<unsigned>& sizes) {
    std::string log;
    gzFile file = gzopen(path.c_str(), "rb");
    if (!file) return "no file";
    for (unsigned size : sizes) {
        std::vector<char> buffer(size);
        const int got = gzread(file, buffer.data(), size);
        int code = Z_OK;
        const char* text = gzerror(file, &code);
        std::string error = code == Z_OK ? "" : text;
        if (error.compare(0, path.size() + 2, path + ": ") == 0) error.erase(0, path.size() + 2);
        const bool failed = got < 0 || code != Z_OK;
        log += std::to_string(got) + (failed ? " failed: " + error : "") + (gzeof(file) ? " eof" : "") + " |" +
               std::string(buffer.data(), got > 0 ? static_cast<size_t>(got) : 0) + "|\n";
        if (failed || got == 0) break;
    }
    gzclose(file);
    return log;
}

std::string reads_by_input(const std::string& path, const std::vector<unsigned>& sizes) {
    std::string log;
    obx_file_input_t* input = obx_file_input_open(path.c_str());
    if (!input) return "no file";
    for (unsigned size : sizes) {
        std::vector<char> buffer(size);
        const int got = obx_file_input_read(input, buffer.data(), size);
        const bool failed = obx_file_input_failed(input, got);
        log += std::to_string(got) + (failed ? std::string(" failed: ") + obx_file_input_error(input) : "") +
               (obx_file_input_eof(input) ? " eof" : "") + " |" + std::string(buffer.data(), got > 0 ? static_cast<size_t>(got) : 0) +
               "|\n";
        if (failed || got == 0) break;
    }
    obx_file_input_close(input);
    return log;
}

// Text that compresses a little, so that members span many deflate blocks and reads.
Bytes text_of(size_t size, unsigned seed) {
    Bytes bytes(size);
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        bytes[i] = static_cast<uint8_t>('a' + (x >> 16) % 7);
    }
    return bytes;
}

}  // namespace

TEST(FileInput, ReadsAsZlibDoesReadForRead) {
    const Bytes first = text_of(300000, 1), second = text_of(5000, 2);
    const Bytes one = gzip_compress(first), two = concat({one, gzip_compress(second)});
    Bytes named = one;  // FNAME set: a header with an optional field
    named[3] = 8;
    named.insert(named.begin() + 10, {'n', 0});
    struct Case { std::string name; Bytes bytes; };
    std::vector<Case> cases = {
        {"plain", first}, {"empty", {}}, {"one byte", {0x1f}}, {"magic only", {0x1f, 0x8b}},
        {"one member", one}, {"two members", two}, {"named member", named},
        {"garbage behind", concat({one, Bytes{'x', 'y', 'z'}})}, {"second magic cut", concat({one, Bytes{0x1f, 0x8b, 8}})},
        {"empty member", gzip_compress({})},
    };
    // Cut anywhere from the header to the trailer, and one byte flipped in the header, the
    // data (early, middle, late) and each trailer field.
    for (size_t at : {size_t(5), size_t(10), size_t(200), one.size() / 2, one.size() - 9, one.size() - 4, one.size() - 1})
        cases.push_back({"cut at " + std::to_string(at), Bytes(one.begin(), one.begin() + static_cast<long>(at))});
    for (size_t at : {size_t(2), size_t(3), size_t(40), one.size() / 3, one.size() - 40, one.size() - 8, one.size() - 5, one.size() - 2}) {
        Bytes flipped = one;
        flipped[at] ^= 0x41;
        cases.push_back({"flip at " + std::to_string(at), flipped});
    }
    Bytes second_bad = two;
    second_bad[second_bad.size() - 6] ^= 1;  // the CRC of the second member
    cases.push_back({"second member's crc", second_bad});

    TempDir dir;
    const std::string path = dir.file("f");
    const std::vector<std::vector<unsigned>> read_sizes = {
        std::vector<unsigned>(400, 4096),                                  // small chunks, many reads
        [] { std::vector<unsigned> s(200, 16384); s.insert(s.begin(), 256); return s; }(),  // header, then chunks
        std::vector<unsigned>(20, 70000),                                  // reads larger than zlib's buffer
    };
    for (const Case& c : cases) {
        write_file(path, c.bytes);
        for (const auto& sizes : read_sizes) {
            SCOPED_TRACE(c.name + ", reads of " + std::to_string(sizes.back()));
            const std::string expected = reads_by_zlib(path, sizes);
            ASSERT_FALSE(expected.empty());
            EXPECT_EQ(reads_by_input(path, sizes), expected);
        }
    }
}
