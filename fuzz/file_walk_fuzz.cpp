// Feeds arbitrary bytes to the reader as a whole data file, with the schema folder that
// `obx gen` writes (fuzz/file_walk_schemas), so that fuzzed files reach event, counter
// and CNTX rendering through the chunk and page walks. Output is ndjson: whatever the
// file holds and wherever it fails, every line written must parse as JSON.
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
#include "utils/json.h"
#include "utils/logger.h"
#include "fuzz_support.h"

namespace {

struct Setup {
    std::string folder, input, output;
    obx_read_options_t options;

    Setup() {
        const char* base = getenv("TMPDIR");
        folder = std::string(base && *base ? base : "/tmp") + "/obx_file_walk_XXXXXX";
        if (!mkdtemp(&folder[0])) abort();
        input = folder + "/input.bin";
        output = folder + "/output.ndjson";
        std::memset(&options, 0, sizeof(options));
        if (!obx_read_options_init(&options)) abort();
        obx_string_array_append(&options.include_counters, "*");
        options.format = OBX_OUTPUT_FORMAT_NDJSON;
        free(options.schema_path);
        options.schema_path = strdup(OBX_FUZZ_SCHEMA_FOLDER);
        obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);
    }
    ~Setup() {
        unlink(input.c_str());
        unlink(output.c_str());
        rmdir(folder.c_str());
        obx_read_options_release(&options);
    }
};

// Standard output into `path` while it lives.
class StdoutToFile {
public:
    explicit StdoutToFile(const std::string& path)
        : saved_((std::fflush(stdout), dup(STDOUT_FILENO))), file_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)) {
        if (saved_ < 0 || file_ < 0) abort();
        dup2(file_, STDOUT_FILENO);
    }
    ~StdoutToFile() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        close(file_);
    }

private:
    int saved_, file_;
};

std::string read_all(const std::string& path) {
    std::string text;
    if (FILE* file = std::fopen(path.c_str(), "rb")) {
        char buffer[65536];
        for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, n);
        std::fclose(file);
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Setup setup;
    FILE* file = std::fopen(setup.input.c_str(), "wb");
    if (!file) return 0;
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);

    {
        const StdoutToFile capture(setup.output);
        obx_reader_process_file(setup.input.c_str(), &setup.options, true);
    }
    const std::string text = read_all(setup.output);
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) abort();  // a record cut short
        json_t* value = obx_json_parse_buffer(text.data() + start, end - start);
        if (!value) abort();
        json_decref(value);
        start = end + 1;
    }
    return 0;
}
