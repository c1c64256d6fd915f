// Reading one data file: open it (plain or gzip-wrapped), check its header, load the
// schemas it names, write its JSON frame and walk its body chunk by chunk, taking
// encoded pages apart and handing every buffer to the block dispatch.
#pragma once


#include <cstddef>
#include <cstdint>

#include "data/format/data_file_format.h"

struct obx_read_options_t;
struct obx_type_system_t;
struct obx_client_id_t;
struct obx_data_page_t;
struct obx_event_text_writer_t;
struct obx_counters_text_writer_t;
namespace obx {
class DataWriter;
}

// Per-file reading state; lives from obx_reader_open to obx_reader_close.
struct obx_file_input_t;

struct obx_reader_context_t {
    obx_read_options_t* options;      // run options, not owned
    obx_file_input_t* file;           // open data file, owned (plain or gzip-wrapped)
    const char* path;                 // input path for messages, not owned
    obx_data_file_header_t header;    // the 256 bytes as read
    obx_type_system_t* type_system;   // current schemas, owned; replaced by schemas blocks
    uint64_t records_printed;         // records and blocks handed to output in this file
    obx_client_id_t* client_id;       // format bin only, owned
    obx::DataWriter* data_writer;     // format bin only, owned
    obx_data_page_t* export_page;     // format bin only: the page reused for each buffer, owned
    obx_event_text_writer_t* event_writer;        // text of events, owned; made on the first event
    obx_counters_text_writer_t* counters_writer;  // text of counter blocks, owned; made on the first
    // The ids of the schemas block that made the current type system, if one did: a block
    // naming the same ids again need not load them again (obx_reader_load_schemas_block_if_new).
    uint8_t block_schema_ids[OBX_SCHEMAS_BLOCK_MAX_IDS][OBX_SCHEMA_ID_SIZE];
    uint16_t block_schema_id_count;
    bool block_schema_ids_valid;
};

// Smallest and first refused chunk size of a file body.
#define OBX_MIN_BLOCK_SIZE 16u
#define OBX_MAX_BLOCK_SIZE 0x7800000u
// Largest decompressed page the reader agrees to allocate.
#define OBX_MAX_DECODED_PAGE_SIZE (1024u * 1024u * 1024u)

obx_reader_context_t* obx_reader_open(const char* path, obx_read_options_t* options);
// Frees everything the context owns; accepts nullptr.
void obx_reader_close(obx_reader_context_t* context);

// "Failed processing file <path>: <text>\n" straight to stderr, whatever the log level.
void obx_reader_report(const obx_reader_context_t* context, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Reads, checks and renders one file; `is_first` is the file's position in the run, not
// whether anything was written before it. True on success.
bool obx_reader_process_file(const char* path, obx_read_options_t* options, bool is_first);

// Walks the body of an open file whose header was read and checked. True on success.
bool obx_reader_walk_blocks(obx_reader_context_t* context);

// Walks the OBXP frames of one chunk of `size` bytes. True unless a frame failed.
bool obx_reader_walk_pages(obx_reader_context_t* context, const uint8_t* chunk, size_t size);

// First pass for sorting: true and the header when the file's header is valid.
bool obx_read_file_header(const char* path, obx_read_options_t* options, obx_data_file_header_t* header_out);

bool obx_reader_file_exists(const char* path);

// Where the walk hands each buffer: obx_reader_dispatch unless a handler is set. Lets a
// tool (or a test) see the buffers exactly as the walk cut and decoded them. Returns the
// handler that was set before; nullptr restores the dispatch.
typedef bool (*obx_reader_buffer_handler_t)(obx_reader_context_t* context, const uint8_t* data, size_t size,
                                            bool in_compressed);
obx_reader_buffer_handler_t obx_reader_set_buffer_handler(obx_reader_buffer_handler_t handler);
