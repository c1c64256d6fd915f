// Fast inflate of gzip members through ISA-L, with zlib as the reference: every function
// here only says "done" when the result is certainly the one zlib gives, and otherwise
// leaves the work to the caller's zlib path, whose results and messages are the
// system's. Only plain members are taken (deflate, no optional header fields).
#pragma once

#include <cstddef>
#include <cstdint>

// Size of the header of a plain gzip member: magic, method, flags, time, extra flags, OS.
constexpr size_t OBX_GZIP_PLAIN_HEADER_SIZE = 10;

// True when `data` starts with a whole gzip member header of the plain form (method 8, no
// flags), which ISA-L and zlib read alike.
bool obx_gzip_header_is_plain(const uint8_t* data, size_t available);

// Inflates the one gzip member that `stream` holds into exactly `out_size` bytes. True only
// when the member is plain, ends with the stream, checks out (CRC and length) and fills
// `out` exactly; false leaves `out` in any state, for zlib to write again.
bool obx_fast_gunzip(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size);
