// A data file as a stream of bytes, plain or gzip-wrapped, read the way zlib's gzread
// reads it, with the same counts, end of file and errors.
//
// Gzip members of the plain form are inflated by ISA-L, well ahead of what is handed out;
// at anything else (optional header fields, bytes behind a member that start no new one, a
// damaged or cut member) the file is opened anew with zlib and given the same reads as
// before, which leaves zlib where it would have stood, and zlib goes on from there: every
// byte, count, end and message from that point is zlib's own.
#pragma once

#include <cstddef>

struct obx_file_input_t;

// nullptr, with errno set, when the file cannot be opened.
obx_file_input_t* obx_file_input_open(const char* path);
void obx_file_input_close(obx_file_input_t* input);

// Up to `length` bytes (fewer only at the end of the file or on an error), as gzread.
int obx_file_input_read(obx_file_input_t* input, void* buffer, unsigned length);
// True when the read that gave `got` met a damaged or cut stream or a read error.
bool obx_file_input_failed(obx_file_input_t* input, int got);
// What went wrong, in zlib's words when zlib read it (without the path it puts in front),
// otherwise the system's.
const char* obx_file_input_error(obx_file_input_t* input);
// True once a read has met the end of the file, as gzeof.
bool obx_file_input_eof(obx_file_input_t* input);
