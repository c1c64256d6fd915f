// obx::DataWriter: takes data pages and lays them down as data files, one stream of files
// (obx::DataFile) per source and tag, with an optional limit on the total size kept on
// disk and an optional node info file per folder. Callers use the plain functions below,
// which catch every exception.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "data/writer/data_file.h"
#include "data/writer/data_page.h"
#include "data/writer/node_info.h"
#include "host/client_id.h"

struct obx_type_system_t;

namespace obx {

struct DataFileKey {
    std::string source_id;
    std::string source_tag;
    bool operator<(const DataFileKey& other) const {
        if (source_id != other.source_id) return source_id < other.source_id;
        return source_tag < other.source_tag;
    }
};

struct ManagedFile {
    std::string path;
    uint64_t size;
};

class DataWriter {
public:
    explicit DataWriter(const obx_client_id_t& client_id);
    ~DataWriter();
    DataWriter(const DataWriter&) = delete;
    DataWriter& operator=(const DataWriter&) = delete;

    void writePage(const obx_data_page_t* page);

    void setBasePath(const std::string& path);
    void setPathTemplate(const std::string& text);
    void setEventsPathTemplate(const std::string& text);
    void setFileSizeLimit(uint64_t bytes);
    void setFileAgeLimit(uint64_t microseconds);
    // False (with an error line) unless above the file size limit.
    bool setDataSizeLimit(uint64_t bytes);
    void setKeepFilesOpen(bool flag) { keep_files_open = flag; }
    void setWriteNodeInfo(bool flag) { write_node_info = flag; }
    void setSchemaPath(const std::string& path) { schema_path = path; }

    // The first timestamp of the file of the page's source and tag; throws
    // std::out_of_range when the writer has no such stream.
    uint64_t firstTimestamp(const obx_data_page_t* page) const;

    const std::vector<ManagedFile>& managedFiles() const { return managed_files; }
    uint64_t totalDataSize() const { return total_data_size; }

private:
    void applySettings(DataFile& file);
    void applySettingsToAll();
    void enforceDataSizeLimit();

    obx_client_id_t client_id;
    std::map<DataFileKey, std::unique_ptr<DataFile>> files;
    std::vector<ManagedFile> managed_files;
    uint64_t total_data_size = 0;
    uint64_t data_size_limit = 0;
    uint64_t file_size_limit = 134217728;
    uint64_t file_age_limit = 1800000000;
    std::string base_path;
    std::string path_template;
    std::string events_path_template;
    bool keep_files_open = true;
    std::string schema_path;
    bool write_node_info = false;
    std::map<std::string, obx_node_info_t> node_infos;
};

}  // namespace obx

// Gates all writing; true from the start, and nothing in this system clears it.
extern bool data_writer_enabled;

// The plain face: true, or false when an exception was caught.
obx::DataWriter* obx_data_writer_create(const obx_client_id_t* client_id);
void obx_data_writer_destroy(obx::DataWriter* writer);
bool obx_data_writer_set_base_path(obx::DataWriter* writer, const char* text);
bool obx_data_writer_set_path_template(obx::DataWriter* writer, const char* text);
bool obx_data_writer_set_events_path_template(obx::DataWriter* writer, const char* text);
bool obx_data_writer_set_file_size_limit(obx::DataWriter* writer, uint64_t bytes);
bool obx_data_writer_set_file_age_limit(obx::DataWriter* writer, uint64_t microseconds);
bool obx_data_writer_set_data_size_limit(obx::DataWriter* writer, uint64_t bytes);
bool obx_data_writer_set_keep_files_open(obx::DataWriter* writer, bool flag);
bool obx_data_writer_set_write_node_info(obx::DataWriter* writer, bool flag);
// The type system is not used; a failed file write still gives true.
bool obx_data_writer_write_page(obx::DataWriter* writer, const obx_data_page_t* page,
                                const obx_type_system_t* type_system);
uint64_t obx_data_writer_get_first_timestamp(obx::DataWriter* writer, const obx_data_page_t* page);
