// The node info file: which adapters the host had, written as nodeinfo.json beside the
// data files of a folder whenever the adapter set or the folder changes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "data/writer/data_page.h"

struct obx_node_info_t {
    std::string folder;      // folder of the last file written
    char* json_text;         // owned; nullptr when there is none
    uint64_t json_length;
    uint64_t timestamp;      // first timestamp of the page that gave json_text
    uint8_t digest[16];      // of the adapter records behind json_text; all 0xFF at first
};

void obx_node_info_init(obx_node_info_t* info);
void obx_node_info_destroy(obx_node_info_t* info);
// Makes the text anew when the page's adapters changed, and writes it when they or the
// folder changed: nodeinfo.json, or nodeinfo.<timestamp>.json beside an existing one
// unless OBX_ALLOW_MULTIPLE_NODEINFO says no.
void obx_node_info_update(obx_node_info_t* info, const std::string& folder, const obx_data_page_t* page);
void obx_node_info_write_file(const char* path, const void* data, size_t size);
// MD5 of the records in use (up to the first with an empty name).
void obx_hca_info_digest(const obx_adapter_record_t* records, int count, uint8_t digest[16]);
