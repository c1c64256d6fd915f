// obx info: what data files hold, read once each: the header with its schemas, the body by
// chunks, frames and blocks, events by type, counter blocks, and the metrics of the CNTX
// blocks through the count and store paths, with every problem met and where.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "data/format/data_file_format.h"
#include "data/reader/file_input.h"
#include "data/reader/reader_context.h"
#include "data/reader/reader_options.h"
#include "data/reader/reader_type_system.h"
#include "data/reader/block_dispatch.h"
#include "data/schema/schema.h"
#include "data/schema/schema_json.h"
#include "data/schema/type_definition.h"
#include "data/schema/type_system.h"
#include "metrics/cntx_store.h"
#include "tools/obx_command.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/version.h"

namespace {

// Problems kept per file; the rest are only counted.
constexpr size_t kProblemsKept = 100;

struct Problems {
    std::string where = "header";
    std::vector<std::string> lines;
    size_t total = 0;
    void add(const std::string& text) {
        const std::string line = where + ": " + text;
        if (!lines.empty() && lines.back() == line) return;  // the same trouble met by another path
        ++total;
        if (lines.size() < kProblemsKept) lines.push_back(line);
    }
};

struct SchemaInfo {
    std::string id;
    bool found = false;
    std::vector<std::string> types;  // of a loaded event schema
};

struct HistogramInfo {
    uint64_t records = 0;
    size_t buckets = 0;
};

enum BlockKind { kCounters, kEvents, kSchemas, kCntx, kOther, kBlockKinds };
const char* const kBlockNames[kBlockKinds] = {"counters", "events", "schemas", "cntx", "other"};

struct FileInfo {
    std::string path;
    bool header_read = false;
    bool read_whole = false;  // every byte of the file was read
    obx_data_file_header_t header{};
    std::vector<SchemaInfo> schemas;
    SchemaInfo counters_schema;
    uint64_t chunks = 0, frames_gzip = 0, frames_snappy = 0, decompressed_bytes = 0;
    uint64_t blocks[kBlockKinds] = {0, 0, 0, 0, 0};
    std::map<std::string, uint64_t> events;
    uint64_t counters_first = 0, counters_last = 0;
    std::map<std::string, HistogramInfo> histograms;
    ObxMetricCounts counts;
    obx::data::metrics::MetricStore store;  // one sample per series: its memory follows the series only
    Problems problems;
};

// The file being read: the buffer handler and the log sink report into it.
FileInfo* g_file = nullptr;
uint32_t g_stderr_level = OBX_READ_DEFAULT_VERBOSITY;

// Warnings and errors of the library become problems of the file; the rest go to stderr
// as the log level says.
void log_sink(uint32_t level, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (level <= OBX_LOG_WARNING && g_file)
        g_file->problems.add(text);
    else if (level <= g_stderr_level)
        std::fprintf(stderr, "%s\n", text);
}

std::string hex_id(const uint8_t id[OBX_SCHEMA_ID_SIZE]) {
    char text[OBX_SCHEMA_ID_TEXT_SIZE];
    obx_md5_to_hex_into(id, text);
    return text;
}

// "2023-11-14T22:13:20.000000Z"
std::string utc_text(uint64_t microseconds) {
    const time_t seconds = static_cast<time_t>(microseconds / 1000000u);
    struct tm parts;
    if (!gmtime_r(&seconds, &parts)) return "";
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%06uZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<unsigned>(microseconds % 1000000u));
    return text;
}

std::string version_text(uint32_t word) {
    return std::to_string(obx_version_major(word)) + "." + std::to_string(obx_version_minor(word)) + "." +
           std::to_string(obx_version_patch(word));
}

