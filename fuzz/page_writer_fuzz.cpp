// Data pages from arbitrary bytes handed to the data writer: the first 16 bytes set the
// page's version minor, block size, filled count and times, the rest is its data area.
// Whatever the page, every file the writer leaves has a valid header whose size is the
// size on disk, and the files hold exactly the bytes the writer says it wrote.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "data/format/data_file_format.h"
#include "data/writer/data_writer.h"
#include "fuzz_support.h"
#include "utils/logger.h"

namespace {

// A folder of this process's own, removed at exit.
char g_folder[] = "/tmp/obx_page_writer_fuzz_XXXXXX";

void remove_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(g_folder, ignored);
}

const char* folder() {
    static const bool made = [] {
        const bool ok = mkdtemp(g_folder) != nullptr;
        if (ok) std::atexit(remove_folder);
        return ok;
    }();
    if (!made) std::abort();
    return g_folder;
}

uint64_t check_files_and_sum_bodies() {
    uint64_t bodies = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder())) {
        if (!entry.is_regular_file()) continue;
        FILE* file = std::fopen(entry.path().c_str(), "rb");
        if (!file) std::abort();
        uint8_t bytes[OBX_FILE_HEADER_SIZE];
        if (std::fread(bytes, sizeof(bytes), 1, file) != 1) std::abort();
        std::fclose(file);
        obx_data_file_header_t header;
        obx_data_file_header_decode(bytes, &header);
        if (!obx_data_file_header_validate(&header)) std::abort();
        if (header.file_size != std::filesystem::file_size(entry.path())) std::abort();
        bodies += header.file_size - OBX_FILE_HEADER_SIZE;
    }
    return bodies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_fuzz::quiet_log();
    if (size < 16 || size > (1u << 20)) return 0;
    const uint8_t minor = data[0];
    const uint32_t block_size = obx_le_u16(data + 1);
    const uint64_t filled = OBX_DATA_PAGE_HEADER_SIZE + obx_le_u16(data + 3);
    const uint64_t first = obx_le_u32(data + 5), last = obx_le_u32(data + 9);
    const uint8_t tag = data[13] & 3;
    data += 16, size -= 16;

    obx_data_page_t* page = static_cast<obx_data_page_t*>(calloc(1, OBX_DATA_PAGE_HEADER_SIZE + size));
    page->version = 1u | static_cast<uint32_t>(minor) << 8;
    page->page_size = OBX_DATA_PAGE_HEADER_SIZE + size;
    page->filled_bytes = filled;
    page->block_size = block_size;
    page->first_timestamp = first;
    page->last_timestamp = last;
    std::memcpy(page->source_id, "fuzz", 4);
    page->source_tag[0] = static_cast<char>('a' + tag);
    if (size) std::memcpy(page->data(), data, size);

    obx_client_id_t client;
    std::memset(&client, 0, sizeof(client));
    std::strcpy(client.host_name, "fuzz");
    std::filesystem::remove_all(folder());
    std::filesystem::create_directories(folder());
    uint64_t reported = 0;
    {
        obx_fuzz::StdoutToNull quiet_dump;
        obx::DataWriter writer(client);
        writer.setBasePath(folder());
        writer.setPathTemplate("{{tag}}{{id}}.bin");
        writer.setFileSizeLimit(4096);
        // A limit never reached: the writer then counts every byte it wrote.
        writer.setDataSizeLimit(1ull << 62);
        // Twice: the second write appends or starts a file by the limits.
        for (int round = 0; round < 2; ++round) writer.writePage(page);
        reported = writer.totalDataSize();
    }
    if (check_files_and_sum_bodies() != reported) std::abort();
    free(page);
    return 0;
}
