// The re-export step of format bin: each decompressed page buffer goes into one reused
// data page, with the source and times of its frame, and on to the data writer.
#pragma once

#include <cstddef>
#include <cstdint>

struct obx_reader_context_t;
struct obx_data_page_t;

// Makes `*page` a page with a data area of exactly `size` bytes: the old page emptied when
// it has that room, else a new heap page named "file-reader". False when none can be made.
bool obx_reader_page_prepare(obx_data_page_t** page, size_t size);
// Copies `data` into the page, takes source, tag and times from the frame's encoded
// header (`header_available` bytes there) and hands the page to the context's writer.
bool obx_reader_page_write(obx_reader_context_t* context, const uint8_t* data, size_t size,
                           const uint8_t* encoded_header, size_t header_available, obx_data_page_t* page);
