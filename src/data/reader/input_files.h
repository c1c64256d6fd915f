// Finding the inputs of a reading run: the walk of a data folder and the search for the
// schema folder next to the first input. Shared by every command that reads data files.
#pragma once

#include "utils/string_array.h"

// Appends every regular file below `path` to `files`, depth first, in readdir order.
// Failures are written to stderr; false stops the walk.
bool obx_read_collect_directory(obx_string_array_t** files, const char* path);
// Looks for `folder_name` next to `path` and in up to `levels` folders above it, never in
// the root. A new path (caller frees) or nullptr.
char* obx_read_find_folder_upwards(const char* path, const char* folder_name, int levels);
