// The page decoder's fast inflate: it answers only where zlib would answer the same.
#include "data/format/fast_inflate.h"

#include <gtest/gtest.h>

#include "fixtures/data_file_builder.h"

using namespace obx_test;

namespace {

// Varied enough to need several deflate blocks.
Bytes some_text(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>('a' + (i * i + i / 7) % 23);
    return bytes;
}

}  // namespace

// The page decoder's fast path says yes only where zlib would, with zlib's bytes.
TEST(FastInflate, AnswersOnlyForPlainWholeCheckedMembers) {
    const Bytes data = some_text(70000), stream = gzip_compress(data);
    // One bit of the trailer's CRC or length flipped.
    const auto flipped = [&](size_t from_end) {
        Bytes bytes = stream;
        bytes.at(bytes.size() - from_end) ^= 1;
        return bytes;
    };
    const Bytes bad_crc = flipped(8), bad_size = flipped(4);
    Bytes named = stream;
    named[3] = 8, named.insert(named.begin() + 10, {'n', 0});
    const struct { const char* name; Bytes stream; size_t out_size; bool taken; } cases[] = {
        {"whole", stream, data.size(), true},
        {"crc", bad_crc, data.size(), false}, {"length", bad_size, data.size(), false},
        {"room one short", stream, data.size() - 1, false}, {"room one more", stream, data.size() + 1, false},
        {"cut", Bytes(stream.begin(), stream.end() - 1), data.size(), false},
        {"bytes behind", concat({stream, Bytes{0}}), data.size(), false}, {"named", named, data.size(), false},
    };
    for (const auto& c : cases) {
        Bytes out(c.out_size + 1, 0xEE);
        EXPECT_EQ(obx_fast_gunzip(c.stream.data(), c.stream.size(), out.data(), c.out_size), c.taken) << c.name;
        if (c.taken) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<long>(data.size())), data);
        }
        EXPECT_EQ(out.back(), 0xEE) << c.name;  // nothing past the room
    }
}
