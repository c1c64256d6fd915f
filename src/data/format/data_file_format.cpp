#include "data/format/data_file_format.h"

#include <cstdlib>

#include "utils/logger.h"
#include "utils/version.h"

namespace {

// A magic as a terminated text, whatever bytes it holds.
struct MagicText {
    char text[OBX_MAGIC_SIZE + 1];
    explicit MagicText(const void* magic) {
        std::memcpy(text, magic, OBX_MAGIC_SIZE);
        text[OBX_MAGIC_SIZE] = '\0';
    }
};

// 32 lower-case hexadecimal digits of a 16-byte id, newly allocated.
char* schema_id_to_hex(const uint8_t id[OBX_SCHEMA_ID_SIZE]) {
    static const char digits[] = "0123456789abcdef";
    char* text = static_cast<char*>(std::malloc(OBX_SCHEMA_ID_HEX_LENGTH + 1));
    if (!text) return nullptr;
    for (unsigned i = 0; i < OBX_SCHEMA_ID_SIZE; ++i) {
        text[2 * i] = digits[id[i] >> 4];
        text[2 * i + 1] = digits[id[i] & 0x0F];
    }
    text[OBX_SCHEMA_ID_HEX_LENGTH] = '\0';
    return text;
}

void print_schema_id_line(FILE* stream, const char* prefix, const uint8_t id[OBX_SCHEMA_ID_SIZE]) {
    char* text = schema_id_to_hex(id);
    std::fprintf(stream, "%s%s\n", prefix, text ? text : "Failed to get schema id string");
    std::free(text);
}

struct LayoutRow {
    const char* name;
    unsigned long offset;
    unsigned long size;  // 0: a trailing array whose size the record does not fix
};

void print_layout(FILE* stream, const LayoutRow* rows, size_t count) {
    if (!stream) return;
    std::fprintf(stream, "Field                       Offset    Size\n");
    for (size_t i = 0; i < count; ++i) {
        if (rows[i].size)
            std::fprintf(stream, " %-25s  %-8lu  %-lu\n", rows[i].name, rows[i].offset, rows[i].size);
        else
            std::fprintf(stream, " %-25s  %-8lu\n", rows[i].name, rows[i].offset);
    }
}

// Letters 'B'..'X' to block types; every letter not listed is an unknown block.
const uint32_t kBlockTypeByLetter[23] = {
    OBX_BLOB_BLOCK,     // B
    OBX_UNKNOWN_BLOCK,  // C
    OBX_COUNTERS_BLOCK, // D
    OBX_EVENTS_BLOCK,   // E
    OBX_UNKNOWN_BLOCK,  // F
    OBX_UNKNOWN_BLOCK,  // G
    OBX_UNKNOWN_BLOCK,  // H
    OBX_UNKNOWN_BLOCK,  // I
    OBX_UNKNOWN_BLOCK,  // J
    OBX_UNKNOWN_BLOCK,  // K
    OBX_UNKNOWN_BLOCK,  // L
    OBX_UNKNOWN_BLOCK,  // M
    OBX_UNKNOWN_BLOCK,  // N
    OBX_UNKNOWN_BLOCK,  // O
    OBX_PAGE_BLOCK,     // P
    OBX_UNKNOWN_BLOCK,  // Q
    OBX_UNKNOWN_BLOCK,  // R
    OBX_SCHEMAS_BLOCK,  // S
    OBX_UNKNOWN_BLOCK,  // T
    OBX_UNKNOWN_BLOCK,  // U
    OBX_UNKNOWN_BLOCK,  // V
    OBX_UNKNOWN_BLOCK,  // W
    OBX_CNTX_BLOCK,     // X
};

// "OBX" and the letter of a type; false for a type without a letter.
bool set_common_magic(uint8_t* block, uint32_t type) {
    static const char letters[] = {'D', 'E', 'S', 'B', '\0', 'P', 'X'};
    if (type >= sizeof(letters) || letters[type] == '\0') return false;
    std::memcpy(block, "OBX", 3);
    block[3] = static_cast<uint8_t>(letters[type]);
    return true;
}

}  // namespace

