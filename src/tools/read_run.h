// The whole obx_read run: start of the process, the JSON document frame and the
// processing of every input in order.
#pragma once

#include <cstddef>

struct obx_read_options_t;

// Processes every input (sorted first with -S) and returns the number of files that
// failed; 1 when the run could not start.
int obx_read_run(obx_read_options_t* options);

// The program from its first step to its exit status, callable in-process.
int obx_read_main(int argc, char** argv);
