// Writes the benchmark's input once: a schema folder, a gzip-wrapped data file of event
// blocks and one of counter blocks (bench_data.h says what they hold), and a stamp that
// says what was written.
//
//   obx_bench_generate <folder> [events MiB] [counters MiB]
//   obx_bench_generate --version
#include <zlib.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "bench_data.h"
#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "data/format/encoded_payload.h"
#include "data/schema/schema_json.h"
#include "utils/json.h"

namespace {

using obx_bench::EventLayout;
using obx_bench::Random;

// Bump when the files' layout or contents change: the script regenerates on a mismatch.
constexpr const char* kGeneratorVersion = "obx-bench-data 5";

constexpr uint32_t kEventChunkSize = 65536;
constexpr uint32_t kCountersChunkSize = 4096;
// Chunks of the paged file: each holds as many gzip page frames as fit.
constexpr uint32_t kPageChunkSize = 1u << 20;
constexpr uint64_t kStartTime = 1700000000000000ull;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "obx_bench_generate: %s\n", what.c_str());
    std::exit(1);
}

void write_text_file(const std::string& path, const std::string& text)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size() || std::fclose(file) != 0)
        fail("cannot write " + path + ": " + std::strerror(errno));
}

// Writes a schema's pretty text under its own MD5 and returns the 16-byte id.
void save_schema_text(const std::string& folder, const std::string& text, uint8_t id[16])
{
    if (!obx_md5_compute(text.data(), text.size(), id)) fail("cannot hash a schema");
    char hex[33];
    obx_md5_to_hex_into(id, hex);
    write_text_file(folder + "/schema_" + hex + ".json", text);
}

std::string pretty_text(const json_t* value)
{
    char* text = obx_json_serialize_to_string_pretty(value);
    if (!text) fail("cannot print a schema");
    std::string result(text);
    obx_json_free_serialized_string(text);
    return result;
}

void make_event_schema(const std::string& folder, uint8_t id[16], EventLayout* layout)
{
    obx_bench::EventSchema types;
    if (!types.ok) fail("cannot register the event types");
    *layout = types.layout;
    json_t* value = obx_schema_to_json(types.schema);
    if (!value) fail("cannot encode the event schema");
    save_schema_text(folder, pretty_text(value), id);
    json_decref(value);
}

obx_counters_schema_t* make_counters_schema(const std::string& folder, uint8_t id[16])
{
    json_t* root = obx_bench::counters_schema_json();
    const std::string text = pretty_text(root);
    json_decref(root);
    obx_counters_schema_t* schema = obx_counters_schema_from_string(text.c_str());
    if (!schema) fail("the counters schema does not read back");
    save_schema_text(folder, text, id);
    return schema;
}

// ---- files ------------------------------------------------------------------------------

struct FileWriter {
    gzFile file;
    uint64_t bytes = 0;

    explicit FileWriter(const std::string& path)
    {
        file = gzopen(path.c_str(), "wb1");
        if (!file) fail("cannot create " + path);
        gzbuffer(file, 1 << 20);
    }
    void write(const void* data, size_t size)
    {
        if (gzwrite(file, data, static_cast<unsigned>(size)) != static_cast<int>(size)) fail("gzwrite failed");
        bytes += size;
    }
    void close()
    {
        if (gzclose(file) != Z_OK) fail("gzclose failed");
    }
};

// The same event chunks as gzip page frames, packed into chunks of a plain file, the way
// a collector stores compressed pages.
struct PagedFileWriter {
    FILE* file;
    std::vector<uint8_t> chunk;
    size_t used = 0;
    uint64_t chunks = 0;
    std::vector<uint8_t> frame;
    z_stream stream{};

