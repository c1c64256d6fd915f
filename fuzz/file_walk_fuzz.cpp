// Feeds arbitrary bytes to the reader as a whole data file: header checks, the chunk
// walk and the page walk, with the output of format json thrown away. Nothing may read
// outside the chunk or the decoded buffers, and no file may hang the walk.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "data/reader/reader_context.h"
#include "tools/read_options.h"
#include "utils/logger.h"
#include "fuzz_support.h"

namespace {

struct Setup {
    std::string folder;
    std::string input;
    obx_read_options_t options;

    Setup() {
        const char* base = getenv("TMPDIR");
        folder = std::string(base && *base ? base : "/tmp") + "/obx_file_walk_XXXXXX";
        if (!mkdtemp(&folder[0])) abort();
        input = folder + "/input.bin";
        std::memset(&options, 0, sizeof(options));
        if (!obx_read_options_init(&options)) abort();
        obx_string_array_append(&options.include_counters, "*");
        free(options.schema_path);
        options.schema_path = strdup(folder.c_str());  // holds no schema files
        obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);
    }
    ~Setup() {
        unlink(input.c_str());
        rmdir(folder.c_str());
        obx_read_options_release(&options);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Setup setup;
    FILE* file = std::fopen(setup.input.c_str(), "wb");
    if (!file) return 0;
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);

    const obx_fuzz::StdoutToNull quiet;
    obx_reader_process_file(setup.input.c_str(), &setup.options, true);
    return 0;
}
