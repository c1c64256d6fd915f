#include "data/format/fast_inflate.h"

#include <isa-l/igzip_lib.h>

#include <climits>
#include <memory>

bool obx_gzip_header_is_plain(const uint8_t* data, size_t available)
{
    return data && available >= OBX_GZIP_PLAIN_HEADER_SIZE && data[0] == 0x1f && data[1] == 0x8b && data[2] == 8 &&
           data[3] == 0;
}

bool obx_fast_gunzip(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size)
{
    if (!obx_gzip_header_is_plain(stream, stream_size) || stream_size > UINT32_MAX || out_size > UINT32_MAX || !out)
        return false;
    // The state holds the Huffman tables: one per thread, made once.
    thread_local std::unique_ptr<inflate_state> state(new inflate_state);
    isal_inflate_init(state.get());
    state->crc_flag = ISAL_GZIP_NO_HDR_VER;  // the trailer's CRC and length are checked
    state->next_in = const_cast<uint8_t*>(stream + OBX_GZIP_PLAIN_HEADER_SIZE);
    state->avail_in = static_cast<uint32_t>(stream_size - OBX_GZIP_PLAIN_HEADER_SIZE);
    state->next_out = out;
    state->avail_out = static_cast<uint32_t>(out_size);
    const int result = isal_inflate_stateless(state.get());
    return result == ISAL_DECOMP_OK && state->avail_in == 0 && state->total_out == out_size;
}
