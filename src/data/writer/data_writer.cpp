#include "data/writer/data_writer.h"

#include <boost/filesystem.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

#include "host/hca_info.h"
#include "utils/logger.h"
#include "utils/version.h"

bool data_writer_enabled = true;

namespace obx {

// How much of an unrecognized page goes to standard output.
static const size_t kDumpBytes = 1024;

DataWriter::DataWriter(const obx_client_id_t& id) { obx_client_id_copy(&client_id, &id); }

DataWriter::~DataWriter()
{
    for (auto& entry : node_infos) obx_node_info_destroy(&entry.second);
}

void DataWriter::applySettings(DataFile& file)
{
    file.setPathTemplate(file.hasEvents() ? events_path_template : path_template);
    file.setFileAgeLimit(file_age_limit);
    file.setFileSizeLimit(file_size_limit);
    file.setBasePath(base_path);
    file.setKeepOpen(keep_files_open);
}

void DataWriter::applySettingsToAll()
{
    for (auto& entry : files) applySettings(*entry.second);
}

void DataWriter::setBasePath(const std::string& value)
{
    if (value == base_path) return;
    base_path = value;
    applySettingsToAll();
}

void DataWriter::setPathTemplate(const std::string& value)
{
    bool changed = false;
    if (value != path_template) path_template = value, changed = true;
    if (events_path_template.empty() && value != events_path_template) events_path_template = value, changed = true;
    if (changed) applySettingsToAll();
}

void DataWriter::setEventsPathTemplate(const std::string& value)
{
    if (value == events_path_template) return;
    events_path_template = value;
    applySettingsToAll();
}

void DataWriter::setFileSizeLimit(uint64_t value)
{
    if (value == file_size_limit) return;
    file_size_limit = value;
    applySettingsToAll();
}

void DataWriter::setFileAgeLimit(uint64_t value)
{
    if (value == file_age_limit) return;
    file_age_limit = value;
    applySettingsToAll();
}

bool DataWriter::setDataSizeLimit(uint64_t value)
{
    if (file_size_limit >= value) {
        OBX_LOG_ERR("[data_writer] data size limit must be larger than file size limit");
        return false;
    }
    data_size_limit = value;
    return true;
}

uint64_t DataWriter::firstTimestamp(const obx_data_page_t* page) const
{
    const DataFileKey key{std::string(page->source_id, strnlen(page->source_id, OBX_SOURCE_ID_SIZE)),
                          std::string(page->source_tag, strnlen(page->source_tag, OBX_SOURCE_TAG_SIZE))};
    return files.at(key)->firstTimestamp();
}

void DataWriter::writePage(const obx_data_page_t* page)
{
    if (!data_writer_enabled) return;
    if (obx_version_major(page->version) != 1 || obx_version_minor(page->version) < 7) {
        OBX_LOG_WARN("[data_writer] Received incompatible data page. Skipping.");
        return;
    }
    if (page->filled_bytes == OBX_DATA_PAGE_HEADER_SIZE) {
        OBX_LOG_DBG("[data_writer] Received empty data page. Skipping.");
        return;
    }
    // Texts that fill their fields have no terminator: never read past them.
    const DataFileKey key{std::string(page->source_id, strnlen(page->source_id, OBX_SOURCE_ID_SIZE)),
                          std::string(page->source_tag, strnlen(page->source_tag, OBX_SOURCE_TAG_SIZE))};
    // The first block's head is read from the page's data area, never past its end.
    const uint64_t room = page->page_size > OBX_DATA_PAGE_HEADER_SIZE ? page->page_size - OBX_DATA_PAGE_HEADER_SIZE : 0;
    const uint32_t type = room >= OBX_MAGIC_SIZE ? obx_block_type_get(page->data()) : OBX_UNKNOWN_BLOCK;

    auto found = files.find(key);
    if (found == files.end()) {
        found = files.emplace(key, std::unique_ptr<DataFile>(new DataFile(client_id, key.source_id, key.source_tag,
                                                                          type != OBX_COUNTERS_BLOCK)))
                    .first;
        applySettings(*found->second);
    }
    DataFile& file = *found->second;

    switch (type) {
    case OBX_COUNTERS_BLOCK:
        file.setCountersSchemaId(page->schema_id);
        break;
    case OBX_EVENTS_BLOCK:
        OBX_LOG_WARN("[data_writer] First data block is OBXE. No schema ids could be extracted.");
        break;
    case OBX_SCHEMAS_BLOCK:
        // A page too short to hold the seven ids gives none.
        if (room >= OBX_SCHEMAS_BLOCK_IDS + OBX_EVENT_SCHEMA_SLOTS * OBX_SCHEMA_ID_SIZE)
            file.setEventSchemaIds(page->data());
        break;
    case OBX_PAGE_BLOCK:
        OBX_LOG_DBG("[data_writer] First data block is OBXP.");
        break;
    case OBX_CNTX_BLOCK:
        OBX_LOG_DBG("[data_writer] First data block is CNTX.");
        break;
    default: {
        OBX_LOG_WARN("[data_writer] Unrecognized type of data page. Cannot save to file.");
        OBX_LOG_WARN("[data_writer] type: %d ", static_cast<int>(type));
        // A page smaller than the dump is shown whole, never past its end.
        obx_hex_dump(page, page->page_size < kDumpBytes ? static_cast<size_t>(page->page_size) : kDumpBytes, stdout);
        return;
    }
    }

    const uint32_t block_size = page->block_size ? page->block_size
                                                 : static_cast<uint32_t>(page->page_size - OBX_DATA_PAGE_HEADER_SIZE);
    if (block_size == 0) return;  // no data area, nothing to count blocks in
    const uint32_t blocks = static_cast<uint32_t>((block_size + page->filled_bytes - 721) / block_size);
    file.setBlockSize(block_size);
    // The whole last block goes out, but never more than the page holds.
    uint64_t size = static_cast<uint64_t>(block_size) * blocks;
    if (size > room) size = room;

    bool new_file = false;
    const uint64_t written = file.write(obx_data_page_get_first_timestamp(page), page->last_timestamp, page->data(),
                                        size, &new_file);
    if (data_size_limit != 0) {
        if (new_file) managed_files.push_back({file.currentPath(), written});
        if (!managed_files.empty()) managed_files.back().size += written;
        total_data_size += written;
        enforceDataSizeLimit();
    }
    if (write_node_info && !file.currentPath().empty()) {
        const std::string folder = boost::filesystem::path(file.currentPath()).parent_path().string();
        auto info = node_infos.find(folder);
        if (info == node_infos.end()) {
            info = node_infos.emplace(folder, obx_node_info_t()).first;
            obx_node_info_init(&info->second);
        }
        obx_node_info_update(&info->second, folder, page);
    }
}

void DataWriter::enforceDataSizeLimit()
{
    if (data_size_limit == 0) {
        OBX_LOG_ERR("[data_writer] Cannot enforce data size limit, limit unset.");
        return;
    }
    if (total_data_size <= data_size_limit) return;
    while (!managed_files.empty()) {
        const ManagedFile& oldest = managed_files.front();
        boost::system::error_code status_error;
        if (!boost::filesystem::exists(boost::filesystem::status(oldest.path, status_error))) {
            OBX_LOG_ERR("[data_writer] File doesn't exist: %s", oldest.path.c_str());
        } else {
            try {
                boost::filesystem::remove(oldest.path);
            } catch (const boost::filesystem::filesystem_error&) {
                OBX_LOG_ERR("[data_writer] Failed to remove file: %s", oldest.path.c_str());
                return;
            }
        }
        total_data_size -= oldest.size;
        managed_files.erase(managed_files.begin());
        if (total_data_size + file_size_limit <= data_size_limit) return;
    }
}

}  // namespace obx