// ---- file header ------------------------------------------------------------------------

void obx_data_file_header_decode(const uint8_t bytes[OBX_FILE_HEADER_SIZE], obx_data_file_header_t* header) {
    std::memcpy(header->magic, bytes + OBX_FH_MAGIC, OBX_MAGIC_SIZE);
    header->version = obx_le_u32(bytes + OBX_FH_VERSION);
    header->file_size = obx_le_u64(bytes + OBX_FH_FILE_SIZE);
    std::memcpy(header->source_id, bytes + OBX_FH_SOURCE_ID, OBX_SOURCE_ID_SIZE);
    std::memcpy(header->source_tag, bytes + OBX_FH_SOURCE_TAG, OBX_SOURCE_TAG_SIZE);
    header->first_timestamp = obx_le_u64(bytes + OBX_FH_FIRST_TIMESTAMP);
    header->last_timestamp = obx_le_u64(bytes + OBX_FH_LAST_TIMESTAMP);
    header->block_size = obx_le_u32(bytes + OBX_FH_BLOCK_SIZE);
    std::memcpy(header->counters_schema_id, bytes + OBX_FH_COUNTERS_SCHEMA_ID, OBX_SCHEMA_ID_SIZE);
    std::memcpy(header->event_schema_ids, bytes + OBX_FH_EVENT_SCHEMA_IDS,
                OBX_EVENT_SCHEMA_SLOTS * OBX_SCHEMA_ID_SIZE);
    header->byte_order = obx_le_u8(bytes + OBX_FH_BYTE_ORDER);
    std::memcpy(header->padding, bytes + OBX_FH_PADDING, sizeof(header->padding));
    std::memcpy(header->magic_end, bytes + OBX_FH_MAGIC_END, OBX_MAGIC_SIZE);
}

void obx_data_file_header_encode(const obx_data_file_header_t* header, uint8_t bytes[OBX_FILE_HEADER_SIZE]) {
    std::memcpy(bytes + OBX_FH_MAGIC, header->magic, OBX_MAGIC_SIZE);
    obx_put_u32(bytes + OBX_FH_VERSION, header->version);
    obx_put_u64(bytes + OBX_FH_FILE_SIZE, header->file_size);
    std::memcpy(bytes + OBX_FH_SOURCE_ID, header->source_id, OBX_SOURCE_ID_SIZE);
    std::memcpy(bytes + OBX_FH_SOURCE_TAG, header->source_tag, OBX_SOURCE_TAG_SIZE);
    obx_put_u64(bytes + OBX_FH_FIRST_TIMESTAMP, header->first_timestamp);
    obx_put_u64(bytes + OBX_FH_LAST_TIMESTAMP, header->last_timestamp);
    obx_put_u32(bytes + OBX_FH_BLOCK_SIZE, header->block_size);
    std::memcpy(bytes + OBX_FH_COUNTERS_SCHEMA_ID, header->counters_schema_id, OBX_SCHEMA_ID_SIZE);
    std::memcpy(bytes + OBX_FH_EVENT_SCHEMA_IDS, header->event_schema_ids,
                OBX_EVENT_SCHEMA_SLOTS * OBX_SCHEMA_ID_SIZE);
    obx_put_u8(bytes + OBX_FH_BYTE_ORDER, header->byte_order);
    std::memcpy(bytes + OBX_FH_PADDING, header->padding, sizeof(header->padding));
    std::memcpy(bytes + OBX_FH_MAGIC_END, header->magic_end, OBX_MAGIC_SIZE);
}

