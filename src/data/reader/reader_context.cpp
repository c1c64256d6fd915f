#include "data/reader/reader_context.h"

#include "data/reader/file_input.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "data/reader/block_dispatch.h"
#include "data/format/encoded_payload.h"
#include "data/reader/page_export.h"
#include "data/reader/reader_type_system.h"
#include "data/writer/data_page.h"
#include "data/writer/data_writer.h"
#include "host/client_id.h"
#include "data/schema/type_system.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "data/reader/reader_options.h"
#include "utils/logger.h"

static obx_reader_buffer_handler_t g_buffer_handler = nullptr;

obx_reader_buffer_handler_t obx_reader_set_buffer_handler(obx_reader_buffer_handler_t handler)
{
    const obx_reader_buffer_handler_t previous = g_buffer_handler;
    g_buffer_handler = handler;
    return previous;
}

static bool hand_on(obx_reader_context_t* context, const uint8_t* data, size_t size, bool in_compressed)
{
    if (g_buffer_handler) return g_buffer_handler(context, data, size, in_compressed);
    return obx_reader_dispatch(context, data, size, in_compressed);
}

obx_reader_context_t* obx_reader_open(const char* path, obx_read_options_t* options)
{
    obx_reader_context_t* context = static_cast<obx_reader_context_t*>(calloc(1, sizeof(obx_reader_context_t)));
    if (!context) {
        OBX_LOG_ERR("Failed to allocate reader context %s", std::strerror(errno));
        return nullptr;
    }
    context->options = options;
    context->path = path;
    errno = 0;
    context->file = path ? obx_file_input_open(path) : nullptr;
    if (!context->file) {
        OBX_LOG_ERR("Failed to open data file %s: %s", path ? path : "(none)", std::strerror(errno));
        free(context);
        return nullptr;
    }
    context->records_printed = 0;
    if (options && options->format == OBX_OUTPUT_FORMAT_BIN) {
        // Null results are not checked here: a missing writer fails the first page.
        context->client_id = obx_client_id_create();
        if (context->client_id) {
            context->data_writer = obx_data_writer_create(context->client_id);
            obx_data_writer_set_base_path(context->data_writer, options->output_dir);
        }
    }
    return context;
}

void obx_reader_close(obx_reader_context_t* context)
{
    if (!context) return;
    obx_data_writer_destroy(context->data_writer);
    context->data_writer = nullptr;
    obx_data_page_destroy(context->export_page);
    context->export_page = nullptr;
    free(context->client_id);
    context->client_id = nullptr;
    obx_event_text_writer_destroy(context->event_writer);
    context->event_writer = nullptr;
    obx_counters_text_writer_destroy(context->counters_writer);
    context->counters_writer = nullptr;
    obx_type_system_destroy(context->type_system);
    context->type_system = nullptr;
    obx_file_input_close(context->file);
    free(context);
}