obx::DataWriter* obx_data_writer_create(const obx_client_id_t* client_id)
{
    if (!client_id) return nullptr;
    try {
        return new obx::DataWriter(*client_id);
    } catch (...) {
        return nullptr;
    }
}

void obx_data_writer_destroy(obx::DataWriter* writer)
{
    try {
        delete writer;
    } catch (...) {
    }
}

// Runs `action` on a writer, turning any exception into false.
template <typename Action>
static bool guarded(obx::DataWriter* writer, Action action)
{
    if (!writer) return false;
    try {
        return action(*writer);
    } catch (...) {
        return false;
    }
}

bool obx_data_writer_set_base_path(obx::DataWriter* writer, const char* text)
{
    if (!text) return false;
    return guarded(writer, [&](obx::DataWriter& w) { w.setBasePath(text); return true; });
}

bool obx_data_writer_set_path_template(obx::DataWriter* writer, const char* text)
{
    if (!text) return false;
    return guarded(writer, [&](obx::DataWriter& w) { w.setPathTemplate(text); return true; });
}

bool obx_data_writer_set_events_path_template(obx::DataWriter* writer, const char* text)
{
    if (!text) return false;
    return guarded(writer, [&](obx::DataWriter& w) { w.setEventsPathTemplate(text); return true; });
}

bool obx_data_writer_set_file_size_limit(obx::DataWriter* writer, uint64_t bytes)
{
    return guarded(writer, [&](obx::DataWriter& w) { w.setFileSizeLimit(bytes); return true; });
}

bool obx_data_writer_set_file_age_limit(obx::DataWriter* writer, uint64_t microseconds)
{
    return guarded(writer, [&](obx::DataWriter& w) { w.setFileAgeLimit(microseconds); return true; });
}

bool obx_data_writer_set_data_size_limit(obx::DataWriter* writer, uint64_t bytes)
{
    return guarded(writer, [&](obx::DataWriter& w) { return w.setDataSizeLimit(bytes); });
}

bool obx_data_writer_set_keep_files_open(obx::DataWriter* writer, bool flag)
{
    return guarded(writer, [&](obx::DataWriter& w) { w.setKeepFilesOpen(flag); return true; });
}

bool obx_data_writer_set_write_node_info(obx::DataWriter* writer, bool flag)
{
    return guarded(writer, [&](obx::DataWriter& w) { w.setWriteNodeInfo(flag); return true; });
}

bool obx_data_writer_write_page(obx::DataWriter* writer, const obx_data_page_t* page, const obx_type_system_t*)
{
    if (!page) return false;
    return guarded(writer, [&](obx::DataWriter& w) { w.writePage(page); return true; });
}

uint64_t obx_data_writer_get_first_timestamp(obx::DataWriter* writer, const obx_data_page_t* page)
{
    if (!writer || !page) return 0;
    try {
        return writer->firstTimestamp(page);
    } catch (const std::out_of_range&) {
        OBX_LOG_ERR("could not find the source of the page!\n");
    } catch (...) {
    }
    return 0;
}
