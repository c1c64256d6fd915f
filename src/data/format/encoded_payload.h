// Encoded pages: the header that stands behind the "OBXP" magic of a frame, the
// length-prefixed source strings it carries, and the decompression of the stream that
// follows it (gzip or snappy).
//
// Every reader takes `available`: the bytes really there from the encoded header's first
// byte. No field is trusted beyond it; a header that points past it is refused with a
// message instead of being read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/format/data_file_format.h"
#include "data/format/data_page_layout.h"

// The fixed part of an encoded header, decoded. The source strings follow at
// OBX_ENC_SOURCE_ID and are read by obx_obxp_header_get_source.
struct obx_encoded_header_t {
    uint8_t header_size;       // H; the stream starts H bytes after the header's first byte
    uint8_t compression_type;  // OBX_COMPRESSION_GZIP or OBX_COMPRESSION_SNAPPY
    uint32_t stream_size;      // S
    uint64_t first_timestamp;
    uint64_t last_timestamp;
};

// Bytes of the source fields obx_obxp_header_get_source fills.
#define OBX_OBXP_SOURCE_STRINGS_SIZE (OBX_SOURCE_ID_SIZE + OBX_SOURCE_TAG_SIZE)

// Reads the fixed fields and checks that H is at least OBX_ENC_FIXED_SIZE and that the
// header and its stream (H + S bytes) lie within `available`. False, with a message, if not.
bool obx_encoded_header_read(const uint8_t* header, size_t available, obx_encoded_header_t* out);

// One length byte, then at most 255 bytes of `string` (cut at max_length or its NUL).
// Returns the bytes written, 0 when the text is longer than `out_size`. Only the text is
// compared with `out_size`: `out` must hold out_size + 1 bytes. The header makers size
// their buffers by obx_obxp_header_size, which leaves that byte.
size_t obx_copy_as_pascal_string_info_buffer(const char* string, size_t max_length, uint8_t* out,
                                             size_t out_size);

// Header size for the source strings of a page: 24 + id length + tag length.
size_t obx_obxp_header_size(const char* source_strings);
// The same for two terminated texts.
size_t obx_obxp_header_size(const char* source_id, const char* source_tag);

// Copies the header's source id to out[0..63] and its tag to out[64..79], each field
// zero-filled behind its text. False, leaving `out` alone, when a string runs past
// `available` or has a length byte of 128 or more.
bool obx_obxp_header_get_source(const uint8_t* header, size_t available, char* out);

// Builds the header of a page's stream of `stream_size` bytes from the page's times and
// source strings; returns H, 0 on failure. A stream size above 32 bits is reported and
// stored cut to 32 bits.
size_t obx_copy_obxp_header_into_buffer(const obx_data_page_t* page, uint8_t compression_type,
                                        uint64_t stream_size, uint8_t* out, size_t out_size);
// Builds a header from the first 22 bytes of a ready one (`template_available` bytes there)
// and new source strings; H is set for the new strings. Returns H, 0 on failure.
size_t obx_embed_obxp_header_into_buffer(const uint8_t* header_template, size_t template_available,
                                         const char* source_strings, uint8_t* out, size_t out_size);

// Size of the page once decompressed; 0 on failure or for an unknown compression type.
size_t obx_encoded_get_uncompressed_size(const uint8_t* header, size_t available);
// Decompresses the header's stream into exactly `out_size` bytes, which must equal the
// stored uncompressed size.
bool obx_encoded_decode_into(const uint8_t* header, size_t available, uint8_t* out, size_t out_size);
// As above into a new buffer (caller frees with free()); its size goes to `size_out`.
uint8_t* obx_encoded_decode_alloc(const uint8_t* header, size_t available, size_t* size_out);
// Decompresses a whole gzip ('G', one inflate call) or snappy ('S') stream into `out`.
bool obx_encoded_decompress(uint8_t type, const uint8_t* stream, size_t stream_size, uint8_t* out,
                            size_t out_size);
