// The layout of a data page: a 720-byte header, then blocks. A page may sit in POSIX shared
// memory and pass between processes, so every field has a fixed offset; the page is our
// own aligned allocation in host byte order, which is why it is a plain record here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/format/data_file_format.h"

#define OBX_DATA_PAGE_HEADER_SIZE 720u
// Header plus the head of one blob block.
#define OBX_DATA_PAGE_MIN_BLOB_SIZE (OBX_DATA_PAGE_HEADER_SIZE + OBX_BLOB_BLOCK_HEAD_SIZE)
// 1.22.1: byte 0 major, byte 1 minor, bytes 2-3 patch.
#define OBX_DATA_PAGE_VERSION 0x00011601u
#define OBX_DATA_PAGE_NAME_SIZE 60u
#define OBX_DATA_PAGE_ADAPTERS 6u
#define OBX_ADAPTER_NAME_SIZE 20u
#define OBX_ADAPTER_GUID_SIZE 16u
#define OBX_ADAPTER_RECORD_SIZE 84u
// Stored in `schema_id` of a blob page: exactly 16 bytes, no terminator.
#define OBX_BLOB_DATA_SCHEMA "BLOB_DATA_SCHEMA"

// Offsets inside the header.
#define OBX_DP_VERSION 0u
#define OBX_DP_PAGE_SIZE 8u
#define OBX_DP_FILLED_BYTES 16u
#define OBX_DP_BLOCK_SIZE 24u
#define OBX_DP_FIRST_TIMESTAMP 32u
#define OBX_DP_LAST_TIMESTAMP 40u
#define OBX_DP_SCHEMA_ID 48u
#define OBX_DP_SOURCE_ID 64u
#define OBX_DP_SOURCE_TAG 128u
#define OBX_DP_CONFIG 144u
#define OBX_DP_CREATOR_PID 212u
#define OBX_DP_ADAPTERS 216u

enum obx_data_page_type_t : uint32_t {
    OBX_DATA_PAGE_REGULAR = 0,
    OBX_DATA_PAGE_SHARED = 1,
};

// How to allocate a page; copied into the header.
struct obx_data_page_config_t {
    uint32_t page_type;
    int32_t page_id;  // makes a shared-memory name unique
    char name[OBX_DATA_PAGE_NAME_SIZE];
};

// One adapter of the host; a zero first byte of `name` marks an unused record.
struct obx_adapter_record_t {
    char name[OBX_ADAPTER_NAME_SIZE];
    char node_guid[OBX_ADAPTER_GUID_SIZE];  // 16 characters, not terminated
    char system_image_guid[OBX_ADAPTER_GUID_SIZE];
    char port_1_guid[OBX_ADAPTER_GUID_SIZE];
    char port_2_guid[OBX_ADAPTER_GUID_SIZE];  // first byte zero with one port
};

struct obx_data_page_t {
    uint32_t version;
    uint32_t padding0;
    uint64_t page_size;     // the whole page, header included
    uint64_t filled_bytes;  // in use, header included
    uint32_t block_size;
    uint32_t padding1;
    uint64_t first_timestamp;  // 0: unset
    uint64_t last_timestamp;
    uint8_t schema_id[OBX_SCHEMA_ID_SIZE];
    char source_id[OBX_SOURCE_ID_SIZE];    // not terminated when full
    char source_tag[OBX_SOURCE_TAG_SIZE];  // not terminated when full
    obx_data_page_config_t config;
    int32_t creator_pid;  // shared pages only
    obx_adapter_record_t adapters[OBX_DATA_PAGE_ADAPTERS];
    // blocks follow

    uint8_t* data() { return reinterpret_cast<uint8_t*>(this) + OBX_DATA_PAGE_HEADER_SIZE; }
    const uint8_t* data() const { return reinterpret_cast<const uint8_t*>(this) + OBX_DATA_PAGE_HEADER_SIZE; }
};

static_assert(sizeof(obx_data_page_config_t) == 68, "page config is 68 bytes");
static_assert(sizeof(obx_adapter_record_t) == OBX_ADAPTER_RECORD_SIZE, "adapter record is 84 bytes");
static_assert(sizeof(obx_data_page_t) == OBX_DATA_PAGE_HEADER_SIZE, "page header is 720 bytes");
static_assert(offsetof(obx_data_page_t, version) == OBX_DP_VERSION, "version");
static_assert(offsetof(obx_data_page_t, page_size) == OBX_DP_PAGE_SIZE, "page_size");
static_assert(offsetof(obx_data_page_t, filled_bytes) == OBX_DP_FILLED_BYTES, "filled_bytes");
static_assert(offsetof(obx_data_page_t, block_size) == OBX_DP_BLOCK_SIZE, "block_size");
static_assert(offsetof(obx_data_page_t, first_timestamp) == OBX_DP_FIRST_TIMESTAMP, "first_timestamp");
static_assert(offsetof(obx_data_page_t, last_timestamp) == OBX_DP_LAST_TIMESTAMP, "last_timestamp");
static_assert(offsetof(obx_data_page_t, schema_id) == OBX_DP_SCHEMA_ID, "schema_id");
static_assert(offsetof(obx_data_page_t, source_id) == OBX_DP_SOURCE_ID, "source_id");
static_assert(offsetof(obx_data_page_t, source_tag) == OBX_DP_SOURCE_TAG, "source_tag");
static_assert(offsetof(obx_data_page_t, config) == OBX_DP_CONFIG, "config");
static_assert(offsetof(obx_data_page_t, creator_pid) == OBX_DP_CREATOR_PID, "creator_pid");
static_assert(offsetof(obx_data_page_t, adapters) == OBX_DP_ADAPTERS, "adapters");
