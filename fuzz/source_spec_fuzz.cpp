// Source specifications: the first byte picks a range text or a file of lines. A range
// that is taken must give consecutive numbered ids; a file must give exactly the ids that
// an independent reading of its lines finds.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/source.h"
#include "utils/logger.h"

namespace {

const size_t kPiece = 1023;  // characters of a line the reader looks at

void check_sources(const obx_source_array_t* array) {
    if (array->count > OBX_SOURCE_ARRAY_MAX) std::abort();
    for (uint16_t i = 0; i < array->count; ++i) {
        const obx_source_t* source = array->sources[i];
        if (strnlen(source->source_id, sizeof(source->source_id)) >= sizeof(source->source_id)) std::abort();
        if (source->source_tag[0] != '\0') std::abort();
    }
}

// Ids "<name>_<k>" with k counting up by one; ids cut at 63 characters are passed over.
void check_range(const std::string& text) {
    struct stat status;
    if (stat(text.c_str(), &status) == 0) return;  // names a file of this machine
    obx_source_array_t* array = obx_source_array_from_spec(text.c_str());
    if (!array) return;
    check_sources(array);
    if (array->count == 0) std::abort();
    long previous = 0;
    std::string name;
    for (uint16_t i = 0; i < array->count; ++i) {
        const std::string id = array->sources[i]->source_id;
        if (id.size() >= OBX_SOURCE_ID_SIZE - 1) continue;
        const size_t underscore = id.rfind('_');
        if (underscore == std::string::npos) std::abort();
        const long number = std::strtol(id.c_str() + underscore + 1, nullptr, 10);
        if (i > 0 && (number != previous + 1 || id.substr(0, underscore) != name)) std::abort();
        previous = number, name = id.substr(0, underscore);
    }
    obx_source_array_destroy(array);
}

std::vector<std::string> expected_ids(const std::string& content) {
    std::vector<std::string> firsts;  // the first piece of each line, cut at '\r' and at a NUL
    bool node_list = false;
    for (size_t start = 0; start < content.size();) {
        size_t end = content.find('\n', start);
        const size_t next = end == std::string::npos ? content.size() : end + 1;
        if (end == std::string::npos) end = content.size();
        const std::string line = content.substr(start, end - start);
        for (size_t piece = 0; piece < line.size(); piece += kPiece) {
            const std::string text = line.substr(piece, kPiece);
            if (text.find("H-") != std::string::npos || text.find("S-") != std::string::npos) node_list = true;
        }
        const std::string first = line.substr(0, kPiece);
        firsts.push_back(std::string(first.substr(0, first.find('\r')).c_str()));
        start = next;
    }
    std::vector<std::string> ids;
    for (const std::string& line : firsts) {
        std::string id = line;
        if (node_list) {
            const size_t open = line.find('(');
            const size_t close = open == std::string::npos ? open : line.find(')', open + 1);
            if (close == std::string::npos) continue;
            id = line.substr(open + 1, close - open - 1);
        } else if (line.empty()) {
            continue;
        }
        ids.push_back(id.substr(0, OBX_SOURCE_ID_SIZE - 1));
    }
    return ids;
}

void check_file(const std::string& content) {
    char path[] = "/tmp/obx_source_fuzz_XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return;
    const bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    obx_source_array_t* array = written ? obx_source_array_from_spec(path) : nullptr;
    unlink(path);
    if (!written) return;
    const std::vector<std::string> expected = expected_ids(content);
    if (!array) {
        if (expected.size() <= OBX_SOURCE_ARRAY_MAX) std::abort();
        return;
    }
    check_sources(array);
    if (array->count != expected.size()) std::abort();
    for (uint16_t i = 0; i < array->count; ++i)
        if (expected[i] != array->sources[i]->source_id) std::abort();
    obx_source_array_destroy(array);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = obx_init_stderr_logger(0);
    (void)quiet;
    setenv("OBX_HOST_NAME", "fuzz", 1);
    if (size == 0) return 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1)
        check_file(rest);
    else
        check_range(rest.substr(0, strnlen(rest.c_str(), rest.size())));
    return 0;
}