// A run of event and schemas blocks, as the reader walks it: events that the buffer cannot
// hold are not counted, a run ends at the first block of another type.
void count_event_blocks(FileInfo& info, obx_reader_context_t* context, const uint8_t* data, size_t size) {
    size_t offset = 0;
    while (size - offset > OBX_MAGIC_SIZE) {
        const uint8_t* block = data + offset;
        const size_t remaining = size - offset;
        const uint32_t type = obx_block_type_get(block);
        size_t consumed = 0;
        if (type == OBX_SCHEMAS_BLOCK) {
            ++info.blocks[kSchemas];
            consumed = obx_reader_load_schemas_block_if_new(context, block, remaining, nullptr);
            if (consumed == 0) info.problems.add("a schemas block at offset " + std::to_string(offset) + " could not be loaded");
        } else if (type == OBX_EVENTS_BLOCK) {
            ++info.blocks[kEvents];
            if (remaining < OBX_EVENT_BLOCK_HEAD_SIZE) {
                info.problems.add("an event block at offset " + std::to_string(offset) + " is cut short");
                return;
            }
            obx_event_block_head_t head;
            obx_event_block_head_read(block, &head);
            const obx_type_definition_t* event_type =
                obx_type_system_event_type(context->type_system, head.schema_index, head.type_index);
            if (!event_type) {
                info.problems.add("event type " + std::to_string(head.schema_index) + ":" + std::to_string(head.type_index) +
                                  " at offset " + std::to_string(offset) + " is in no loaded schema");
                return;
            }
            const size_t room = remaining - OBX_EVENT_BLOCK_HEAD_SIZE;
            const uint64_t fit = event_type->size ? room / event_type->size : head.num_events;
            const uint64_t events = std::min<uint64_t>(head.num_events, fit);
            info.events[event_type->name ? event_type->name : "<unnamed>"] += events;
            consumed = OBX_EVENT_BLOCK_HEAD_SIZE + events * event_type->size;
        } else {
            return;  // the zero-filled tail of a chunk, or the end of the run
        }
        if (consumed == 0) return;
        offset += consumed;
        if (offset >= size) return;
    }
}

// CNTX blocks back to back from the buffer's start: their histograms by name, then the
// samples by the count path and the series by the store path.
void count_cntx_blocks(FileInfo& info, const uint8_t* data, size_t size) {
    size_t offset = 0;
    size_t found = 0;
    while (size - offset >= ObxMetricsParser::kBlockFrameSize && std::memcmp(data + offset, "CNTX", 4) == 0) {
        const uint32_t total_size = obx_le_u32(data + offset + 4);
        if (total_size < ObxMetricsParser::kBlockFrameSize || total_size > size - offset) {
            info.problems.add("a CNTX block of total_size " + std::to_string(total_size) + " at offset " +
                              std::to_string(offset) + " does not fit its buffer of " + std::to_string(size) + " bytes");
            if (found == 0) ++found;
            break;
        }
        ++found;
        try {
            obx::metrics::CntxBlockContext context;
            context.build(data + offset, data + offset + total_size);
            for (uint64_t id = 0; id < context.histograms.next_id(); ++id) {
                const obx::metrics::Histogram* histogram = context.histograms.find(id);
                if (!histogram) continue;
                HistogramInfo& entry = info.histograms[histogram->name];
                ++entry.records;
                entry.buckets = std::max(entry.buckets, histogram->buckets.size());
            }
        } catch (const std::exception&) {
            // Told again by the paths below, which meet the same bytes.
        }
        offset += total_size;
    }
    info.blocks[kCntx] += std::max<size_t>(found, 1);
    ObxMetricsParser::count_metrics_from_cntx_blocks(data, data + size, info.counts);
    obx::metrics::parse_cntx_blocks(data, data + size, nullptr, info.store);
}