obx_data_file_header_t* obx_data_file_header_create(void) {
    auto* header = static_cast<obx_data_file_header_t*>(std::calloc(1, sizeof(obx_data_file_header_t)));
    if (!header) return nullptr;
    std::memcpy(header->magic, OBX_FILE_MAGIC, OBX_MAGIC_SIZE);
    std::memcpy(header->magic_end, OBX_FILE_MAGIC_END, OBX_MAGIC_SIZE);
    header->version = OBX_FORMAT_VERSION_WORD;
    header->file_size = OBX_FILE_HEADER_SIZE;
    return header;
}

bool obx_data_file_header_validate(const obx_data_file_header_t* header) {
    if (!header) {
        OBX_LOG_ERR("No data file header to validate");
        return false;
    }
    if (std::memcmp(header->magic, OBX_FILE_MAGIC, OBX_MAGIC_SIZE) != 0) {
        OBX_LOG_ERR("Wrong data page magic number.");
        return false;
    }
    if (!obx_version_is_compatible(header->version, OBX_FORMAT_VERSION_WORD)) {
        OBX_LOG_ERR("Version of data page %u.%u.%u is incompatible with Ombrix version %s",
                    obx_version_major(header->version), obx_version_minor(header->version),
                    obx_version_patch(header->version), obx_version_get_string());
        return false;
    }
    if (header->file_size < OBX_FILE_HEADER_SIZE) {
        OBX_LOG_ERR("Wrong data file size %ld is less then file header size %zu",
                    static_cast<long>(header->file_size), static_cast<size_t>(OBX_FILE_HEADER_SIZE));
        return false;
    }
    return true;
}

void obx_data_file_header_print(FILE* stream, const obx_data_file_header_t* header) {
    if (!stream || !header) return;
    char source_id[OBX_SOURCE_ID_SIZE + 1];
    char source_tag[OBX_SOURCE_TAG_SIZE + 1];
    std::memcpy(source_id, header->source_id, OBX_SOURCE_ID_SIZE);
    source_id[OBX_SOURCE_ID_SIZE] = '\0';
    std::memcpy(source_tag, header->source_tag, OBX_SOURCE_TAG_SIZE);
    source_tag[OBX_SOURCE_TAG_SIZE] = '\0';

    std::fprintf(stream, "Data file header\n");
    std::fprintf(stream, " %-20s = %4s\n", "magic number", MagicText(header->magic).text);
    std::fprintf(stream, " %-20s = %u.%u.%u\n", "version", obx_version_major(header->version),
                 obx_version_minor(header->version), obx_version_patch(header->version));
    std::fprintf(stream, " %-20s = %lu\n", "file size", header->file_size);
    std::fprintf(stream, " %-20s = %s\n", "source id", source_id);
    std::fprintf(stream, " %-20s = %s\n", "source tag", source_tag);
    std::fprintf(stream, " %-20s = %lu\n", "first timestamp", header->first_timestamp);
    std::fprintf(stream, " %-20s = %lu\n", "last timestamp", header->last_timestamp);
    std::fprintf(stream, " %-20s = %u\n", "data block size", header->block_size);
    char prefix[64];
    std::snprintf(prefix, sizeof(prefix), " %-20s = ", "counters schema id");
    print_schema_id_line(stream, prefix, header->counters_schema_id);
    for (unsigned i = 0; i < OBX_EVENT_SCHEMA_SLOTS; ++i) {
        std::snprintf(prefix, sizeof(prefix), " schema id[%d]         = ", static_cast<int>(i));
        print_schema_id_line(stream, prefix, header->event_schema_ids[i]);
    }
    std::fprintf(stream, " %-20s = %u (%s)\n", "byte order", static_cast<unsigned>(header->byte_order),
                 header->byte_order == 0 ? "LE" : "BE");
    std::fprintf(stream, " %-20s = %4s\n", "end magic number", MagicText(header->magic_end).text);
}

