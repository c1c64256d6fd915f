#include "data/format/encoded_payload.h"

#include "data/format/fast_inflate.h"

#include <snappy-c.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "utils/logger.h"

namespace {

// Timestamps and sizes stand in the first 22 bytes; the two length bytes follow.
constexpr size_t kEncodedPrefixSize = OBX_ENC_SOURCE_ID;
constexpr size_t kMaxPascalLength = 255;

// inflateInit2 window bits: 15 bits of window, +16 to accept the gzip wrapper only.
constexpr int kGzipWindowBits = 15 + 16;

// The stream that follows a checked header.
const uint8_t* stream_of(const uint8_t* header, const obx_encoded_header_t& fields) {
    return header + fields.header_size;
}

// One source string at `offset`: a signed length byte and the bytes behind it. Copies
// at most `field_size` of them into `field`, stopping at a NUL, and clears the rest.
// Returns the offset behind the string, 0 when it is unusable.
size_t read_pascal_field(const uint8_t* header, size_t available, size_t offset, char* field,
                         size_t field_size, const char* what) {
    if (offset >= available) {
        OBX_LOG_ERR("[encoded_data] Error: %s length at offset %zu lies beyond the %zu bytes available", what,
                    offset, available);
        return 0;
    }
    const int8_t length = obx_le_i8(header + offset);
    if (length < 0) {
        OBX_LOG_ERR("[encoded_data] Error: %s length %d is invalid", what, static_cast<int>(length));
        return 0;
    }
    const size_t end = offset + 1 + static_cast<size_t>(length);
    if (end > available) {
        OBX_LOG_ERR("[encoded_data] Error: %s of %d bytes runs past the %zu bytes available", what,
                    static_cast<int>(length), available);
        return 0;
    }
    if (field) {
        const size_t limit = static_cast<size_t>(length) < field_size ? static_cast<size_t>(length) : field_size;
        const char* text = reinterpret_cast<const char*>(header + offset + 1);
        const size_t copied = strnlen(text, limit);
        std::memset(field, 0, field_size);
        std::memcpy(field, text, copied);
    }
    return end;
}

// Stores H, the type and the stream size, then the source strings; the 22-byte prefix
// holding the timestamps is the caller's. Returns H, 0 on failure.
size_t write_source_strings(size_t header_size, const char* source_strings, uint8_t* out,
                            size_t out_size) {
    out[OBX_ENC_HEADER_SIZE] = static_cast<uint8_t>(header_size);
    const size_t id_size = obx_copy_as_pascal_string_info_buffer(source_strings, OBX_SOURCE_ID_SIZE,
                                                                 out + kEncodedPrefixSize, out_size - kEncodedPrefixSize);
    if (id_size == 0) return 0;
    const size_t tag_offset = kEncodedPrefixSize + id_size;
    const size_t tag_size = obx_copy_as_pascal_string_info_buffer(source_strings + OBX_SOURCE_ID_SIZE, OBX_SOURCE_TAG_SIZE,
                                                                  out + tag_offset, out_size - tag_offset);
    if (tag_size == 0) return 0;
    return header_size;
}

// Common checks of both header makers: H for these strings must fit in the buffer.
size_t checked_header_size(const char* caller, const char* source_strings, const uint8_t* out, size_t out_size) {
    if (!source_strings || !out) {
        OBX_LOG_ERR("[%s] missing source strings or output buffer", caller);
        return 0;
    }
    const size_t header_size = obx_obxp_header_size(source_strings);
    if (header_size > out_size) {
        OBX_LOG_ERR("[%s] buffer of %lu bytes is too small to accomodate OBXP header of %lu bytes", caller,
                    static_cast<unsigned long>(out_size), static_cast<unsigned long>(header_size));
        return 0;
    }
    return header_size;
}

// Size of the checked header's stream once decompressed; 0 on failure.
size_t uncompressed_size(const uint8_t* header, const obx_encoded_header_t& fields) {
    const uint8_t* stream = stream_of(header, fields);
    const size_t stream_size = fields.stream_size;
    switch (fields.compression_type) {
        case OBX_COMPRESSION_GZIP:
            if (stream_size < 2 || stream[0] != 0x1F || stream[1] != 0x8B) {
                OBX_LOG_ERR("[encoded_data] Error: stream is not gzip compressed data");
                return 0;
            }
            if (stream_size < 4) {
                OBX_LOG_ERR("[encoded_data] Error: Compressed data is too small");
                return 0;
            }
            // ISIZE: the last four bytes of the gzip trailer.
            return obx_le_u32(stream + stream_size - 4);
        case OBX_COMPRESSION_SNAPPY: {
            size_t length = 0;
            if (snappy_uncompressed_length(reinterpret_cast<const char*>(stream), stream_size, &length) != SNAPPY_OK)
                return 0;
            return length;
        }
        default:
            return 0;
    }
}

bool decompress_gzip(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
    // zlib counts in 32 bits; a page stored with a 32-bit ISIZE never needs more.
    if (stream_size > UINT_MAX || out_size > UINT_MAX) {
        OBX_LOG_ERR("[encoded_data] Error: gzip stream of %zu bytes or buffer of %zu bytes is too large", stream_size,
                    out_size);
        return false;
    }
    // The fast path answers only for members zlib would read the same; all else is zlib's.
    if (obx_fast_gunzip(stream, stream_size, out, out_size)) return true;
    // zlib refuses a null output even for an empty page, which is a valid page.
    uint8_t no_room = 0;
    if (!out) out = &no_room;
    z_stream zs;
    std::memset(&zs, 0, sizeof(zs));
    if (inflateInit2(&zs, kGzipWindowBits) != Z_OK) {
        OBX_LOG_ERR("[encoded_data] inflateInit failed while decompressing.");
        return false;
    }
    zs.next_in = const_cast<Bytef*>(stream);
    zs.avail_in = static_cast<uInt>(stream_size);
    zs.next_out = out;
    zs.avail_out = static_cast<uInt>(out_size);
    // The buffer is made to the stored size, so one call must finish the stream; zlib
    // never writes beyond avail_out when the stored size lies.
    const int result = inflate(&zs, Z_NO_FLUSH);
    inflateEnd(&zs);
    if (result < 0) OBX_LOG_ERR("[encoded_data] zlib error while decompressing");
    if (result != Z_STREAM_END) {
        OBX_LOG_ERR("[encoded_data] zlib decompression failed");
        return false;
    }
    return true;
}

bool decompress_snappy(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
    size_t length = out_size;
    const snappy_status status =
        snappy_uncompress(reinterpret_cast<const char*>(stream), stream_size, reinterpret_cast<char*>(out), &length);
    if (status != SNAPPY_OK) {
        OBX_LOG_ERR("[encoded_data] snappy decompression failed");
        return false;
    }
    return true;
}

}  // namespace