void count_buffer(FileInfo& info, obx_reader_context_t* context, const uint8_t* data, size_t size) {
    const uint32_t type = size >= OBX_MAGIC_SIZE ? obx_block_type_get(data) : OBX_UNKNOWN_BLOCK;
    switch (type) {
        case OBX_COUNTERS_BLOCK: {
            ++info.blocks[kCounters];
            if (size < OBX_COUNTERS_BLOCK_HEAD_SIZE) {
                info.problems.add("a counters block of " + std::to_string(size) + " bytes is shorter than its head");
                return;
            }
            const uint64_t timestamp = obx_le_u64(data + OBX_COUNTERS_BLOCK_TIMESTAMP);
            if (info.blocks[kCounters] == 1 || timestamp < info.counters_first) info.counters_first = timestamp;
            if (timestamp > info.counters_last) info.counters_last = timestamp;
            return;
        }
        case OBX_EVENTS_BLOCK:
        case OBX_SCHEMAS_BLOCK: count_event_blocks(info, context, data, size); return;
        case OBX_CNTX_BLOCK: count_cntx_blocks(info, data, size); return;
        default: {
            ++info.blocks[kOther];
            char magic[OBX_MAGIC_SIZE * 4 + 1] = "";
            for (size_t i = 0; i < OBX_MAGIC_SIZE && i < size; ++i)
                std::snprintf(magic + std::strlen(magic), 5, data[i] >= 0x20 && data[i] < 0x7f ? "%c" : "\\x%02x", data[i]);
            info.problems.add("a block of unknown type, magic '" + std::string(magic) + "'");
        }
    }
}

// Each decoded page of a page chunk, in frame order.
size_t g_frame = 0;
std::string g_chunk_where;
bool on_decoded_page(obx_reader_context_t* context, const uint8_t* data, size_t size, bool) {
    ++g_frame;
    g_file->problems.where = g_chunk_where + " frame " + std::to_string(g_frame);
    g_file->decompressed_bytes += size;
    count_buffer(*g_file, context, data, size);
    return true;
}

// The frames of a page chunk by compression, with the stops of the page walk.
void count_frames(FileInfo& info, const uint8_t* chunk, size_t size) {
    size_t position = 0;
    while (size - position >= OBX_MAGIC_SIZE && obx_block_type_get(chunk + position) == OBX_PAGE_BLOCK) {
        obx_page_frame_t frame;
        const size_t available = size - position;
        if (!obx_page_frame_read(chunk + position, available, &frame) || obx_page_frame_stream_end(&frame) > available ||
            !obx_page_frame_has_trailer(chunk + position, available, &frame))
            break;
        if (frame.compression_type == OBX_COMPRESSION_GZIP) ++info.frames_gzip;
        if (frame.compression_type == OBX_COMPRESSION_SNAPPY) ++info.frames_snappy;
        position += obx_page_frame_size(&frame);
    }
}

// The reader's own text of a damaged or cut stream or a failed read.
bool read_went_wrong(obx_file_input_t* file, int got, std::string* why) {
    if (!obx_file_input_failed(file, got)) return false;
    *why = obx_file_input_error(file);
    return true;
}

void read_chunk(FileInfo& info, obx_reader_context_t* context, const uint8_t* chunk, size_t length) {
    if (obx_block_type_get(chunk) != OBX_PAGE_BLOCK) {
        count_buffer(info, context, chunk, length);
        return;
    }
    count_frames(info, chunk, length);
    g_frame = 0;
    g_chunk_where = info.problems.where;
    const obx_reader_buffer_handler_t previous = obx_reader_set_buffer_handler(on_decoded_page);
    const bool pages_ok = obx_reader_walk_pages(context, chunk, length);
    obx_reader_set_buffer_handler(previous);
    if (!pages_ok) {
        info.problems.where = g_chunk_where + " frame " + std::to_string(g_frame + 1);
        info.problems.add("the page frame could not be decoded; the rest of the chunk is passed over");
    }
    info.problems.where = g_chunk_where;
}

