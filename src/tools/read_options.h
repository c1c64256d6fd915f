// The obx_read command line: its options record, the output formats, parsing, the
// usage text and the building of the input list (free arguments, then a -d walk).
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/reader/reader_options.h"

// True when the run may go on; rejections are written to stderr. -h and -V print and
// end the process with status 0.
bool obx_read_options_parse(obx_read_options_t* options, int argc, char** argv);

enum obx_read_parse_result_t {
    OBX_READ_PARSE_OK = 0,      // go on with the run
    OBX_READ_PARSE_EXIT = 1,    // -h or -V answered: stop with status 0
    OBX_READ_PARSE_FAILED = 2,  // rejected: usage and status 1
};
// The parse itself, leaving the end of the process to the caller.
obx_read_parse_result_t obx_read_options_parse_command_line(obx_read_options_t* options, int argc, char** argv);
void obx_read_print_usage(void);