bool obx_encoded_header_read(const uint8_t* header, size_t available, obx_encoded_header_t* out) {
    if (!header || !out) {
        OBX_LOG_ERR("[encoded_data] Error: missing encoded header");
        return false;
    }
    if (available < OBX_ENC_FIXED_SIZE) {
        OBX_LOG_ERR("[encoded_data] Error: encoded header needs %u bytes, only %zu available", OBX_ENC_FIXED_SIZE,
                    available);
        return false;
    }
    obx_encoded_header_t fields;
    fields.header_size = obx_le_u8(header + OBX_ENC_HEADER_SIZE);
    fields.compression_type = obx_le_u8(header + OBX_ENC_COMPRESSION_TYPE);
    fields.stream_size = obx_le_u32(header + OBX_ENC_STREAM_SIZE);
    fields.first_timestamp = obx_le_u64(header + OBX_ENC_FIRST_TIMESTAMP);
    fields.last_timestamp = obx_le_u64(header + OBX_ENC_LAST_TIMESTAMP);
    if (fields.header_size < OBX_ENC_FIXED_SIZE) {
        OBX_LOG_ERR("[encoded_data] Error: encoded header size %u is below the minimum of %u bytes",
                    static_cast<unsigned>(fields.header_size), OBX_ENC_FIXED_SIZE);
        return false;
    }
    if (static_cast<uint64_t>(fields.header_size) + fields.stream_size > available) {
        OBX_LOG_ERR("[encoded_data] Error: encoded header of %u bytes and stream of %u bytes run past the %zu bytes "
                    "available",
                    static_cast<unsigned>(fields.header_size), fields.stream_size, available);
        return false;
    }
    *out = fields;
    return true;
}

size_t obx_copy_as_pascal_string_info_buffer(const char* string, size_t max_length, uint8_t* out, size_t out_size) {
    if (!string || !out) {
        OBX_LOG_ERR("[%s] missing string or output buffer", __func__);
        return 0;
    }
    size_t length = strnlen(string, max_length);
    if (length > kMaxPascalLength) {
        OBX_LOG_ERR("[%s] string of %lu bytes cannot fit pascal string, truncated to 255 characters", __func__,
                    static_cast<unsigned long>(length));
        length = kMaxPascalLength;
    }
    // The text alone is compared with the room: the length byte comes on top of out_size.
    if (length > out_size) {
        OBX_LOG_ERR("[%s] buffer of %lu bytes is too small to accomodate string of %lu bytes", __func__,
                    static_cast<unsigned long>(out_size), static_cast<unsigned long>(length));
        return 0;
    }
    out[0] = static_cast<uint8_t>(length);
    std::memcpy(out + 1, string, length);
    return length + 1;
}

size_t obx_obxp_header_size(const char* source_strings) {
    if (!source_strings) return OBX_ENC_FIXED_SIZE;
    return OBX_ENC_FIXED_SIZE + strnlen(source_strings, OBX_SOURCE_ID_SIZE) +
           strnlen(source_strings + OBX_SOURCE_ID_SIZE, OBX_SOURCE_TAG_SIZE);
}

size_t obx_obxp_header_size(const char* source_id, const char* source_tag) {
    return OBX_ENC_FIXED_SIZE + (source_id ? std::strlen(source_id) : 0) + (source_tag ? std::strlen(source_tag) : 0);
}