void read_body(FileInfo& info, obx_reader_context_t* context) {
    const uint32_t block_size = info.header.block_size;
    std::unique_ptr<uint8_t, void (*)(void*)> chunk(static_cast<uint8_t*>(std::malloc(block_size)), std::free);
    if (!chunk) {
        info.problems.add("no memory for a chunk of " + std::to_string(block_size) + " bytes");
        return;
    }
    for (;;) {
        info.problems.where = "chunk " + std::to_string(info.chunks + 1);
        errno = 0;
        const int got = obx_file_input_read(context->file, chunk.get(), block_size);
        // A cut or damaged stream still hands out what it could inflate: that is read first.
        std::string why;
        const bool damaged = read_went_wrong(context->file, got, &why);
        const size_t length = got > 0 ? static_cast<size_t>(got) : 0;
        if (length > 0) {
            ++info.chunks;
            if (length < OBX_MAGIC_SIZE)
                info.problems.add("a chunk of " + std::to_string(length) + " bytes holds no block");
            else
                read_chunk(info, context, chunk.get(), length);
        }
        if (damaged) {
            info.problems.add("the file could not be read on: " + why);
            return;
        }
        if (length == 0 && obx_file_input_eof(context->file)) break;
        if (length < block_size && !obx_file_input_eof(context->file)) {
            info.problems.add("the file could not be read on: " + std::string(std::strerror(errno)));
            return;
        }
        if (length < block_size) break;
    }
    info.read_whole = true;
}

void list_schemas(FileInfo& info, obx_reader_context_t* context) {
    size_t loaded = 0;
    const obx_type_system_t* system = context->type_system;
    for (unsigned slot = 0; slot < OBX_EVENT_SCHEMA_SLOTS; ++slot) {
        const uint8_t* id = info.header.event_schema_ids[slot];
        if (obx_md5_is_zero(id)) continue;
        SchemaInfo schema;
        schema.id = hex_id(id);
        char* file = obx_reader_schema_file_name(context, id);
        schema.found = file && access(file, R_OK) == 0;
        std::free(file);
        // Schemas load in header order and stop at the first that fails.
        if (schema.found && system && loaded < system->num_schemas) {
            const obx_schema_t* loaded_schema = system->schemas[loaded++];
            for (unsigned t = 0; loaded_schema && t < loaded_schema->num_types; ++t)
                if (loaded_schema->types[t] && loaded_schema->types[t]->name)
                    schema.types.push_back(loaded_schema->types[t]->name);
        }
        info.schemas.push_back(std::move(schema));
    }
    if (!obx_md5_is_zero(info.header.counters_schema_id)) {
        info.counters_schema.id = hex_id(info.header.counters_schema_id);
        char* file = obx_reader_schema_file_name(context, info.header.counters_schema_id);
        info.counters_schema.found = file && access(file, R_OK) == 0;
        std::free(file);
    }
}

void read_file(FileInfo& info, obx_read_options_t* options) {
    errno = 0;
    obx_reader_context_t* context = obx_reader_open(info.path.c_str(), options);
    if (!context) {
        if (info.problems.total == 0) info.problems.add("the file could not be opened: " + std::string(std::strerror(errno)));
        return;
    }
    uint8_t bytes[OBX_FILE_HEADER_SIZE];
    const int got = obx_file_input_read(context->file, bytes, OBX_FILE_HEADER_SIZE);
    std::string why;
    // A whole header is taken even from a damaged stream: the body read tells the damage.
    if (got != static_cast<int>(OBX_FILE_HEADER_SIZE)) {
        if (read_went_wrong(context->file, got, &why))
            info.problems.add("the file could not be read: " + why);
        else
            info.problems.add("only " + std::to_string(got > 0 ? got : 0) + " of the 256 header bytes are there");
    } else {
        obx_data_file_header_decode(bytes, &info.header);
        context->header = info.header;
        if (!obx_data_file_header_validate(&info.header)) {
            info.problems.add("not a valid data file header");
        } else {
            info.header_read = true;
            const uint32_t block_size = info.header.block_size;
            info.problems.where = "schemas";
            obx_reader_load_type_system(context, info.header.event_schema_ids, OBX_EVENT_SCHEMA_SLOTS);
            list_schemas(info, context);
            for (const SchemaInfo& schema : info.schemas)
                if (!schema.found) info.problems.add("schema " + schema.id + " is not in " + options->schema_path);
            if (!info.counters_schema.id.empty() && !info.counters_schema.found)
                info.problems.add("counters schema " + info.counters_schema.id + " is not in " + options->schema_path);
            if (block_size < OBX_MIN_BLOCK_SIZE || block_size >= OBX_MAX_BLOCK_SIZE) {
                info.problems.where = "header";
                info.problems.add("block size " + std::to_string(block_size) + " is outside " +
                                  std::to_string(OBX_MIN_BLOCK_SIZE) + " to " + std::to_string(OBX_MAX_BLOCK_SIZE - 1));
            } else {
                read_body(info, context);
            }
        }
    }
    obx_reader_close(context);
}

