// The InfiniBand adapters of this host, read from sysfs into the 84-byte records that a
// data page carries, and their JSON text and digest for the node info file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "data/format/data_page_layout.h"

// Fills up to `max_infos` records from <sysfs root>/class/infiniband; a missing tree gives
// none and a missing file an empty field. Always 0.
int obx_hca_info_collect(obx_adapter_record_t* infos, int max_infos);
void obx_hca_info_print(FILE* stream, const obx_adapter_record_t* infos, int count);
// Pretty JSON of the records in use, keyed by adapter name, with "timestamp" when it is
// not 0. `text` is new (obx_json_free_serialized_string); false on failure.
bool obx_hca_info_to_json_text(uint64_t timestamp, const obx_adapter_record_t* infos, int count, char** text,
                               size_t* length);
// MD5 of the records from the start up to `count` or the first one with an empty name.
void obx_hca_info_md5(const obx_adapter_record_t* infos, int count, uint8_t digest[16]);
// 1 when the port has no subnet manager interface, 0 when it has or cannot tell, -1 when
// its has_smi file cannot be read.
int obx_hca_port_without_smi(const char* hca_name, int port);
// Lines of 16 bytes: hexadecimal, a bar and the printable characters.
void obx_hex_dump(const void* data, size_t size, FILE* stream);

// Where sysfs is mounted: "/sys" unless a test points it at a tree of its own.
void obx_hca_info_set_sysfs_root(const char* root);
