// Templates of file paths from arbitrary bytes: "<template>\0<source id>\0<tag>". The
// expansion with no known key gives its text back; the hash fills one key and leaves what
// stands before it; a whole path is built for a first time taken from the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "data/writer/data_file.h"
#include "data/writer/path_template.h"
#include "fuzz_support.h"
#include "utils/logger.h"

namespace {

std::string take(const uint8_t*& data, size_t& size) {
    const void* zero = std::memchr(data, 0, size);
    const size_t length = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - data) : size;
    std::string piece(reinterpret_cast<const char*>(data), length);
    const size_t used = zero ? length + 1 : length;
    data += used, size -= used;
    return piece;
}

// The number a "{{hash" key would divide by, as the hash step reads it; 0 ends the process.
bool divides_by_zero(const std::string& text) {
    const size_t at = text.find("{{hash");
    if (at == std::string::npos) return false;
    const char* digits = text.c_str() + at + 6;
    char* end = nullptr;
    const long long n = std::strtoll(digits, &end, 10);
    return end != digits && static_cast<int>(n) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_fuzz::quiet_log();
    uint64_t first = 0;
    if (size >= 8) {
        std::memcpy(&first, data, 8);
        data += 8, size -= 8;
    }
    const std::string text = take(data, size), source = take(data, size), tag = take(data, size);

    if (obx_template_expand(text, {}) != text) std::abort();
    if (obx_template_expand(text, {{"source", "{{source}}"}, {"tag", "{{tag}}"}}) != text) std::abort();

    if (divides_by_zero(text)) return 0;
    std::string hashed = text;
    obx_template_apply_hash(source, hashed);
    const size_t at = text.find("{{hash");
    if (at != std::string::npos && hashed.compare(0, at, text, 0, at) != 0) std::abort();
    if (at == std::string::npos && hashed != text) std::abort();

    obx_client_id_t client;
    std::memset(&client, 0, sizeof(client));
    std::strcpy(client.host_name, "fuzz");
    obx::DataFile file(client, source, tag, true);
    if (first != 0) {
        // The facet fills every marker of the path; a text with none comes back as it was.
        const std::string timed = obx_template_apply_time(text, source, first);
        if (text.find_first_of("%{") == std::string::npos && timed != text) std::abort();
    } else {
        // Nothing of a file is known yet: stage one alone, no base path.
        const std::string path = file.buildPath(text);
        if (text.find("{{") == std::string::npos && path != text) std::abort();
    }
    return 0;
}