// ---- reports ---------------------------------------------------------------------------

struct MetricLine {
    uint64_t samples = 0, series = 0;
    char kind = '-';
};

std::map<std::string, MetricLine> metric_lines(const FileInfo& info) {
    std::map<std::string, MetricLine> lines;
    for (const auto& entry : info.counts) lines[entry.first].samples = entry.second;
    info.store.for_each_series([&](uint32_t, uint64_t metric, uint64_t, const obx::data::metrics::MetricSeries& series) {
        MetricLine& line = lines[info.store.symbols().lookup(metric)];
        ++line.series;
        line.kind = static_cast<char>(series.kind);
    });
    return lines;
}

void append_key(std::string& out, const char* key) {
    if (out.back() != '{') out += ", ";
    obx_json_append_string(out, key, std::strlen(key));
    out += ": ";
}
void append_text(std::string& out, const char* key, const std::string& value) {
    append_key(out, key);
    obx_json_append_string(out, value.data(), value.size());
}
void append_number(std::string& out, const char* key, uint64_t value) {
    append_key(out, key);
    out += std::to_string(value);
}

std::string json_report(const FileInfo& info) {
    std::string out = "{";
    append_text(out, "file", info.path);
    append_key(out, "read");
    out += info.header_read && info.read_whole ? "true" : "false";
    if (info.header_read) {
        const obx_data_file_header_t& h = info.header;
        append_text(out, "version", version_text(h.version));
        append_text(out, "source_id", std::string(h.source_id, strnlen(h.source_id, sizeof h.source_id)));
        append_text(out, "source_tag", std::string(h.source_tag, strnlen(h.source_tag, sizeof h.source_tag)));
        append_number(out, "block_size", h.block_size);
        append_number(out, "first_timestamp", h.first_timestamp);
        append_text(out, "first_time", utc_text(h.first_timestamp));
        append_number(out, "last_timestamp", h.last_timestamp);
        append_text(out, "last_time", utc_text(h.last_timestamp));
        append_key(out, "schemas");
        out += "[";
        for (const SchemaInfo& schema : info.schemas) {
            out += out.back() == '[' ? "{" : ", {";
            append_text(out, "id", schema.id);
            append_key(out, "found");
            out += schema.found ? "true" : "false";
            append_key(out, "types");
            out += "[";
            for (const std::string& type : schema.types) {
                if (out.back() != '[') out += ", ";
                obx_json_append_string(out, type.data(), type.size());
            }
            out += "]}";
        }
        out += "]";
        append_key(out, "counters_schema");
        if (info.counters_schema.id.empty()) {
            out += "null";
        } else {
            out += "{";
            append_text(out, "id", info.counters_schema.id);
            append_key(out, "found");
            out += info.counters_schema.found ? "true}" : "false}";
        }
    }
    append_number(out, "chunks", info.chunks);
    append_number(out, "page_frames", info.frames_gzip + info.frames_snappy);
    append_key(out, "page_frames_by_compression");
    out += "{";
    append_number(out, "gzip", info.frames_gzip);
    append_number(out, "snappy", info.frames_snappy);
    out += "}";
    append_number(out, "decompressed_bytes", info.decompressed_bytes);
    append_key(out, "blocks");
    out += "{";
    for (int kind = 0; kind < kBlockKinds; ++kind) append_number(out, kBlockNames[kind], info.blocks[kind]);
    out += "}";
    append_key(out, "events");
    out += "{";
    for (const auto& entry : info.events) append_number(out, entry.first.c_str(), entry.second);
    out += "}";
    append_key(out, "counter_blocks");
    out += "{";
    append_number(out, "count", info.blocks[kCounters]);
    append_number(out, "first_timestamp", info.counters_first);
    append_number(out, "last_timestamp", info.counters_last);
    out += "}";
    append_number(out, "cntx_blocks", info.blocks[kCntx]);
    append_key(out, "metrics");
    out += "[";
    for (const auto& entry : metric_lines(info)) {
        out += out.back() == '[' ? "{" : ", {";
        append_text(out, "name", entry.first);
        append_number(out, "samples", entry.second.samples);
        append_number(out, "series", entry.second.series);
        append_text(out, "kind", std::string(1, entry.second.kind));
        out += "}";
    }
    out += "]";
    append_key(out, "histograms");
    out += "[";
    for (const auto& entry : info.histograms) {
        out += out.back() == '[' ? "{" : ", {";
        append_text(out, "name", entry.first);
        append_number(out, "records", entry.second.records);
        append_number(out, "buckets", entry.second.buckets);
        out += "}";
    }
    out += "]";
    append_number(out, "problem_count", info.problems.total);
    append_key(out, "problems");
    out += "[";
    for (const std::string& line : info.problems.lines) {
        if (out.back() != '[') out += ", ";
        obx_json_append_string(out, line.data(), line.size());
    }
    return out + "]}";
}

