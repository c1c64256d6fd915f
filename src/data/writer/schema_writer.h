// The writer of schema folders: JSON describing schemas (one event schema, one counters
// schema, or a whole type system) is laid down as files schema_<id>.json, each named by
// the MD5 of its own text. Bad input throws; trouble with the file system is a warning,
// as writing schemas must not stop a collector.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <string>

namespace obx {

class SchemaWriter {
public:
    // Classifies `value` and writes the schemas it holds. Throws std::runtime_error (after
    // an error line) for a value that is no schema of a supported version.
    void onSchema(const json_t* value);
    // Parses `text` first; text that does not parse is a warning and nothing more.
    void onSchema(const char* text);
    // Writes one schema; `ok` tells whether it went well.
    void saveSchema(const json_t* value);
    // The file of schema `id`: below schema_path, or below data_path + "/schema", made absolute.
    std::string schemaFilePath(const std::string& id) const;

    bool ok = true;  // false after a failure: only the first failure in a row is told
    std::string schema_path;
    std::string data_path = ".";
    size_t files_written = 0;  // schema files written (a file written again counts again)
};

}  // namespace obx

typedef obx::SchemaWriter obx_schema_writer_t;

// Plain face for callers that do not handle exceptions: nothing is thrown out of these.
obx_schema_writer_t* obx_schema_writer_create(void);
void obx_schema_writer_destroy(obx_schema_writer_t* writer);
bool obx_schema_writer_set_schema_path(obx_schema_writer_t* writer, const char* path);
bool obx_schema_writer_set_data_path(obx_schema_writer_t* writer, const char* path);
// True when onSchema threw nothing.
bool obx_schema_writer_on_schema(obx_schema_writer_t* writer, const json_t* value);
