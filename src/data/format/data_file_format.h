// The on-disk format of data files, in one place: the 256-byte file header, the block
// heads, the block type table and the encoded page frame. Sizes and offsets are the
// named constants below; every other module reads and writes these structures only
// through the reader/writer pairs here and through the little-endian helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

// ---- little-endian access at any alignment --------------------------------------------
static inline uint8_t obx_le_u8(const uint8_t* p) { return p[0]; }
static inline uint16_t obx_le_u16(const uint8_t* p) { uint16_t v; std::memcpy(&v, p, 2); return v; }
static inline uint32_t obx_le_u32(const uint8_t* p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
static inline uint64_t obx_le_u64(const uint8_t* p) { uint64_t v; std::memcpy(&v, p, 8); return v; }
static inline int8_t obx_le_i8(const uint8_t* p) { return static_cast<int8_t>(p[0]); }
static inline int16_t obx_le_i16(const uint8_t* p) { int16_t v; std::memcpy(&v, p, 2); return v; }
static inline int32_t obx_le_i32(const uint8_t* p) { int32_t v; std::memcpy(&v, p, 4); return v; }
static inline int64_t obx_le_i64(const uint8_t* p) { int64_t v; std::memcpy(&v, p, 8); return v; }
static inline float obx_le_f32(const uint8_t* p) { float v; std::memcpy(&v, p, 4); return v; }
static inline double obx_le_f64(const uint8_t* p) { double v; std::memcpy(&v, p, 8); return v; }
static inline void obx_put_u8(uint8_t* p, uint8_t v) { p[0] = v; }
static inline void obx_put_u16(uint8_t* p, uint16_t v) { std::memcpy(p, &v, 2); }
static inline void obx_put_u32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
static inline void obx_put_u64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

// ---- file header ------------------------------------------------------------------------
#define OBX_FILE_HEADER_SIZE 256u
#define OBX_SCHEMA_ID_SIZE 16u
#define OBX_EVENT_SCHEMA_SLOTS 7u
#define OBX_SOURCE_ID_SIZE 64u
#define OBX_SOURCE_TAG_SIZE 16u

#define OBX_FH_MAGIC 0u
#define OBX_FH_VERSION 4u
#define OBX_FH_FILE_SIZE 8u
#define OBX_FH_SOURCE_ID 16u
#define OBX_FH_SOURCE_TAG 80u
#define OBX_FH_FIRST_TIMESTAMP 96u
#define OBX_FH_LAST_TIMESTAMP 104u
#define OBX_FH_BLOCK_SIZE 112u
#define OBX_FH_COUNTERS_SCHEMA_ID 116u
#define OBX_FH_EVENT_SCHEMA_IDS 132u
#define OBX_FH_BYTE_ORDER 244u
#define OBX_FH_PADDING 245u
#define OBX_FH_MAGIC_END 252u

#define OBX_FILE_MAGIC "OBXF"
#define OBX_FILE_MAGIC_END "obxf"
// Length of the hexadecimal text of a schema id, without its terminator.
#define OBX_SCHEMA_ID_HEX_LENGTH 32u

// The header as read: fields decoded, texts as stored (not necessarily terminated).
struct obx_data_file_header_t {
    char magic[4];
    uint32_t version;
    uint64_t file_size;
    char source_id[OBX_SOURCE_ID_SIZE];
    char source_tag[OBX_SOURCE_TAG_SIZE];
    uint64_t first_timestamp;
    uint64_t last_timestamp;
    uint32_t block_size;
    uint8_t counters_schema_id[OBX_SCHEMA_ID_SIZE];
    uint8_t event_schema_ids[OBX_EVENT_SCHEMA_SLOTS][OBX_SCHEMA_ID_SIZE];
    uint8_t byte_order;
    uint8_t padding[7];
    char magic_end[4];
};

void obx_data_file_header_decode(const uint8_t bytes[OBX_FILE_HEADER_SIZE], obx_data_file_header_t* header);
void obx_data_file_header_encode(const obx_data_file_header_t* header, uint8_t bytes[OBX_FILE_HEADER_SIZE]);

// A zeroed header with both magics, version 1.7.0 and file_size 256 (caller frees with free()).
obx_data_file_header_t* obx_data_file_header_create(void);
bool obx_data_file_header_validate(const obx_data_file_header_t* header);
void obx_data_file_header_print(FILE* stream, const obx_data_file_header_t* header);
// Field table of the header ("Field / Offset / Size") on stdout, or on `stream`.
void obx_data_file_header_print_layout(void);
void obx_data_file_header_print_layout_to(FILE* stream);
// Hexadecimal id of event schema slot `index` (0..6), newly allocated; nullptr above 6.
char* obx_data_file_header_get_schema_id_string(const obx_data_file_header_t* header, unsigned index);

// ---- blocks -----------------------------------------------------------------------------
#define OBX_MAGIC_SIZE 4u

enum obx_block_type_t : uint32_t {
    OBX_COUNTERS_BLOCK = 0,
    OBX_EVENTS_BLOCK = 1,
    OBX_SCHEMAS_BLOCK = 2,
    OBX_BLOB_BLOCK = 3,
    OBX_UNKNOWN_BLOCK = 4,
    OBX_PAGE_BLOCK = 5,
    OBX_CNTX_BLOCK = 6,
};

// Type from the fourth byte of a block; `block` must hold at least 4 bytes. Bytes 0-2 are
// not looked at, so "CNTX" and "OBXX" are both metrics containers.
uint32_t obx_block_type_get(const uint8_t* block);
const char* obx_block_type_name(uint32_t type);
// Writes "OBX" and the type's letter; a metrics container gets "OBXX", type 4 nothing.
void obx_block_magic_set(uint8_t* block, uint32_t type);
// Same first three bytes and same fourth byte.
bool obx_magic_equal(const uint8_t* a, const uint8_t* b);

// Counters block: magic, padding, timestamp, values.
#define OBX_COUNTERS_BLOCK_TIMESTAMP 8u
#define OBX_COUNTERS_BLOCK_HEAD_SIZE 16u

// Event block: magic, timestamp, schema_index, type_index, num_events, events.
#define OBX_EVENT_BLOCK_TIMESTAMP 4u
#define OBX_EVENT_BLOCK_SCHEMA_INDEX 12u
#define OBX_EVENT_BLOCK_TYPE_INDEX 13u
#define OBX_EVENT_BLOCK_NUM_EVENTS 15u
#define OBX_EVENT_BLOCK_HEAD_SIZE 16u

// Schemas block: magic, block size, id count, reserved, ids.
#define OBX_SCHEMAS_BLOCK_SIZE 4u
#define OBX_SCHEMAS_BLOCK_COUNT 6u
#define OBX_SCHEMAS_BLOCK_IDS 16u
#define OBX_SCHEMAS_BLOCK_MIN_REMAINING 256u
#define OBX_SCHEMAS_BLOCK_MAX_IDS 14u

// Blob block: magic, timestamp, data_size.
#define OBX_BLOB_BLOCK_TIMESTAMP 4u
#define OBX_BLOB_BLOCK_DATA_SIZE 12u
#define OBX_BLOB_BLOCK_HEAD_SIZE 20u

struct obx_event_block_head_t {
    char magic[4];
    uint64_t timestamp;
    uint8_t schema_index;
    uint16_t type_index;
    uint8_t num_events;
};
struct obx_counters_block_head_t {
    char magic[4];
    uint64_t timestamp;
};
struct obx_blob_block_head_t {
    char magic[4];
    uint64_t timestamp;
    uint64_t data_size;
};
struct obx_schemas_block_head_t {
    char magic[4];
    uint16_t block_size;
    uint16_t id_count;
};

// Readers take at least the head size of bytes; writers write exactly the head.
void obx_event_block_head_read(const uint8_t* block, obx_event_block_head_t* head);
void obx_event_block_head_write(uint8_t* block, const obx_event_block_head_t* head);
void obx_counters_block_head_read(const uint8_t* block, obx_counters_block_head_t* head);
void obx_counters_block_head_write(uint8_t* block, const obx_counters_block_head_t* head);
void obx_blob_block_head_read(const uint8_t* block, obx_blob_block_head_t* head);
void obx_blob_block_head_write(uint8_t* block, const obx_blob_block_head_t* head);
void obx_schemas_block_head_read(const uint8_t* block, obx_schemas_block_head_t* head);
void obx_schemas_block_head_write(uint8_t* block, const obx_schemas_block_head_t* head);

void obx_event_block_print(FILE* stream, const uint8_t* block);
void obx_counters_block_print(FILE* stream, const uint8_t* block);
void obx_blob_block_print(FILE* stream, const uint8_t* block);
void obx_event_block_print_layout(void);
void obx_counters_block_print_layout(void);
void obx_blob_block_print_layout(void);
void obx_event_block_print_layout_to(FILE* stream);
void obx_counters_block_print_layout_to(FILE* stream);
void obx_blob_block_print_layout_to(FILE* stream);

// ---- encoded page frame ("OBXP", encoded header, stream, "obxp") -------------------------
#define OBX_PAGE_FRAME_HEADER 4u          // encoded header starts behind the magic
#define OBX_PAGE_FRAME_TRAILER_SIZE 4u
#define OBX_ENC_HEADER_SIZE 0u            // offsets inside the encoded header
#define OBX_ENC_COMPRESSION_TYPE 1u
#define OBX_ENC_STREAM_SIZE 2u
#define OBX_ENC_FIRST_TIMESTAMP 6u
#define OBX_ENC_LAST_TIMESTAMP 14u
#define OBX_ENC_SOURCE_ID 22u
#define OBX_ENC_FIXED_SIZE 24u            // header size = 24 + id length + tag length
#define OBX_COMPRESSION_GZIP 'G'
#define OBX_COMPRESSION_SNAPPY 'S'
#define OBX_PAGE_FRAME_MAGIC "OBXP"
#define OBX_PAGE_FRAME_TRAILER "obxp"
// Magic, H, compression type and S: what must be there before a frame's sizes can be read.
#define OBX_PAGE_FRAME_MIN_READ (OBX_PAGE_FRAME_HEADER + OBX_ENC_STREAM_SIZE + 4u)

// The sizes of one encoded page frame, as stored.
struct obx_page_frame_t {
    uint8_t header_size;       // H, bytes of the encoded header
    uint8_t compression_type;  // 'G' or 'S'
    uint32_t stream_size;      // S, bytes of the compressed stream
};

// Reads H, the compression type and S of the frame at `frame`; false when fewer than
// OBX_PAGE_FRAME_MIN_READ bytes are available. Logs nothing: the page walk decides.
bool obx_page_frame_read(const uint8_t* frame, size_t available, obx_page_frame_t* out);
// 4 + H + S: from the frame's first byte to the end of its stream. In 64 bits, so a huge
// S cannot wrap around.
uint64_t obx_page_frame_stream_end(const obx_page_frame_t* frame);
// 8 + H + S: the whole frame with its trailer; the next frame starts there.
uint64_t obx_page_frame_size(const obx_page_frame_t* frame);
// True when "obxp" stands at 4 + H + S and all four bytes lie within `available`.
bool obx_page_frame_has_trailer(const uint8_t* frame, size_t available, const obx_page_frame_t* info);