void text_report(FILE* out, const FileInfo& info) {
    std::fprintf(out, "%s\n", info.path.c_str());
    if (info.header_read) {
        const obx_data_file_header_t& h = info.header;
        std::fprintf(out, "  version         %s\n", version_text(h.version).c_str());
        std::fprintf(out, "  source          %.*s, tag %.*s\n", static_cast<int>(sizeof h.source_id), h.source_id,
                     static_cast<int>(sizeof h.source_tag), h.source_tag);
        std::fprintf(out, "  block size      %u\n", h.block_size);
        std::fprintf(out, "  first time      %llu (%s)\n", static_cast<unsigned long long>(h.first_timestamp),
                     utc_text(h.first_timestamp).c_str());
        std::fprintf(out, "  last time       %llu (%s)\n", static_cast<unsigned long long>(h.last_timestamp),
                     utc_text(h.last_timestamp).c_str());
        for (const SchemaInfo& schema : info.schemas) {
            std::string types;
            for (const std::string& type : schema.types) types += (types.empty() ? "" : ", ") + type;
            std::fprintf(out, "  schema          %s %s%s%s\n", schema.id.c_str(), schema.found ? "found" : "missing",
                         types.empty() ? "" : ": ", types.c_str());
        }
        if (!info.counters_schema.id.empty())
            std::fprintf(out, "  counters schema %s %s\n", info.counters_schema.id.c_str(),
                         info.counters_schema.found ? "found" : "missing");
    }
    std::fprintf(out, "  chunks          %llu\n", static_cast<unsigned long long>(info.chunks));
    std::fprintf(out, "  page frames     %llu (gzip %llu, snappy %llu), %llu bytes decompressed\n",
                 static_cast<unsigned long long>(info.frames_gzip + info.frames_snappy),
                 static_cast<unsigned long long>(info.frames_gzip), static_cast<unsigned long long>(info.frames_snappy),
                 static_cast<unsigned long long>(info.decompressed_bytes));
    std::string blocks;
    for (int kind = 0; kind < kBlockKinds; ++kind)
        blocks += std::string(kind ? ", " : "") + kBlockNames[kind] + " " + std::to_string(info.blocks[kind]);
    std::fprintf(out, "  blocks          %s\n", blocks.c_str());
    for (const auto& entry : info.events)
        std::fprintf(out, "  events          %s %llu\n", entry.first.c_str(), static_cast<unsigned long long>(entry.second));
    if (info.blocks[kCounters])
        std::fprintf(out, "  counter blocks  %llu from %s to %s\n", static_cast<unsigned long long>(info.blocks[kCounters]),
                     utc_text(info.counters_first).c_str(), utc_text(info.counters_last).c_str());
    for (const auto& entry : metric_lines(info))
        std::fprintf(out, "  metric          %s: %llu samples, %llu series, kind %c\n", entry.first.c_str(),
                     static_cast<unsigned long long>(entry.second.samples),
                     static_cast<unsigned long long>(entry.second.series), entry.second.kind);
    for (const auto& entry : info.histograms)
        std::fprintf(out, "  histogram       %s: %llu records, %zu buckets\n", entry.first.c_str(),
                     static_cast<unsigned long long>(entry.second.records), entry.second.buckets);
    for (const std::string& line : info.problems.lines) std::fprintf(out, "  problem         %s\n", line.c_str());
    if (info.problems.total > info.problems.lines.size())
        std::fprintf(out, "  problem         ... and %zu more\n", info.problems.total - info.problems.lines.size());
}