bool obx_obxp_header_get_source(const uint8_t* header, size_t available, char* out) {
    if (!header || !out) {
        OBX_LOG_ERR("[encoded_data] Error: missing encoded header or source buffer");
        return false;
    }
    // Check both strings before touching `out`, so a bad header leaves it as it was.
    const size_t tag_offset =
        read_pascal_field(header, available, OBX_ENC_SOURCE_ID, nullptr, OBX_SOURCE_ID_SIZE, "source id");
    if (tag_offset == 0) return false;
    if (read_pascal_field(header, available, tag_offset, nullptr, OBX_SOURCE_TAG_SIZE, "source tag") == 0)
        return false;
    read_pascal_field(header, available, OBX_ENC_SOURCE_ID, out, OBX_SOURCE_ID_SIZE, "source id");
    read_pascal_field(header, available, tag_offset, out + OBX_SOURCE_ID_SIZE, OBX_SOURCE_TAG_SIZE, "source tag");
    return true;
}

size_t obx_copy_obxp_header_into_buffer(const obx_data_page_t* page, uint8_t compression_type,
                                        uint64_t stream_size, uint8_t* out, size_t out_size) {
    if (!page) {
        OBX_LOG_ERR("[%s] missing page", __func__);
        return 0;
    }
    // Id and tag stand back to back in the page header, as the source strings are laid out.
    const char* source_strings = reinterpret_cast<const char*>(page) + OBX_DP_SOURCE_ID;
    const size_t header_size = checked_header_size(__func__, source_strings, out, out_size);
    if (header_size == 0) return 0;
    if (stream_size > UINT32_MAX)
        OBX_LOG_ERR("[%s] encoded stream size of %lu bytes is too large", __func__, stream_size);
    out[OBX_ENC_COMPRESSION_TYPE] = compression_type;
    obx_put_u32(out + OBX_ENC_STREAM_SIZE, static_cast<uint32_t>(stream_size));
    obx_put_u64(out + OBX_ENC_FIRST_TIMESTAMP, page->first_timestamp);
    obx_put_u64(out + OBX_ENC_LAST_TIMESTAMP, page->last_timestamp);
    return write_source_strings(header_size, source_strings, out, out_size);
}

size_t obx_embed_obxp_header_into_buffer(const uint8_t* header_template, size_t template_available,
                                         const char* source_strings, uint8_t* out, size_t out_size) {
    if (!header_template || template_available < kEncodedPrefixSize) {
        OBX_LOG_ERR("[%s] header template of %zu bytes is shorter than %zu bytes", __func__,
                    header_template ? template_available : 0, kEncodedPrefixSize);
        return 0;
    }
    const size_t header_size = checked_header_size(__func__, source_strings, out, out_size);
    if (header_size == 0) return 0;
    std::memmove(out, header_template, kEncodedPrefixSize);
    // The template's H describes its own strings; these strings get their own.
    return write_source_strings(header_size, source_strings, out, out_size);
}

size_t obx_encoded_get_uncompressed_size(const uint8_t* header, size_t available) {
    obx_encoded_header_t fields;
    if (!obx_encoded_header_read(header, available, &fields)) return 0;
    return uncompressed_size(header, fields);
}

bool obx_encoded_decode_into(const uint8_t* header, size_t available, uint8_t* out, size_t out_size) {
    obx_encoded_header_t fields;
    if (!obx_encoded_header_read(header, available, &fields)) return false;
    if (uncompressed_size(header, fields) != out_size) {
        OBX_LOG_ERR("invalid buffer size to uncompress obxp data");
        return false;
    }
    return obx_encoded_decompress(fields.compression_type, stream_of(header, fields), fields.stream_size, out,
                                  out_size);
}

uint8_t* obx_encoded_decode_alloc(const uint8_t* header, size_t available, size_t* size_out) {
    if (!size_out) {
        OBX_LOG_ERR("'uncompressed_size' must be allocated");
        return nullptr;
    }
    *size_out = 0;
    obx_encoded_header_t fields;
    if (!obx_encoded_header_read(header, available, &fields)) return nullptr;
    const size_t size = uncompressed_size(header, fields);
    *size_out = size;
    // One byte at least, so an empty page is not mistaken for a failed allocation.
    auto* buffer = static_cast<uint8_t*>(std::malloc(size ? size : 1));
    if (!buffer) {
        OBX_LOG_ERR("Failed to allocate data block of size %lu: %s", static_cast<unsigned long>(size),
                    std::strerror(errno));
        return nullptr;
    }
    if (!obx_encoded_decode_into(header, available, buffer, size)) {
        std::free(buffer);
        return nullptr;
    }
    return buffer;
}

bool obx_encoded_decompress(uint8_t type, const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
    if (type != OBX_COMPRESSION_GZIP && type != OBX_COMPRESSION_SNAPPY) return false;
    if ((!stream && stream_size) || (!out && out_size)) {
        OBX_LOG_ERR("[encoded_data] Error: missing stream or output buffer");
        return false;
    }
    if (type == OBX_COMPRESSION_GZIP) return decompress_gzip(stream, stream_size, out, out_size);
    return decompress_snappy(stream, stream_size, out, out_size);
}
