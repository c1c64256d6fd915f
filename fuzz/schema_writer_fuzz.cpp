// JSON texts to the schema writer. Whatever it accepts, every file it leaves must be named
// by the MD5 of its bytes and hold a JSON value that parses back; what it refuses
// it refuses with a runtime error, and nothing else escapes.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "data/schema/schema_json.h"
#include "data/writer/schema_writer.h"
#include "fuzz_support.h"
#include "utils/json.h"
#include "utils/logger.h"

namespace {

void check_and_clear(const std::string& folder) {
    DIR* directory = opendir(folder.c_str());
    if (!directory) return;
    while (struct dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = folder + "/" + name;
        std::ifstream in(path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        uint8_t digest[16];
        char hex[33];
        if (!obx_md5_compute(bytes.data(), bytes.size(), digest)) std::abort();
        obx_md5_to_hex_into(digest, hex);
        if (name != std::string("schema_") + hex + ".json") std::abort();
        json_t* value = obx_json_parse_buffer(bytes.data(), bytes.size());
        if (!value) std::abort();
        json_decref(value);
        unlink(path.c_str());
    }
    closedir(directory);
    rmdir(folder.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG), true);
    (void)quiet;
    obx_json_set_escape_slashes(0);
    char folder[] = "/tmp/obx_schema_writer_fuzz_XXXXXX";
    if (!mkdtemp(folder)) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    obx::SchemaWriter writer;
    writer.schema_path = std::string(folder) + "/schema";
    try {
        writer.onSchema(text.c_str());
    } catch (const std::runtime_error&) {
        // refused: no schema of a supported version
    }
    check_and_clear(writer.schema_path);
    rmdir(folder);
    return 0;
}