int run_info(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"json", no_argument, nullptr, 'j'},
        {"schema-path", required_argument, nullptr, 's'},
        {"data-path", required_argument, nullptr, 'd'},
        {nullptr, 0, nullptr, 0},
    };
    const obx_command_t* self = &obx_command_info;
    bool json = false;
    const char* schema_path = nullptr;
    const char* data_dir = nullptr;
    for (int code; (code = getopt_long(argc, argv, ":hjs:d:", kOptions, nullptr)) != -1;) {
        switch (code) {
            case 'h': return obx_command_print_help(self);
            case 'j': json = true; break;
            case 's': schema_path = optarg; break;
            case 'd': data_dir = optarg; break;
            default: return obx_command_option_error(self, code, argv);
        }
    }
    if (optind >= argc && !data_dir) return obx_command_usage_error(self, "a data file or -d DIR is needed");

    obx_read_options_t options;
    std::unique_ptr<obx_read_options_t, void (*)(obx_read_options_t*)> release(&options, obx_read_options_release);
    if (!obx_command_reader_options(&options, argc - optind, argv + optind, data_dir, schema_path)) return OBX_EXIT_FAILURE;

    g_stderr_level = obx_log_enabled(OBX_LOG_ERROR) ? obx_log_current_level : OBX_READ_DEFAULT_VERBOSITY;
    obx_log_set_callback(log_sink, std::max<uint32_t>(g_stderr_level, OBX_LOG_WARNING));
    int failed = 0;
    for (size_t i = 0; i < options.data_files->count; ++i) {
        FileInfo info;
        info.path = options.data_files->strings[i];
        g_file = &info;
        read_file(info, &options);
        g_file = nullptr;
        if (!info.header_read || !info.read_whole) ++failed;
        if (json)
            std::printf("%s\n", json_report(info).c_str());
        else
            text_report(stdout, info);
        std::fflush(stdout);
    }
    obx_log_set_level(g_stderr_level);
    obx_close_logger();
    return failed ? OBX_EXIT_FAILURE : OBX_EXIT_OK;
}

}  // namespace

const obx_command_t obx_command_info = {
    "info",
    "tell what data files hold: header, schemas, blocks, events, metrics, problems",
    "Usage: obx info [--json] [-s DIR] [-d DIR] FILE...\n"
    "\n"
    "Reads each data file once and reports its header (version, source, block size,\n"
    "first and last time, schemas with their event types and whether each schema file\n"
    "is there), its body (chunks, page frames by compression, decompressed bytes,\n"
    "blocks by type, events by type, counter blocks and their time span, CNTX blocks),\n"
    "its metrics (samples, series and kind of each name; histograms with their buckets)\n"
    "and every problem met, with where. A problem does not stop the file. A FILE of -\n"
    "reads standard input.\n"
    "\n"
    "Options:\n"
    "  -j, --json              one JSON object per file, on its own line\n"
    "  -s, --schema-path DIR   the schema folder (default: schema, else one next to or\n"
    "                          above the first file)\n"
    "  -d, --data-path DIR     every file below DIR too\n"
    "  -h, --help              print this text\n"
    "\n"
    "Exit status: 0, 1 when a file could not be read whole, 2 on a usage error.\n",
    run_info,
};