void obx_data_file_header_print_layout_to(FILE* stream) {
    static const LayoutRow rows[] = {
        {"magic", OBX_FH_MAGIC, OBX_MAGIC_SIZE},
        {"version", OBX_FH_VERSION, 4},
        {"file_size", OBX_FH_FILE_SIZE, 8},
        {"source_id", OBX_FH_SOURCE_ID, OBX_SOURCE_ID_SIZE},
        {"source_tag", OBX_FH_SOURCE_TAG, OBX_SOURCE_TAG_SIZE},
        {"first_timestamp", OBX_FH_FIRST_TIMESTAMP, 8},
        {"last_timestamp", OBX_FH_LAST_TIMESTAMP, 8},
        {"block_size", OBX_FH_BLOCK_SIZE, 4},
        {"counters_schema_id", OBX_FH_COUNTERS_SCHEMA_ID, OBX_SCHEMA_ID_SIZE},
        {"event_schema_ids", OBX_FH_EVENT_SCHEMA_IDS, OBX_EVENT_SCHEMA_SLOTS * OBX_SCHEMA_ID_SIZE},
        {"byte_order", OBX_FH_BYTE_ORDER, 1},
        {"padding", OBX_FH_PADDING, 7},
        {"magic_end", OBX_FH_MAGIC_END, OBX_MAGIC_SIZE},
    };
    print_layout(stream, rows, sizeof(rows) / sizeof(rows[0]));
}

void obx_data_file_header_print_layout(void) { obx_data_file_header_print_layout_to(stdout); }

char* obx_data_file_header_get_schema_id_string(const obx_data_file_header_t* header, unsigned index) {
    if (!header || index >= OBX_EVENT_SCHEMA_SLOTS) return nullptr;
    return schema_id_to_hex(header->event_schema_ids[index]);
}

// ---- blocks -----------------------------------------------------------------------------

uint32_t obx_block_type_get(const uint8_t* block) {
    const int index = static_cast<int>(block[3]) - 'B';
    if (index < 0 || index >= static_cast<int>(sizeof(kBlockTypeByLetter) / sizeof(kBlockTypeByLetter[0])))
        return OBX_UNKNOWN_BLOCK;
    return kBlockTypeByLetter[index];
}

const char* obx_block_type_name(uint32_t type) {
    switch (type) {
        case OBX_COUNTERS_BLOCK: return "OBX_COUNTERS_BLOCK";
        case OBX_EVENTS_BLOCK: return "OBX_EVENTS_BLOCK";
        case OBX_SCHEMAS_BLOCK: return "OBX_SCHEMAS_BLOCK";
        case OBX_BLOB_BLOCK: return "OBX_BLOB_BLOCK";
        case OBX_PAGE_BLOCK: return "OBX_PAGE_BLOCK";
        case OBX_CNTX_BLOCK: return "OBX_CNTX_BLOCK";
        default: return "Unknown block";
    }
}

void obx_block_magic_set(uint8_t* block, uint32_t type) {
    if (!block) return;
    // The container's own prefix is written first and then replaced by the common one;
    // readers only look at the fourth byte, so "OBXX" reads as a metrics container.
    if (type == OBX_CNTX_BLOCK) std::memcpy(block, "CNT", 3);
    set_common_magic(block, type);
}

bool obx_magic_equal(const uint8_t* a, const uint8_t* b) {
    return std::memcmp(a, b, 3) == 0 && a[3] == b[3];
}

void obx_event_block_head_read(const uint8_t* block, obx_event_block_head_t* head) {
    std::memcpy(head->magic, block, OBX_MAGIC_SIZE);
    head->timestamp = obx_le_u64(block + OBX_EVENT_BLOCK_TIMESTAMP);
    head->schema_index = obx_le_u8(block + OBX_EVENT_BLOCK_SCHEMA_INDEX);
    head->type_index = obx_le_u16(block + OBX_EVENT_BLOCK_TYPE_INDEX);
    head->num_events = obx_le_u8(block + OBX_EVENT_BLOCK_NUM_EVENTS);
}

