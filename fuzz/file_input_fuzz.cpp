// The reader's file input against zlib's gzread on arbitrary files: the first byte picks
// the read sizes, the rest is the file. Both must give the same counts, bytes, ends and
// error texts, read for read.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "data/reader/file_input.h"

namespace {

struct Read {
    int got;
    bool failed, eof;
    std::string error, bytes;
    bool operator!=(const Read& o) const {
        return got != o.got || failed != o.failed || eof != o.eof || error != o.error || bytes != o.bytes;
    }
};

const std::string& path() {
    static const std::string file = [] {
        const char* base = getenv("TMPDIR");
        std::string folder = std::string(base && *base ? base : "/tmp") + "/obx_file_input_XXXXXX";
        if (!mkdtemp(&folder[0])) abort();
        return folder + "/input";
    }();
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    static const unsigned kSizes[4][2] = {{256, 4096}, {4096, 4096}, {256, 16384}, {70000, 70000}};
    const unsigned* sizes = kSizes[data[0] % 4];
    FILE* file = std::fopen(path().c_str(), "wb");
    if (!file) return 0;
    std::fwrite(data + 1, 1, size - 1, file);
    std::fclose(file);

    gzFile z = gzopen(path().c_str(), "rb");
    obx_file_input_t* input = obx_file_input_open(path().c_str());
    if (!z || !input) abort();
    std::vector<char> a(70000), b(70000);
    for (int call = 0; call < 64; ++call) {
        const unsigned length = call == 0 ? sizes[0] : sizes[1];
        Read by_zlib, by_input;
        by_zlib.got = gzread(z, a.data(), length);
        int code = Z_OK;
        const char* text = gzerror(z, &code);
        by_zlib.failed = by_zlib.got < 0 || code != Z_OK;
        by_zlib.error = by_zlib.failed ? text : "";
        if (by_zlib.error.compare(0, path().size() + 2, path() + ": ") == 0) by_zlib.error.erase(0, path().size() + 2);
        by_zlib.eof = gzeof(z);
        by_zlib.bytes.assign(a.data(), by_zlib.got > 0 ? static_cast<size_t>(by_zlib.got) : 0);

        by_input.got = obx_file_input_read(input, b.data(), length);
        by_input.failed = obx_file_input_failed(input, by_input.got);
        by_input.error = by_input.failed ? obx_file_input_error(input) : "";
        by_input.eof = obx_file_input_eof(input);
        by_input.bytes.assign(b.data(), by_input.got > 0 ? static_cast<size_t>(by_input.got) : 0);
        if (by_zlib != by_input) abort();
        if (by_zlib.failed || by_zlib.got == 0) break;
    }
    gzclose(z);
    obx_file_input_close(input);
    return 0;
}
