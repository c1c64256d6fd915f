#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "data/format/encoded_payload.h"
#include "fixtures/byte_writer.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

namespace {

using obx_test::Bytes;
using obx_test::ByteWriter;
using Texts = std::vector<std::string>;

TEST(PageHeaderMaker, FromADataPage) {
    obx_data_page_t page;
    std::memset(&page, 0, sizeof(page));
    page.first_timestamp = 1700000000000000ull;
    page.last_timestamp = 1700000000000009ull;
    std::memcpy(page.source_id, "node01", 6);
    std::memcpy(page.source_tag, "sixteen-chars-xx", 16);  // fills its field
    const Bytes header = ByteWriter().u8(46).u8('S').u32(0x12345678u).u64(1700000000000000ull).u64(1700000000000009ull)
                             .short_string("node01").short_string("sixteen-chars-xx").take();
    const struct {
        uint64_t stream_size;
        size_t room;
        size_t result;
        Texts errors;
    } cases[] = {
        {0x12345678u, 46, 46, {}},
        {0x12345678u, 45, 0,
         {"[obx_copy_obxp_header_into_buffer] buffer of 45 bytes is too small to accomodate OBXP header of 46 bytes"}},
        // Still built, with the size cut to its low 32 bits.
        {0x712345678ull, 46, 46, {"[obx_copy_obxp_header_into_buffer] encoded stream size of 30370190968 bytes is too large"}},
    };
    for (const auto& c : cases) {
        obx_test::LogCapture log;
        Bytes out(64, 0xEE);
        EXPECT_EQ(obx_copy_obxp_header_into_buffer(&page, 'S', c.stream_size, out.data(), c.room), c.result);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), c.errors);
        if (c.result) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + 46), header);
        }
        EXPECT_EQ(out[46], 0xEE);  // nothing past the header
    }
}

TEST(PageHeaderMaker, PascalCopyComparesTheTextAloneWithTheRoom) {
    const std::string long_text(300, 'x');
    const std::string cut = "[obx_copy_as_pascal_string_info_buffer] string of 300 bytes cannot fit pascal string, "
                            "truncated to 255 characters";
    const struct {
        std::string text;
        size_t max_length, out_size, result;
        Texts errors;
    } cases[] = {
        {"abc", 64, 3, 4, {}},
        {"abc", 64, 2, 0, {"[obx_copy_as_pascal_string_info_buffer] buffer of 2 bytes is too small to accomodate string of 3 bytes"}},
        {"abcdef", 2, 2, 3, {}},
        {"", 64, 0, 1, {}},
        {long_text, 400, 255, 256, {cut}},
        {long_text, 400, 254, 0, {cut, "[obx_copy_as_pascal_string_info_buffer] buffer of 254 bytes is too small to "
                                       "accomodate string of 255 bytes"}},
    };
    for (const auto& c : cases) {
        obx_test::LogCapture log;
        Bytes out(c.out_size + 2, 0xEE);  // room for the length byte, and one more to see nothing spills
        EXPECT_EQ(obx_copy_as_pascal_string_info_buffer(c.text.c_str(), c.max_length, out.data(), c.out_size), c.result)
            << c.text.size() << " into " << c.out_size;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), c.errors);
        if (c.result) {
            EXPECT_EQ(out[0], c.result - 1);
            EXPECT_EQ(std::string(out.begin() + 1, out.begin() + static_cast<long>(c.result)), c.text.substr(0, c.result - 1));
        }
        EXPECT_EQ(out[c.result], 0xEE);  // nothing written past the copy (nothing at all on failure)
        EXPECT_EQ(out.back(), 0xEE);
    }
}

}  // namespace