void obx_event_block_head_write(uint8_t* block, const obx_event_block_head_t* head) {
    std::memcpy(block, head->magic, OBX_MAGIC_SIZE);
    obx_put_u64(block + OBX_EVENT_BLOCK_TIMESTAMP, head->timestamp);
    obx_put_u8(block + OBX_EVENT_BLOCK_SCHEMA_INDEX, head->schema_index);
    obx_put_u16(block + OBX_EVENT_BLOCK_TYPE_INDEX, head->type_index);
    obx_put_u8(block + OBX_EVENT_BLOCK_NUM_EVENTS, head->num_events);
}

void obx_counters_block_head_read(const uint8_t* block, obx_counters_block_head_t* head) {
    std::memcpy(head->magic, block, OBX_MAGIC_SIZE);
    head->timestamp = obx_le_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP);
}

void obx_counters_block_head_write(uint8_t* block, const obx_counters_block_head_t* head) {
    std::memcpy(block, head->magic, OBX_MAGIC_SIZE);
    std::memset(block + OBX_MAGIC_SIZE, 0, OBX_COUNTERS_BLOCK_TIMESTAMP - OBX_MAGIC_SIZE);
    obx_put_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP, head->timestamp);
}

void obx_blob_block_head_read(const uint8_t* block, obx_blob_block_head_t* head) {
    std::memcpy(head->magic, block, OBX_MAGIC_SIZE);
    head->timestamp = obx_le_u64(block + OBX_BLOB_BLOCK_TIMESTAMP);
    head->data_size = obx_le_u64(block + OBX_BLOB_BLOCK_DATA_SIZE);
}

void obx_blob_block_head_write(uint8_t* block, const obx_blob_block_head_t* head) {
    std::memcpy(block, head->magic, OBX_MAGIC_SIZE);
    obx_put_u64(block + OBX_BLOB_BLOCK_TIMESTAMP, head->timestamp);
    obx_put_u64(block + OBX_BLOB_BLOCK_DATA_SIZE, head->data_size);
}

void obx_schemas_block_head_read(const uint8_t* block, obx_schemas_block_head_t* head) {
    std::memcpy(head->magic, block, OBX_MAGIC_SIZE);
    head->block_size = obx_le_u16(block + OBX_SCHEMAS_BLOCK_SIZE);
    head->id_count = obx_le_u16(block + OBX_SCHEMAS_BLOCK_COUNT);
}

void obx_schemas_block_head_write(uint8_t* block, const obx_schemas_block_head_t* head) {
    std::memcpy(block, head->magic, OBX_MAGIC_SIZE);
    obx_put_u16(block + OBX_SCHEMAS_BLOCK_SIZE, head->block_size);
    obx_put_u16(block + OBX_SCHEMAS_BLOCK_COUNT, head->id_count);
    std::memset(block + 8, 0, OBX_SCHEMAS_BLOCK_IDS - 8);
}

void obx_event_block_print(FILE* stream, const uint8_t* block) {
    if (!stream || !block) return;
    obx_event_block_head_t head;
    obx_event_block_head_read(block, &head);
    std::fprintf(stream, "Event header\n");
    std::fprintf(stream, " %-20s = %4s\n", "magic number", MagicText(head.magic).text);
    std::fprintf(stream, " %-20s = %u\n", "schema index", static_cast<unsigned>(head.schema_index));
    std::fprintf(stream, " %-20s = %u\n", "type index", static_cast<unsigned>(head.type_index));
    std::fprintf(stream, " %-20s = %u\n", "number of events", static_cast<unsigned>(head.num_events));
}

void obx_counters_block_print(FILE* stream, const uint8_t* block) {
    if (!stream || !block) return;
    obx_counters_block_head_t head;
    obx_counters_block_head_read(block, &head);
    std::fprintf(stream, "Data block\n");
    std::fprintf(stream, " %-20s = %4s\n", "magic number", MagicText(head.magic).text);
    std::fprintf(stream, " %-20s = %lu\n", "last timestamp", head.timestamp);
}

