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

}  // namespace
