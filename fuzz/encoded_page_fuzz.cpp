// Feeds arbitrary bytes to the encoded page readers: as an encoded header with its
// stream, as a whole "OBXP" frame, as a header template and as source strings. None of
// them may read outside the input or write outside the buffers they are given; the two
// decoders agree on every input, and a header that was made reads back as it was made.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "data/format/data_file_format.h"
#include "data/format/encoded_payload.h"
#include "utils/logger.h"
#include "fuzz_support.h"

namespace {

// Pages above this are not decoded here: the size alone is what is being tested.
constexpr size_t kMaxDecodedSize = 64u * 1024u * 1024u;

void decode_encoded(const uint8_t* header, size_t available) {
    obx_encoded_header_t fields;
    obx_encoded_header_read(header, available, &fields);
    char source[OBX_OBXP_SOURCE_STRINGS_SIZE];
    obx_obxp_header_get_source(header, available, source);

    const size_t size = obx_encoded_get_uncompressed_size(header, available);
    if (size > kMaxDecodedSize) return;
    std::vector<uint8_t> out(size);
    const bool decoded = obx_encoded_decode_into(header, available, out.data(), out.size());
    size_t allocated_size = 0;
    uint8_t* allocated = obx_encoded_decode_alloc(header, available, &allocated_size);
    if (decoded != (allocated != nullptr)) std::abort();
    if (allocated && (allocated_size != size || (size && std::memcmp(allocated, out.data(), size) != 0))) std::abort();
    std::free(allocated);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_fuzz::quiet_log();

    decode_encoded(data, size);

    // The same bytes as a frame: sizes, trailer, then the header behind the magic.
    obx_page_frame_t frame;
    if (obx_page_frame_read(data, size, &frame)) {
        obx_page_frame_has_trailer(data, size, &frame);
        if (obx_block_type_get(data) == OBX_PAGE_BLOCK) decode_encoded(data + OBX_PAGE_FRAME_HEADER, size - OBX_PAGE_FRAME_HEADER);
    }

    // The input as a template for a new header, and as source strings of a page.
    uint8_t out[OBX_ENC_FIXED_SIZE + OBX_OBXP_SOURCE_STRINGS_SIZE];
    static const char sources[OBX_OBXP_SOURCE_STRINGS_SIZE] = "node01";
    obx_embed_obxp_header_into_buffer(data, size, sources, out, sizeof(out));
    if (size >= OBX_OBXP_SOURCE_STRINGS_SIZE) {
        obx_data_page_t page;
        std::memset(&page, 0, sizeof(page));
        std::memcpy(&page.first_timestamp, data, 8);
        page.last_timestamp = page.first_timestamp ^ 0x5555;
        std::memcpy(page.source_id, data, OBX_OBXP_SOURCE_STRINGS_SIZE);
        const uint8_t type = (data[0] & 1) ? 'G' : 'S';
        const size_t made = obx_copy_obxp_header_into_buffer(&page, type, size, out, sizeof(out) - (size & 15));
        obx_encoded_header_t fields;
        // The stream is not there: only the header's own bytes are given to the reader.
        if (made && obx_encoded_header_read(out, made + size, &fields)) {
            if (fields.header_size != made || fields.compression_type != type || fields.stream_size != size ||
                fields.first_timestamp != page.first_timestamp || fields.last_timestamp != page.last_timestamp)
                std::abort();
        }
    }
    return 0;
}