void obx_blob_block_print(FILE* stream, const uint8_t* block) {
    if (!stream || !block) return;
    obx_blob_block_head_t head;
    obx_blob_block_head_read(block, &head);
    std::fprintf(stream, "Blob block\n");
    std::fprintf(stream, " %-20s = %4s\n", "magic number", MagicText(head.magic).text);
    std::fprintf(stream, " %-20s = %lu\n", "timestamp", head.timestamp);
    std::fprintf(stream, " %-20s = %lu\n", "data size", head.data_size);
}

void obx_event_block_print_layout_to(FILE* stream) {
    static const LayoutRow rows[] = {
        {"magic", 0, OBX_MAGIC_SIZE},
        {"timestamp", OBX_EVENT_BLOCK_TIMESTAMP, 8},
        {"schema_index", OBX_EVENT_BLOCK_SCHEMA_INDEX, 1},
        {"type_index", OBX_EVENT_BLOCK_TYPE_INDEX, 2},
        {"num_events", OBX_EVENT_BLOCK_NUM_EVENTS, 1},
    };
    print_layout(stream, rows, sizeof(rows) / sizeof(rows[0]));
}

void obx_counters_block_print_layout_to(FILE* stream) {
    static const LayoutRow rows[] = {
        {"header.magic", 0, OBX_MAGIC_SIZE},
        {"padding", OBX_MAGIC_SIZE, 4},
        {"timestamp", OBX_COUNTERS_BLOCK_TIMESTAMP, 8},
        {"values[]", OBX_COUNTERS_BLOCK_HEAD_SIZE, 0},
    };
    print_layout(stream, rows, sizeof(rows) / sizeof(rows[0]));
}

void obx_blob_block_print_layout_to(FILE* stream) {
    static const LayoutRow rows[] = {
        {"header.magic", 0, OBX_MAGIC_SIZE},
        {"timestamp", OBX_BLOB_BLOCK_TIMESTAMP, 8},
        {"data_size", OBX_BLOB_BLOCK_DATA_SIZE, 8},
    };
    print_layout(stream, rows, sizeof(rows) / sizeof(rows[0]));
}

void obx_event_block_print_layout(void) { obx_event_block_print_layout_to(stdout); }
void obx_counters_block_print_layout(void) { obx_counters_block_print_layout_to(stdout); }
void obx_blob_block_print_layout(void) { obx_blob_block_print_layout_to(stdout); }

// ---- encoded page frame -------------------------------------------------------------------

bool obx_page_frame_read(const uint8_t* frame, size_t available, obx_page_frame_t* out) {
    if (!frame || !out || available < OBX_PAGE_FRAME_MIN_READ) return false;
    const uint8_t* header = frame + OBX_PAGE_FRAME_HEADER;
    out->header_size = obx_le_u8(header + OBX_ENC_HEADER_SIZE);
    out->compression_type = obx_le_u8(header + OBX_ENC_COMPRESSION_TYPE);
    out->stream_size = obx_le_u32(header + OBX_ENC_STREAM_SIZE);
    return true;
}

uint64_t obx_page_frame_stream_end(const obx_page_frame_t* frame) {
    return static_cast<uint64_t>(OBX_PAGE_FRAME_HEADER) + frame->header_size + frame->stream_size;
}

uint64_t obx_page_frame_size(const obx_page_frame_t* frame) {
    return obx_page_frame_stream_end(frame) + OBX_PAGE_FRAME_TRAILER_SIZE;
}

bool obx_page_frame_has_trailer(const uint8_t* frame, size_t available, const obx_page_frame_t* info) {
    if (!frame || !info) return false;
    const uint64_t trailer = obx_page_frame_stream_end(info);
    if (trailer + OBX_PAGE_FRAME_TRAILER_SIZE > available) return false;
    return std::memcmp(frame + trailer, OBX_PAGE_FRAME_TRAILER, OBX_PAGE_FRAME_TRAILER_SIZE) == 0;
}