    explicit PagedFileWriter(const std::string& path) : chunk(kPageChunkSize)
    {
        file = std::fopen(path.c_str(), "wb");
        if (!file) fail("cannot create " + path);
        uint8_t room[OBX_FILE_HEADER_SIZE] = {};
        if (std::fwrite(room, sizeof room, 1, file) != 1) fail("write failed");  // header comes at the end
    }
    void add(const uint8_t* data, size_t size, uint64_t first, uint64_t last)
    {
        if (deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) fail("deflateInit2 failed");
        std::vector<uint8_t> packed(deflateBound(&stream, size));
        stream.next_in = const_cast<uint8_t*>(data);
        stream.avail_in = static_cast<uInt>(size);
        stream.next_out = packed.data();
        stream.avail_out = static_cast<uInt>(packed.size());
        if (deflate(&stream, Z_FINISH) != Z_STREAM_END) fail("deflate failed");
        packed.resize(stream.total_out);
        deflateEnd(&stream);

        obx_data_page_t page;
        std::memset(&page, 0, sizeof page);
        page.first_timestamp = first;
        page.last_timestamp = last;
        std::snprintf(page.source_id, sizeof page.source_id, "bench-node-01");
        std::snprintf(page.source_tag, sizeof page.source_tag, "bench");
        uint8_t header[OBX_ENC_FIXED_SIZE + OBX_OBXP_SOURCE_STRINGS_SIZE];
        const size_t h = obx_copy_obxp_header_into_buffer(&page, OBX_COMPRESSION_GZIP, packed.size(), header, sizeof header);
        if (h == 0) fail("page header failed");
        frame.resize(OBX_PAGE_FRAME_HEADER + h + packed.size() + OBX_PAGE_FRAME_TRAILER_SIZE);
        std::memcpy(frame.data(), OBX_PAGE_FRAME_MAGIC, OBX_PAGE_FRAME_HEADER);
        std::memcpy(frame.data() + OBX_PAGE_FRAME_HEADER, header, h);
        std::memcpy(frame.data() + OBX_PAGE_FRAME_HEADER + h, packed.data(), packed.size());
        std::memcpy(frame.data() + frame.size() - OBX_PAGE_FRAME_TRAILER_SIZE, OBX_PAGE_FRAME_TRAILER,
                    OBX_PAGE_FRAME_TRAILER_SIZE);
        if (frame.size() > kPageChunkSize) fail("a page frame does not fit a chunk");
        if (used + frame.size() > kPageChunkSize) flush();
        std::memcpy(chunk.data() + used, frame.data(), frame.size());
        used += frame.size();
    }
    void flush()
    {
        std::fill(chunk.begin() + static_cast<long>(used), chunk.end(), 0);
        if (std::fwrite(chunk.data(), chunk.size(), 1, file) != 1) fail("write failed");
        used = 0;
        ++chunks;
    }
    void close(const uint8_t* event_id, uint64_t last_time)
    {
        if (used) flush();
        obx_data_file_header_t* header = obx_data_file_header_create();
        if (!header) fail("no memory");
        header->file_size = OBX_FILE_HEADER_SIZE + chunks * kPageChunkSize;
        std::snprintf(header->source_id, sizeof header->source_id, "bench-node-01");
        std::snprintf(header->source_tag, sizeof header->source_tag, "bench");
        header->first_timestamp = kStartTime;
        header->last_timestamp = last_time;
        header->block_size = kPageChunkSize;
        std::memcpy(header->event_schema_ids[0], event_id, 16);
        uint8_t bytes[OBX_FILE_HEADER_SIZE];
        obx_data_file_header_encode(header, bytes);
        std::free(header);
        if (std::fseek(file, 0, SEEK_SET) != 0 || std::fwrite(bytes, sizeof bytes, 1, file) != 1) fail("write failed");
        if (std::fclose(file) != 0) fail("close failed");
    }
};

void write_header(FileWriter& out, uint32_t block_size, uint64_t body_size, const uint8_t* counters_id,
                  const uint8_t* event_id, uint64_t last_time)
{
    obx_data_file_header_t* header = obx_data_file_header_create();
    if (!header) fail("no memory");
    header->file_size = OBX_FILE_HEADER_SIZE + body_size;
    std::snprintf(header->source_id, sizeof header->source_id, "bench-node-01");
    std::snprintf(header->source_tag, sizeof header->source_tag, "bench");
    header->first_timestamp = kStartTime;
    header->last_timestamp = last_time;
    header->block_size = block_size;
    if (counters_id) std::memcpy(header->counters_schema_id, counters_id, 16);
    if (event_id) std::memcpy(header->event_schema_ids[0], event_id, 16);
    uint8_t bytes[OBX_FILE_HEADER_SIZE];
    obx_data_file_header_encode(header, bytes);
    std::free(header);
    out.write(bytes, sizeof bytes);
}

