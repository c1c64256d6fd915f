// obx::DataFile: one stream of blocks of one source and tag, laid down as a series of
// plain data files. It starts files by the size and age limits, appends raw blocks and
// rewrites a file's header whenever it leaves the file, so that the header's size and
// times come true.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "data/format/data_file_format.h"
#include "data/writer/path_template.h"
#include "host/client_id.h"

namespace obx {

class DataFile {
public:
    DataFile(const obx_client_id_t& client_id, const std::string& source_id, const std::string& source_tag,
             bool has_events);
    ~DataFile();
    DataFile(const DataFile&) = delete;
    DataFile& operator=(const DataFile&) = delete;

    // Bytes written, 0 on failure; `new_file` tells whether this call started a file.
    uint64_t write(uint64_t first_timestamp, uint64_t last_timestamp, const void* data, uint64_t size,
                   bool* new_file = nullptr);

    // Each setter ignores an unchanged value; a changed one closes the file in use.
    void setBasePath(const std::string& path);          // ignores empty
    void setPathTemplate(const std::string& text);      // ignores empty
    void setSourceTag(const std::string& tag);
    void setFileSizeLimit(uint64_t bytes);              // ignores 0
    void setFileAgeLimit(uint64_t microseconds);        // ignores 0
    void setBlockSize(uint32_t bytes);
    void setCountersSchemaId(const uint8_t id[OBX_SCHEMA_ID_SIZE]);
    // The seven ids at byte 16 of a schemas block; its id count is not looked at.
    void setEventSchemaIds(const uint8_t* schemas_block);
    void setKeepOpen(bool flag) { keep_open = flag; }

    // The full path of the next file for the members as they stand.
    std::string buildPath(const std::string& path_template) const;
    void closeFile();

    uint64_t firstTimestamp() const { return first_timestamp; }
    uint64_t lastTimestamp() const { return last_timestamp; }
    uint64_t fileSize() const { return file_size; }
    const std::string& currentPath() const { return path; }
    bool hasEvents() const { return has_events; }

private:
    bool needsNewFile(uint64_t last) const;
    bool openNextFile(uint64_t first, uint64_t last);
    void ensureParentFolder() const;
    bool createFile();
    uint64_t appendData(const void* data, uint64_t size);
    bool updateHeader();

    obx_client_id_t client_id;
    std::string source_id;
    bool ok = true;
    std::string base_path;
    std::string path_template = OBX_DEFAULT_PATH_TEMPLATE;
    std::string source_tag;
    FILE* stream = nullptr;
    bool keep_open = true;
    std::string file_id;
    uint64_t file_size = 0;
    uint64_t first_timestamp = 0;
    uint64_t last_timestamp = 0;
    std::string path;
    uint64_t file_size_limit = 26214400;
    uint64_t file_age_limit = 900000000;
    uint32_t block_size = 65536;
    uint8_t counters_schema_id[OBX_SCHEMA_ID_SIZE] = {};
    uint8_t event_schema_ids[OBX_EVENT_SCHEMA_SLOTS][OBX_SCHEMA_ID_SIZE] = {};
    bool has_events;
};

}  // namespace obx

// True when `folder` can be read and written. Nothing in the writer calls it; it is for
// callers that want to check an output folder before they start.
bool obx_data_folder_is_writable(const char* folder);
