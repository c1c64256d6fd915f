// Data pages: the unit in which blocks travel from a producer to the data writer, in heap
// memory or in POSIX shared memory that another process can open by name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/format/data_page_layout.h"

struct obx_source_t;

// A page of `page_size` bytes, header included, or nullptr after an error line. A
// `block_size` of 0 makes one block of the whole data area.
obx_data_page_t* obx_data_page_create(uint32_t block_size, size_t page_size, const obx_data_page_config_t* config);
// Frees a heap page; unmaps a shared page, and unlinks its name in the creating process
// only. Pages of an unknown type are left alone. Accepts nullptr.
void obx_data_page_destroy(obx_data_page_t* page);

// The stored first time, or (with an error line) the time now when it was never set.
uint64_t obx_data_page_get_first_timestamp(const obx_data_page_t* page);
uint64_t obx_data_page_get_last_timestamp(const obx_data_page_t* page);
void obx_data_page_set_first_timestamp(obx_data_page_t* page);
void obx_data_page_update_last_timestamp(obx_data_page_t* page);
// Accounts for `size` bytes placed behind the filled ones.
void obx_data_page_consume_free_space(obx_data_page_t* page, uint64_t size);

bool obx_data_page_is_blob(const obx_data_page_t* page);
void obx_data_page_mark_blob(obx_data_page_t* page);
// A heap page holding one blob block of `size` bytes from `data`, stamped with the time now.
obx_data_page_t* obx_data_page_create_blob(const obx_source_t* source, const void* data, size_t size);

// Inner steps of the shared form. Results are 0 or -1; `out_creator_pid` is this
// process's id when it created the memory and -1 when it opened memory that was there.
int obx_allocate_shared_mem(const char* name, size_t size, void** out_address, int32_t* out_creator_pid);
// Names the memory "<name>_<page_id>", cut to 59 characters, writing the final name back
// into `config`.
int obx_data_page_create_shared(obx_data_page_config_t* config, size_t size, void** out_address,
                                int32_t* out_creator_pid);
int obx_data_page_unmap_shared(void* page, size_t size, const char* name);
int obx_data_page_unlink_shared(void* page, size_t size, const char* name);

// Microseconds since the epoch from the real-time clock.
uint64_t obx_data_page_time_now(void);