void obx_reader_report(const obx_reader_context_t* context, const char* format, ...)
{
    std::fprintf(stderr, "Failed processing file %s: ", context && context->path ? context->path : "");
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

bool obx_reader_file_exists(const char* path)
{
    FILE* file = path ? std::fopen(path, "r") : nullptr;
    if (!file) return false;
    std::fclose(file);
    return true;
}

// Reads the 256 header bytes. The count read, or -1 when zlib found the stream damaged.
static int read_header_bytes(obx_reader_context_t* context)
{
    uint8_t bytes[OBX_FILE_HEADER_SIZE];
    errno = 0;
    const int got = obx_file_input_read(context->file, bytes, OBX_FILE_HEADER_SIZE);
    if (obx_file_input_failed(context->file, got)) return -1;
    if (got == static_cast<int>(OBX_FILE_HEADER_SIZE)) obx_data_file_header_decode(bytes, &context->header);
    return got;
}

// The file's key in the JSON document: the base name up to its first dot.
static std::string json_key_of(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    std::string name = slash ? slash + 1 : path;
    const size_t dot = name.find('.');
    if (dot != std::string::npos) name.resize(dot);
    return name;
}

static bool walk_in_json_frame(obx_reader_context_t* context, bool is_first)
{
    if (!is_first) std::fputc(',', stdout);
    std::fprintf(stdout, "\"%s\":[", json_key_of(context->path).c_str());
    const bool ok = obx_reader_walk_blocks(context);
    if (ok) std::fputc(']', stdout);
    return ok;
}

bool obx_reader_process_file(const char* path, obx_read_options_t* options, bool is_first)
{
    obx_reader_context_t* context = obx_reader_open(path, options);
    if (!context) {
        OBX_LOG_ERR("Failed to initialize reader context");
        return false;
    }
    OBX_LOG_DBG("Processing data file %s", path);

    bool ok = false;
    do {
        const int got = read_header_bytes(context);
        if (got < 0) {
            obx_reader_report(context, "Failed reading data file header: %s", obx_file_input_error(context->file));
            break;
        }
        if (got != static_cast<int>(OBX_FILE_HEADER_SIZE)) {
            obx_reader_report(context, "Failed reading data file header: %s", std::strerror(errno));
            break;
        }
        if (options->print_headers) obx_data_file_header_print(stdout, &context->header);
        if (!obx_data_file_header_validate(&context->header)) {
            obx_reader_report(context, "Invalid data file header");
            break;
        }
        const uint32_t block_size = context->header.block_size;
        if (block_size < OBX_MIN_BLOCK_SIZE || block_size >= OBX_MAX_BLOCK_SIZE) {
            obx_reader_report(context, "Block size %d must be in range between %zu and %d bytes ",
                              static_cast<int>(block_size), static_cast<size_t>(OBX_MIN_BLOCK_SIZE),
                              static_cast<int>(OBX_MAX_BLOCK_SIZE));
            break;
        }
        if (!obx_reader_load_type_system(context, context->header.event_schema_ids, OBX_EVENT_SCHEMA_SLOTS)) {
            obx_reader_report(context, "Failed to load type system");
            break;
        }
        if (options->format == OBX_OUTPUT_FORMAT_JSON)
            ok = walk_in_json_frame(context, is_first);
        else
            ok = obx_reader_walk_blocks(context);
        if (!ok) obx_reader_report(context, "Failed to process data file %s", path);
    } while (false);

    obx_reader_close(context);
    return ok;
}

bool obx_reader_walk_pages(obx_reader_context_t* context, const uint8_t* chunk, size_t size)
{
    size_t position = 0;
    while (position < size) {
        const uint8_t* frame = chunk + position;
        const size_t available = size - position;
        // A zero-filled tail has a zero fourth byte, which is no page: the chunk ends here.
        if (available < OBX_MAGIC_SIZE || obx_block_type_get(frame) != OBX_PAGE_BLOCK) break;

        // A frame that does not fit in what is left of the chunk, or lacks its trailer,
        // ends the chunk without a word; the next chunk goes on.
        obx_page_frame_t info;
        if (!obx_page_frame_read(frame, available, &info)) break;
        if (obx_page_frame_stream_end(&info) > available) break;
        if (!obx_page_frame_has_trailer(frame, available, &info)) break;

        // The decoder sees the encoded header and its stream, never the trailer or what
        // follows it.
        const uint8_t* encoded_header = frame + OBX_PAGE_FRAME_HEADER;
        const size_t encoded_size = static_cast<size_t>(obx_page_frame_stream_end(&info)) - OBX_PAGE_FRAME_HEADER;
        const size_t decoded_size = obx_encoded_get_uncompressed_size(encoded_header, encoded_size);
        if (decoded_size > OBX_MAX_DECODED_PAGE_SIZE) {
            OBX_LOG_ERR("Encoded page of %lu bytes is larger than the limit of %u bytes",
                        static_cast<unsigned long>(decoded_size), OBX_MAX_DECODED_PAGE_SIZE);
            return false;
        }
        // One byte at least, so that an empty page still has a buffer to decode into.
        uint8_t* buffer = static_cast<uint8_t*>(malloc(decoded_size ? decoded_size : 1));
        if (!buffer) {
            OBX_LOG_ERR("Failed to allocate data block of size %lu: %s", static_cast<unsigned long>(decoded_size),
                        std::strerror(errno));
            return false;
        }
        bool status = obx_encoded_decode_into(encoded_header, encoded_size, buffer, decoded_size);
        if (status) {
            if (context->options->format == OBX_OUTPUT_FORMAT_BIN) {
                status = obx_reader_page_prepare(&context->export_page, decoded_size) &&
                         obx_reader_page_write(context, buffer, decoded_size, encoded_header, encoded_size,
                                               context->export_page);
            } else {
                status = hand_on(context, buffer, decoded_size, true);
            }
        }
        free(buffer);
        if (!status) return false;
        position += obx_page_frame_size(&info);
    }
    return true;
}

bool obx_reader_walk_blocks(obx_reader_context_t* context)
{
    const obx_read_options_t* options = context->options;
    const uint64_t first = context->header.first_timestamp;
    const uint64_t last = context->header.last_timestamp;
    const uint64_t gt = options->timestamp_gt;
    const uint64_t lt = options->timestamp_lt;
    // Kept as it stands: all four together only hold when lt is below gt.
    if (first < gt && last < gt && first > lt && last > lt) {
        OBX_LOG_DBG("File content is out of date range");
        return true;
    }

    const uint32_t block_size = context->header.block_size;
    uint8_t* chunk = static_cast<uint8_t*>(malloc(block_size));
    if (!chunk) {
        OBX_LOG_ERR("Failed to allocate data block of size %u: %s", block_size, std::strerror(errno));
        return false;
    }

    bool ok = true;
    for (;;) {
        errno = 0;
        const int got = obx_file_input_read(context->file, chunk, block_size);
        if (obx_file_input_failed(context->file, got)) {
            // A damaged gzip wrapping: zlib says what was wrong.
            OBX_LOG_ERR("Failed to read data file %s: %s", context->path, obx_file_input_error(context->file));
            ok = false;
            break;
        }
        if (got == 0 && obx_file_input_eof(context->file)) break;
        const size_t length = static_cast<size_t>(got);
        if (length < OBX_MAGIC_SIZE) {
            OBX_LOG_ERR("No data block header read from the file %s", context->path);
            ok = false;
            break;
        }
        if (length < block_size && !obx_file_input_eof(context->file)) {
            OBX_LOG_ERR("Failed to read data file %s: %s", context->path, std::strerror(errno));
            ok = false;
            break;
        }
        if (obx_block_type_get(chunk) != OBX_PAGE_BLOCK)
            ok = hand_on(context, chunk, length, false);
        else
            ok = obx_reader_walk_pages(context, chunk, length);
        if (!ok) break;
    }
    free(chunk);
    obx_data_page_destroy(context->export_page);
    context->export_page = nullptr;
    return ok;
}

bool obx_read_file_header(const char* path, obx_read_options_t* options, obx_data_file_header_t* header_out)
{
    obx_reader_context_t* context = obx_reader_open(path, options);
    if (!context) {
        OBX_LOG_ERR("Failed to initialize reader context");
        return false;
    }
    bool ok = false;
    if (read_header_bytes(context) != static_cast<int>(OBX_FILE_HEADER_SIZE)) {
        OBX_LOG_ERR("Failed to read header from file: %s", path);
    } else if (!obx_data_file_header_validate(&context->header)) {
        OBX_LOG_ERR("Invalid header in file: %s", path);
    } else {
        if (header_out) *header_out = context->header;
        ok = true;
    }
    obx_reader_close(context);
    return ok;
}
