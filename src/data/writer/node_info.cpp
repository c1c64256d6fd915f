#include "data/writer/node_info.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/hca_info.h"
#include "utils/env.h"
#include "utils/json.h"
#include "utils/logger.h"

void obx_hca_info_digest(const obx_adapter_record_t* records, int count, uint8_t digest[16])
{
    obx_hca_info_md5(records, count, digest);
}

void obx_node_info_init(obx_node_info_t* info)
{
    info->folder.clear();
    info->json_text = nullptr;
    info->json_length = 0;
    info->timestamp = 0;
    std::memset(info->digest, 0xFF, sizeof(info->digest));
}

void obx_node_info_destroy(obx_node_info_t* info)
{
    if (!info) return;
    obx_json_free_serialized_string(info->json_text);
    info->json_text = nullptr;
    info->json_length = 0;
}

static bool same_folder(const std::string& a, const std::string& b)
{
    return boost::filesystem::path(a) == boost::filesystem::path(b);
}

void obx_node_info_update(obx_node_info_t* info, const std::string& folder, const obx_data_page_t* page)
{
    uint8_t digest[16];
    obx_hca_info_digest(page->adapters, OBX_DATA_PAGE_ADAPTERS, digest);
    if (std::memcmp(digest, info->digest, sizeof(digest)) == 0) {
        if (same_folder(folder, info->folder)) return;
        info->folder = folder;
    } else {
        obx_json_free_serialized_string(info->json_text);
        // Never left pointing at freed text: a failed build below writes nothing.
        info->json_text = nullptr;
        info->json_length = 0;
        info->timestamp = obx_data_page_get_first_timestamp(page);
        char* text = nullptr;
        size_t length = 0;
        if (obx_hca_info_to_json_text(info->timestamp, page->adapters, OBX_DATA_PAGE_ADAPTERS, &text, &length)) {
            info->json_text = text;
            info->json_length = length;
            std::memcpy(info->digest, digest, sizeof(digest));
            if (!same_folder(folder, info->folder)) info->folder = folder;
        } else {
            if (same_folder(folder, info->folder)) return;
            info->folder = folder;
        }
    }
    char path[1000];
    std::snprintf(path, sizeof(path), "%s/nodeinfo.json", info->folder.c_str());
    struct stat status;
    if (stat(path, &status) == 0) {
        const char* setting = obx_getenv("ALLOW_MULTIPLE_NODEINFO");
        // An empty value allows, unlike the other switches.
        if (setting && setting[0] != '\0') {
            const char first = static_cast<char>(std::tolower(static_cast<unsigned char>(setting[0])));
            if (first != '1' && first != 't' && first != 'y') return;
        }
        std::snprintf(path, sizeof(path), "%s/nodeinfo.%lu.json", info->folder.c_str(),
                      static_cast<unsigned long>(info->timestamp));
    }
    if (!info->json_text) return;
    obx_node_info_write_file(path, info->json_text, info->json_length);
}

void obx_node_info_write_file(const char* path, const void* data, size_t size)
{
    FILE* file = std::fopen(path, "wb");
    if (!file) {
        OBX_LOG_ERR("[nodeinfo_file] Failed to open file %s for writing: %s", path, std::strerror(errno));
        return;
    }
    bool written = std::fwrite(data, size, 1, file) == 1;
    if (std::fclose(file) != 0) written = false;
    if (!written) OBX_LOG_ERR("[nodeinfo_file] Failed to write data to file %s: %s", path, std::strerror(errno));
}
