// A small collector built against an installed obx: it describes one event type in a
// schema, lays the schema down in <out>/schema, and puts a few samples of the local source
// in a data page that the data writer lays down below <out>/data, where obx_read -d finds it.
//
//   collector <out> [samples]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "data/format/data_file_format.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "data/schema/schema_json.h"
#include "data/writer/data_page.h"
#include "data/writer/data_writer.h"
#include "data/writer/schema_writer.h"
#include "host/client_id.h"
#include "host/source.h"
#include "utils/json.h"
#include "utils/version.h"

namespace {

const uint64_t kStart = 1700000000000000ull;  // microseconds since the epoch
const uint32_t kBlockSize = 4096;  // one block holds the schemas block and the samples

struct Sample {  // the packed record of type "cpu_sample"
    uint64_t timestamp;
    uint32_t cpu;
    double load;
};
const size_t kSampleSize = 8 + 4 + 8;

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
    if (count < 1 || count > 150) {
        std::fprintf(stderr, "collector: 1 to 150 samples fit one block\n");
        return 2;
    }
    obx_json_set_escape_slashes(0);

    uint8_t schema_id[OBX_SCHEMA_ID_SIZE];
    if (!write_schema(out + "/schema", schema_id)) {
        std::fprintf(stderr, "collector: cannot write the schema below %s\n", out.c_str());
        return 1;
    }

    // One page of one block: a schemas block naming the schema, so that the data file's
    // header names it too, then an event block of `count` samples.
    obx_data_page_config_t config = {};
    config.page_type = OBX_DATA_PAGE_REGULAR;
    std::snprintf(config.name, sizeof(config.name), "collector");
    obx_data_page_t* page = obx_data_page_create(kBlockSize, OBX_DATA_PAGE_HEADER_SIZE + kBlockSize, &config);
    obx_source_t* source = obx_source_create_local("cpu");
    obx_client_id_t* client = obx_client_id_create();
    obx::DataWriter* writer = client ? obx_data_writer_create(client) : nullptr;
    if (!page || !source || !writer) return 1;
    uint8_t* block = page->data();
    std::memset(block, 0, kBlockSize);
    obx_schemas_block_head_t schemas = {};
    obx_block_magic_set(block, OBX_SCHEMAS_BLOCK);
    std::memcpy(schemas.magic, block, OBX_MAGIC_SIZE);
    schemas.block_size = OBX_SCHEMAS_BLOCK_IDS + 7 * OBX_SCHEMA_ID_SIZE;
    schemas.id_count = 1;
    obx_schemas_block_head_write(block, &schemas);
    std::memcpy(block + OBX_SCHEMAS_BLOCK_IDS, schema_id, OBX_SCHEMA_ID_SIZE);

    uint8_t* events = block + schemas.block_size;
    obx_event_block_head_t head = {};
    obx_block_magic_set(events, OBX_EVENTS_BLOCK);
    std::memcpy(head.magic, events, OBX_MAGIC_SIZE);
    head.timestamp = kStart;
    head.num_events = static_cast<uint8_t>(count);
    obx_event_block_head_write(events, &head);
    for (int i = 0; i < count; ++i) {
        uint8_t* record = events + OBX_EVENT_BLOCK_HEAD_SIZE + i * kSampleSize;
        const Sample sample = {kStart + 1000000ull * i, static_cast<uint32_t>(i % 2), 0.25 * (i + 1)};
        obx_put_u64(record, sample.timestamp);
        obx_put_u32(record + 8, sample.cpu);
        std::memcpy(record + 12, &sample.load, 8);
    }
    obx_data_page_consume_free_space(page, schemas.block_size + OBX_EVENT_BLOCK_HEAD_SIZE + count * kSampleSize);
    std::memcpy(page->source_id, source->source_id, OBX_SOURCE_ID_SIZE);
    std::memcpy(page->source_tag, source->source_tag, OBX_SOURCE_TAG_SIZE);
    page->first_timestamp = kStart;
    page->last_timestamp = kStart + 1000000ull * (count - 1);

    const std::string data = out + "/data";
    const bool ok = obx_data_writer_set_base_path(writer, data.c_str()) && obx_data_writer_write_page(writer, page, nullptr);
    obx_data_writer_destroy(writer);  // finishes the file's header
    std::free(client);
    obx_source_destroy(source);
    obx_data_page_destroy(page);
    if (!ok) {
        std::fprintf(stderr, "collector: cannot write below %s\n", data.c_str());
        return 1;
    }
    std::printf("wrote %d samples below %s\n", count, data.c_str());
    return 0;
}
