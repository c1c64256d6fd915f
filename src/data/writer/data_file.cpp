#include "data/writer/data_file.h"

#include <unistd.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "utils/logger.h"

namespace fs = boost::filesystem;

namespace obx {

DataFile::DataFile(const obx_client_id_t& client_id_in, const std::string& source_id_in,
                   const std::string& source_tag_in, bool has_events_in)
    : source_id(source_id_in), source_tag(source_tag_in), has_events(has_events_in)
{
    obx_client_id_copy(&client_id, &client_id_in);
}

DataFile::~DataFile()
{
    if (!path.empty()) updateHeader();
    if (stream) std::fclose(stream);
}

void DataFile::setBasePath(const std::string& value)
{
    if (value.empty() || value == base_path) return;
    base_path = value;
    closeFile();
}

void DataFile::setPathTemplate(const std::string& value)
{
    if (value.empty() || value == path_template) return;
    path_template = value;
    closeFile();
}

void DataFile::setSourceTag(const std::string& value)
{
    if (value == source_tag) return;
    source_tag = value;
    closeFile();
}

void DataFile::setFileSizeLimit(uint64_t value)
{
    if (value == 0 || value == file_size_limit) return;
    file_size_limit = value;
    closeFile();
}

void DataFile::setFileAgeLimit(uint64_t value)
{
    if (value == 0 || value == file_age_limit) return;
    file_age_limit = value;
    closeFile();
}

void DataFile::setBlockSize(uint32_t value)
{
    if (value == block_size) return;
    block_size = value;
    closeFile();
}

void DataFile::setCountersSchemaId(const uint8_t id[OBX_SCHEMA_ID_SIZE])
{
    if (std::memcmp(id, counters_schema_id, OBX_SCHEMA_ID_SIZE) == 0) return;
    std::memcpy(counters_schema_id, id, OBX_SCHEMA_ID_SIZE);
    closeFile();
}

void DataFile::setEventSchemaIds(const uint8_t* schemas_block)
{
    const uint8_t* ids = schemas_block + OBX_SCHEMAS_BLOCK_IDS;
    for (unsigned i = 0; i < OBX_EVENT_SCHEMA_SLOTS; ++i) {
        if (std::memcmp(ids + i * OBX_SCHEMA_ID_SIZE, event_schema_ids[i], OBX_SCHEMA_ID_SIZE) != 0) {
            std::memcpy(event_schema_ids, ids, sizeof(event_schema_ids));
            closeFile();
            return;
        }
    }
}

std::string DataFile::buildPath(const std::string& text) const
{
    char number[32];
    std::snprintf(number, sizeof(number), "%d", static_cast<int>(client_id.port));
    char timestamp[32];
    std::snprintf(timestamp, sizeof(timestamp), "%" PRIu64, first_timestamp);
    const obx_template_keys_t stage1 = {
        {"node", std::string(client_id.host_name, strnlen(client_id.host_name, sizeof(client_id.host_name)))},
        {"source", source_id},
        {"port", number},
        {"timestamp", timestamp},
        {"tag", source_tag.empty() ? std::string() : source_tag + "_"},
    };
    std::string result = obx_template_expand(text, stage1);
    result = obx_template_apply_time(result, source_id, first_timestamp);
    if (!file_id.empty()) result = obx_template_expand(result, {{"id", file_id}});
    if (base_path.empty()) return result;

    for (size_t at = result.find("_/"); at != std::string::npos; at = result.find("_/", at + 1))
        result.replace(at, 2, "/");
    fs::path full = fs::absolute(fs::path(base_path));
    full /= result;
    return full.string();
}

bool DataFile::needsNewFile(uint64_t last) const
{
    if (first_timestamp == 0) return true;
    if (file_size >= file_size_limit) return true;
    if (first_timestamp > last) {
        OBX_LOG_WARN("first_timestamp %luis greater than current timestamp: %lu",
                     static_cast<unsigned long>(first_timestamp), static_cast<unsigned long>(last));
        return true;
    }
    if (last - first_timestamp >= file_age_limit) return true;
    return path.empty();
}

bool DataFile::openNextFile(uint64_t first, uint64_t last)
{
    if (!needsNewFile(last)) return false;
    if (!path.empty()) updateHeader();
    first_timestamp = first;
    last_timestamp = 0;
    file_id = first ? std::to_string(first) : std::string();
    file_size = 0;
    path = buildPath(path_template);
    if (path.empty()) return true;

    boost::system::error_code status_error;
    if (fs::exists(fs::status(path, status_error))) {
        OBX_LOG_DBG("[data_file] Append data to an existing file %s", path.c_str());
        FILE* existing = std::fopen(path.c_str(), "rb");
        if (!existing) {
            OBX_LOG_ERR("[data_file] Failed to open %s\n", path.c_str());
        } else {
            if (std::fseek(existing, 0, SEEK_END) == 0) {
                const long length = std::ftell(existing);
                if (length > 0) file_size = static_cast<uint64_t>(length);
            }
            std::fclose(existing);
        }
        return true;
    }
    try {
        ensureParentFolder();
    } catch (const std::runtime_error& error) {
        if (ok) {
            OBX_LOG_ERR("[data_file] Failed to create data file %s: %s", path.c_str(), error.what());
            ok = false;
        }
        path.clear();
        return false;
    }
    if (!createFile()) {
        if (ok) {
            OBX_LOG_ERR("[data_file] Failed to create empty data file %s: %s", path.c_str(), std::strerror(errno));
            ok = false;
        }
        path.clear();
        return false;
    }
    return true;
}

void DataFile::ensureParentFolder() const
{
    const fs::path parent = fs::path(path).parent_path();
    if (parent.empty()) return;
    // boost's own errors are runtime errors too: a plain file on the way lands here.
    if (!fs::exists(parent)) fs::create_directories(parent);
    if (!fs::is_directory(parent)) throw std::runtime_error("Inaccessible data path " + parent.string());
}

bool DataFile::createFile()
{
    errno = 0;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        OBX_LOG_ERR("[data_file] Failed to open file %s for writing: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    obx_data_file_header_t* header = obx_data_file_header_create();
    if (!header) {
        const int saved = errno;
        OBX_LOG_ERR("[data_file] Failed allocating file header buffer: %s", std::strerror(saved));
        std::fclose(file);
        errno = saved;
        return false;
    }
    header->first_timestamp = first_timestamp;
    header->last_timestamp = 0;
    header->block_size = block_size;
    std::strncpy(header->source_id, source_id.c_str(), OBX_SOURCE_ID_SIZE - 1);
    std::strncpy(header->source_tag, source_tag.c_str(), OBX_SOURCE_TAG_SIZE - 1);
    std::memcpy(header->counters_schema_id, counters_schema_id, OBX_SCHEMA_ID_SIZE);
    std::memcpy(header->event_schema_ids, event_schema_ids, sizeof(event_schema_ids));
    uint8_t bytes[OBX_FILE_HEADER_SIZE];
    obx_data_file_header_encode(header, bytes);
    // A full disk may only show when the buffer goes out, so the close counts too.
    bool written = std::fwrite(bytes, OBX_FILE_HEADER_SIZE, 1, file) == 1;
    int saved = errno;
    if (std::fclose(file) != 0 && written) {
        written = false;
        saved = errno;
    }
    if (written)
        file_size = header->file_size;
    else
        OBX_LOG_ERR("[data_file] Failed writing header of the data file %s: %s", path.c_str(), std::strerror(saved));
    free(header);
    errno = saved;
    return written;
}

uint64_t DataFile::write(uint64_t first, uint64_t last, const void* data, uint64_t size, bool* new_file)
{
    const bool created = openNextFile(first, last);
    if (new_file) *new_file = created;
    last_timestamp = last;
    if (path.empty()) return 0;
    return appendData(data, size);
}

uint64_t DataFile::appendData(const void* data, uint64_t size)
{
    if (!stream) {
        errno = 0;
        stream = std::fopen(path.c_str(), "ab");
        if (!stream) {
            if (!ok) return 0;
            OBX_LOG_ERR("[data_file] Failed to open data file %s for writing: %s", path.c_str(), std::strerror(errno));
            ok = false;
            closeFile();
            return 0;
        }
    }
    bool complete = std::fwrite(data, 1, size, stream) == size;
    // Buffered bytes that never reach the disk are not written: push them out now, so a
    // full disk is seen at this write and the header never counts what is not there.
    if (complete && std::fflush(stream) != 0) complete = false;
    if (complete) {
        file_size += size;
        ok = true;
        if (!keep_open) {
            std::fclose(stream);
            stream = nullptr;
            updateHeader();
        }
        return size;
    }
    if (ok) OBX_LOG_ERR("[data_file] Failed appending data file %s: %s", path.c_str(), std::strerror(errno));
    ok = false;
    closeFile();
    return 0;
}

void DataFile::closeFile()
{
    if (!path.empty()) updateHeader();
    path.clear();
}

bool DataFile::updateHeader()
{
    if (stream) {
        std::fclose(stream);
        stream = nullptr;
    }
    errno = 0;
    FILE* file = std::fopen(path.c_str(), "rb+");
    if (!file) {
        OBX_LOG_ERR("[data_file] Failed opening data file %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    bool done = false;
    uint8_t bytes[OBX_FILE_HEADER_SIZE];
    obx_data_file_header_t header;
    if (std::fread(bytes, OBX_FILE_HEADER_SIZE, 1, file) != 1) {
        OBX_LOG_ERR("[data_file] Failed reading header of data file %s: %s", path.c_str(), std::strerror(errno));
    } else {
        obx_data_file_header_decode(bytes, &header);
        if (!obx_data_file_header_validate(&header)) {
            OBX_LOG_ERR("[data_file] Header of file %s is invalid. Will not update.", path.c_str());
        } else {
            if (header.first_timestamp == 0) header.first_timestamp = first_timestamp;
            header.last_timestamp = last_timestamp;
            header.file_size = file_size;
            obx_data_file_header_encode(&header, bytes);
            if (std::fseek(file, 0, SEEK_SET) != 0) {
                OBX_LOG_ERR("[data_file] Failed moving to the beginning of file %s: %s", path.c_str(),
                            std::strerror(errno));
            } else if (std::fwrite(bytes, OBX_FILE_HEADER_SIZE, 1, file) != 1 || std::fflush(file) != 0) {
                OBX_LOG_ERR("[data_file] Failed writing data page header to file %s: %s", path.c_str(),
                            std::strerror(errno));
            } else {
                OBX_LOG_DBG("[data_file] updated header %s with last_ts :%lu", path.c_str(),
                            static_cast<unsigned long>(last_timestamp));
                done = true;
            }
        }
    }
    std::fclose(file);
    return done;
}

}  // namespace obx

bool obx_data_folder_is_writable(const char* folder)
{
    return folder && access(folder, R_OK | W_OK) == 0;
}
