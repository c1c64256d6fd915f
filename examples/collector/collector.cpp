// A small collector built against an installed obx: it describes one event type in a
// schema, lays the schema down in <out>/schema, and writes a few samples of the local
// source into a data file <out>/data/samples.bin that obx_read can print.
//
//   collector <out> [samples]
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/format/data_file_format.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "data/schema/schema_json.h"
#include "data/writer/schema_writer.h"
#include "host/source.h"
#include "utils/json.h"
#include "utils/version.h"

namespace {

const uint64_t kStart = 1700000000000000ull;  // microseconds since the epoch
const uint32_t kBlockSize = 4096;

struct Sample {  // the packed record of type "cpu_sample"
    uint64_t timestamp;
    uint32_t cpu;
    double load;
};
const size_t kSampleSize = 8 + 4 + 8;

bool write_file(const std::string& path, const void* data, size_t size) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return false;
    const bool ok = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && ok;
}

// The schema file, laid down by the schema writer under the digest of its text, which
// `id` receives for the data file's header.
bool write_schema(const std::string& folder, uint8_t id[OBX_SCHEMA_ID_SIZE]) {
    obx_schema_t* built_ins = obx_schema_create("built-in", 0);
    obx_schema_t* schema = obx_schema_create("example_collector", obx_version_make(1, 0, 0));
    if (!built_ins || !schema || !obx_schema_register_built_in_types(built_ins)) return false;
    schema->base_schema = built_ins;
    const obx_type_field_info_t fields[] = {
        {"timestamp", "time of the sample", "timestamp", OBX_COUNTING_MODE_ABSOLUTE, 1},
        {"cpu", "processor number", "uint32_t", OBX_COUNTING_MODE_ABSOLUTE, 1},
        {"load", "busy share of the last second", "double", OBX_COUNTING_MODE_ABSOLUTE, 1},
    };
    json_t* value = obx_schema_add_type(schema, "cpu_sample", fields, 3, nullptr) == OBX_SCHEMA_OK
                        ? obx_schema_to_json(schema)
                        : nullptr;
    obx_schema_writer_t* writer = obx_schema_writer_create();
    const bool ok = value && writer && obx_schema_writer_set_schema_path(writer, folder.c_str()) &&
                    obx_schema_writer_on_schema(writer, value) && writer->ok && obx_json_md5(id, value);
    obx_schema_writer_destroy(writer);
    json_decref(value);
    obx_schema_destroy(schema);
    obx_schema_destroy(built_ins);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: collector <out> [samples]\n");
        return 2;
    }
    const std::string out = argv[1];
    const int count = argc > 2 ? std::atoi(argv[2]) : 4;
    if (count < 1 || count > 200) {
        std::fprintf(stderr, "collector: 1 to 200 samples fit one event block\n");
        return 2;
    }
    obx_json_set_escape_slashes(0);
    mkdir(out.c_str(), 0755);
    mkdir((out + "/data").c_str(), 0755);

    uint8_t schema_id[OBX_SCHEMA_ID_SIZE];
    if (!write_schema(out + "/schema", schema_id)) {
        std::fprintf(stderr, "collector: cannot write the schema below %s\n", out.c_str());
        return 1;
    }

    // One chunk: an event block of `count` samples, then zeros.
    std::vector<uint8_t> chunk(kBlockSize, 0);
    obx_event_block_head_t head = {};
    obx_block_magic_set(chunk.data(), OBX_EVENTS_BLOCK);
    std::memcpy(head.magic, chunk.data(), OBX_MAGIC_SIZE);
    head.timestamp = kStart;
    head.schema_index = 0;
    head.type_index = 0;
    head.num_events = static_cast<uint8_t>(count);
    obx_event_block_head_write(chunk.data(), &head);
    for (int i = 0; i < count; ++i) {
        uint8_t* record = chunk.data() + OBX_EVENT_BLOCK_HEAD_SIZE + i * kSampleSize;
        const Sample sample = {kStart + 1000000ull * i, static_cast<uint32_t>(i % 2), 0.25 * (i + 1)};
        obx_put_u64(record, sample.timestamp);
        obx_put_u32(record + 8, sample.cpu);
        std::memcpy(record + 12, &sample.load, 8);
    }

    obx_source_t* source = obx_source_create_local("cpu");
    obx_data_file_header_t* header = obx_data_file_header_create();
    if (!source || !header) return 1;
    std::memcpy(header->source_id, source->source_id, sizeof(header->source_id));
    std::memcpy(header->source_tag, source->source_tag, sizeof(header->source_tag));
    header->first_timestamp = kStart;
    header->last_timestamp = kStart + 1000000ull * (count - 1);
    header->block_size = kBlockSize;
    header->file_size = OBX_FILE_HEADER_SIZE + kBlockSize;
    std::memcpy(header->event_schema_ids[0], schema_id, OBX_SCHEMA_ID_SIZE);

    std::vector<uint8_t> file(OBX_FILE_HEADER_SIZE);
    obx_data_file_header_encode(header, file.data());
    file.insert(file.end(), chunk.begin(), chunk.end());
    const std::string path = out + "/data/samples.bin";
    const bool ok = write_file(path, file.data(), file.size());
    std::free(header);
    obx_source_destroy(source);
    if (!ok) {
        std::fprintf(stderr, "collector: cannot write %s\n", path.c_str());
        return 1;
    }
    std::printf("wrote %d samples to %s\n", count, path.c_str());
    return 0;
}