uint64_t write_events_file(const std::string& path, const std::string& paged_path, uint64_t target_bytes, const EventLayout& layout,
                           const uint8_t* counters_id, const uint8_t* event_id)
{
    const uint64_t chunks = (target_bytes + kEventChunkSize - 1) / kEventChunkSize;
    FileWriter out(path);
    write_header(out, kEventChunkSize, chunks * kEventChunkSize, counters_id, event_id,
                 kStartTime + chunks * 1000000);
    PagedFileWriter paged(paged_path);
    std::vector<uint8_t> chunk(kEventChunkSize);
    Random random;
    uint64_t events = 0;
    for (uint64_t c = 0; c < chunks; ++c) {
        std::fill(chunk.begin(), chunk.end(), 0);
        size_t offset = 0;
        while (offset + OBX_EVENT_BLOCK_HEAD_SIZE + layout.size <= kEventChunkSize) {
            const size_t room = (kEventChunkSize - offset - OBX_EVENT_BLOCK_HEAD_SIZE) / layout.size;
            const uint8_t count = static_cast<uint8_t>(room < 255 ? room : 255);
            const uint64_t time = kStartTime + events * 64;
            uint8_t* block = chunk.data() + offset;
            obx_block_magic_set(block, OBX_EVENTS_BLOCK);
            obx_put_u64(block + OBX_EVENT_BLOCK_TIMESTAMP, time);
            obx_put_u8(block + OBX_EVENT_BLOCK_SCHEMA_INDEX, 0);
            obx_put_u16(block + OBX_EVENT_BLOCK_TYPE_INDEX, 1);  // port_event, behind link_info
            obx_put_u8(block + OBX_EVENT_BLOCK_NUM_EVENTS, count);
            for (uint8_t e = 0; e < count; ++e) {
                obx_bench::fill_event(block + OBX_EVENT_BLOCK_HEAD_SIZE + e * layout.size, layout, random, time + e,
                           static_cast<uint32_t>(events % 1024), events / 1024);
                ++events;
            }
            offset += OBX_EVENT_BLOCK_HEAD_SIZE + count * layout.size;
        }
        out.write(chunk.data(), chunk.size());
        paged.add(chunk.data(), chunk.size(), kStartTime + c * 1000000, kStartTime + c * 1000000 + 999999);
    }
    out.close();
    paged.close(event_id, kStartTime + chunks * 1000000);
    return events;
}

uint64_t write_counters_file(const std::string& path, uint64_t target_bytes, const obx_counters_schema_t* schema,
                             const uint8_t* counters_id)
{
    if (OBX_COUNTERS_BLOCK_HEAD_SIZE + schema->size_of_counters > kCountersChunkSize)
        fail("the counters do not fit a chunk");
    const uint64_t chunks = (target_bytes + kCountersChunkSize - 1) / kCountersChunkSize;
    FileWriter out(path);
    write_header(out, kCountersChunkSize, chunks * kCountersChunkSize, counters_id, nullptr,
                 kStartTime + chunks * 1000000);
    std::vector<uint8_t> chunk(kCountersChunkSize);
    Random random;
    for (uint64_t c = 0; c < chunks; ++c) {
        std::fill(chunk.begin(), chunk.end(), 0);
        obx_block_magic_set(chunk.data(), OBX_COUNTERS_BLOCK);
        obx_put_u64(chunk.data() + OBX_COUNTERS_BLOCK_TIMESTAMP, kStartTime + c * 1000000);
        obx_bench::fill_counters(chunk.data() + OBX_COUNTERS_BLOCK_HEAD_SIZE, schema, c, random);
        out.write(chunk.data(), chunk.size());
    }
    out.close();
    return chunks;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <folder> [events MiB] [counters MiB]\n", argv[0]);
        return 2;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s\n", kGeneratorVersion);
        return 0;
    }
    const std::string folder = argv[1];
    const uint64_t events_mib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1024;
    const uint64_t counters_mib = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 256;
    obx_json_set_escape_slashes(0);  // as the collectors write schema files

    const std::string schema_folder = folder + "/schema";
    std::error_code error;
    std::filesystem::create_directories(schema_folder, error);
    if (error) fail("cannot create " + schema_folder + ": " + error.message());
    std::remove((folder + "/stamp").c_str());

    uint8_t event_id[16];
    uint8_t counters_id[16];
    EventLayout layout;
    make_event_schema(schema_folder, event_id, &layout);
    obx_counters_schema_t* counters = make_counters_schema(schema_folder, counters_id);

    const uint64_t events =
        write_events_file(folder + "/events.bin.gz", folder + "/events_pages.bin", events_mib << 20, layout, counters_id, event_id);
    const uint64_t blocks = write_counters_file(folder + "/counters.bin.gz", counters_mib << 20, counters, counters_id);
    obx_counters_schema_destroy(counters);

    // Written last: its presence says the files are complete.
    char stamp[256];
    std::snprintf(stamp, sizeof stamp, "%s\nevents_mib %" PRIu64 "\ncounters_mib %" PRIu64 "\nevents %" PRIu64
                                       "\ncounter_blocks %" PRIu64 "\n",
                  kGeneratorVersion, events_mib, counters_mib, events, blocks);
    write_text_file(folder + "/stamp", stamp);
    std::printf("%s", stamp);
    return 0;
}
