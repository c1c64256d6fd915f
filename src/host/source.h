// Where collected data comes from: a host or device name and a short tag, and lists of
// them made from a source specification (a count, a range, name[a-b], or a file).
#pragma once

#include <cstddef>
#include <cstdint>

// OBX_SOURCE_ID_SIZE (64: 63 characters and a zero) and OBX_SOURCE_TAG_SIZE (16), as in
// a data file's header.
#include "data/format/data_file_format.h"

#define OBX_SOURCE_ARRAY_MAX 65534

struct obx_source_t {
    char source_id[OBX_SOURCE_ID_SIZE];
    char source_tag[OBX_SOURCE_TAG_SIZE];
};

struct obx_source_array_t {
    uint16_t count;
    uint16_t capacity;      // room in `sources`, grown by doubling
    obx_source_t** sources;  // `count` owned sources
};

// Zeroes the caller's 64 bytes and fills them with the first 63 characters of `id`, or, when
// `id` is missing or empty, of OBX_SOURCE_ID, or else of the host name. False only when the
// host name cannot be had.
bool obx_source_default_id(char buffer[OBX_SOURCE_ID_SIZE], const char* id);

// New sources (obx_source_destroy); both texts cut to their limits. nullptr on failure.
obx_source_t* obx_source_create(const char* id, const char* tag);
obx_source_t* obx_source_create_local(const char* tag);
void obx_source_destroy(obx_source_t* source);
void obx_source_copy(obx_source_t* target, const obx_source_t* source);
// strcmp order of the ids, then of the tags.
int obx_source_compare(const obx_source_t* a, const obx_source_t* b);
// "id:tag" into `buffer`; false (and a debug line) when it does not fit in `size` bytes.
bool obx_source_to_text(const obx_source_t* source, char* buffer, size_t size);

obx_source_array_t* obx_source_array_create(void);
// Destroys the array and every source in it; accepts nullptr.
void obx_source_array_destroy(obx_source_array_t* array);
// The array takes `source` on success; on false the caller keeps it.
bool obx_source_array_add(obx_source_array_t* array, obx_source_t* source);
// Index of that very pointer (texts are not compared), or -1.
int obx_source_array_find(const obx_source_array_t* array, const obx_source_t* source);
// An array holding the one local source with `tag`.
obx_source_array_t* obx_source_array_local(const char* tag);
// One debug line "<label>[<index>] = <id>" per source.
void obx_source_array_log(const obx_source_array_t* array, const char* label);

// The sources of a specification: a fabprobe node list or a text file of ids when `text`
// names a file, otherwise "n" (1..n), "a-b" or "name[a-b]". nullptr after a logged error.
obx_source_array_t* obx_source_array_from_spec(const char* text);
