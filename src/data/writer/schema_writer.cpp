#include "data/writer/schema_writer.h"

#include <boost/filesystem.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>

#include "data/schema/schema_json.h"
#include "data/writer/path_template.h"
#include "utils/env.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/version.h"

namespace {

const uint32_t kMinimalVersion = obx_version_make(1, 4, 0);
const char* const kFileTemplate = "schema_{{id}}.json";
const char* const kSchemaFolder = "schema";

// Whether counters schemas without groups are written too; read once per process.
bool allow_empty_counter_schema() {
    static std::once_flag once;
    static bool allowed = false;
    std::call_once(once, [] { allowed = obx_env_value_is_true(obx_getenv("ALLOW_EMPTY_COUNTER_SCHEMA")); });
    return allowed;
}

[[noreturn]] void fail(const std::string& text) {
    OBX_LOG_ERR("%s", text.c_str());
    throw std::runtime_error(text);
}

// Same major and a minor of at least 4, or a higher major; a text of fewer than two
// numbers is version 0, which never passes.
bool version_supported(uint32_t version) {
    if (version == 0) return false;
    const uint8_t major = obx_version_major(version), minimal_major = obx_version_major(kMinimalVersion);
    return major > minimal_major || (major == minimal_major && obx_version_minor(version) >= obx_version_minor(kMinimalVersion));
}

bool has_groups(const json_t* counters_schema) {
    const json_t* groups = obx_json_object_get_array(counters_schema, "counter_groups");
    return groups && json_array_size(groups) > 0;
}

struct SerializedText {
    void operator()(char* text) const { obx_json_free_serialized_string(text); }
};

}  // namespace

namespace obx {

void SchemaWriter::onSchema(const char* text) {
    json_t* value = text ? obx_json_parse_string(text) : nullptr;
    if (!value) {
        OBX_LOG_WARN("[schema writer] Failed to deserialize schema JSON");
        return;
    }
    std::unique_ptr<json_t, void (*)(json_t*)> owned(value, [](json_t* v) { json_decref(v); });
    onSchema(static_cast<const json_t*>(value));
}

void SchemaWriter::onSchema(const json_t* value) {
    if (obx_json_object_get_string(value, "provider_version")) {
        OBX_LOG_INF("obx::SchemaWriter::onSchema() identified single event schema.");
        saveSchema(value);
        return;
    }
    const char* version_text = obx_json_object_get_string(value, "version");
    if (!version_text) fail("[schema writer] missing Ombrix schema version");
    if (!version_supported(obx_version_from_string(version_text))) {
        char minimal[16];
        std::snprintf(minimal, sizeof(minimal), "%u.%u.%u", obx_version_major(kMinimalVersion),
                      obx_version_minor(kMinimalVersion), obx_version_patch(kMinimalVersion));
        fail(std::string("[schema writer] schema version ") + version_text +
             " is incompatible with the serializer, the minimal supported version is " + minimal);
    }
    const bool allow_empty = allow_empty_counter_schema();

    const json_t* counters = json_object_get(value, "counters_schema");
    const json_t* schemas = obx_json_object_get_array(value, "schemas");
    if (counters) {
        // A counters schema that is no object would be written as a file of a bare value.
        if (!json_is_object(counters)) fail("[schema writer] counters_schema is not a JSON object");
        if (allow_empty || has_groups(counters))
            saveSchema(counters);
        else
            OBX_LOG_INF("[schema writer] Skipping empty counters_schema.");
    } else if (!schemas) {
        // Only a bare counters schema is left.
        if (allow_empty || has_groups(value)) {
            saveSchema(value);
            return;
        }
        fail("[schema writer] schema was not recognized neither as type system nor as counters schema");
    }
    if (!schemas) return;
    for (size_t i = 0; i < json_array_size(schemas); ++i) {
        const json_t* schema = json_array_get(schemas, i);
        if (!schema) break;
        saveSchema(schema);
    }
}

void SchemaWriter::saveSchema(const json_t* value) {
    std::unique_ptr<char, SerializedText> text(obx_json_serialize_to_string_pretty(value));
    if (!text) fail("[data] Failed to serialize JSON schema");
    const size_t length = std::strlen(text.get());
    uint8_t digest[16];
    char id[33];
    if (!obx_md5_compute(text.get(), length, digest)) fail("[data] Failed to compute the MD5 of a schema");
    obx_md5_to_hex_into(digest, id);
    const std::string path = schemaFilePath(id);

    try {
        const boost::filesystem::path folder = boost::filesystem::path(path).parent_path();
        if (!folder.empty() && !boost::filesystem::exists(folder)) boost::filesystem::create_directories(folder);
        if (!folder.empty() && !boost::filesystem::is_directory(folder))
            throw std::runtime_error("Inaccessible data path " + folder.string());
    } catch (const std::runtime_error& e) {
        if (ok) OBX_LOG_WARN("[data] Failed to create schema file '%s': %s", path.c_str(), e.what());
        ok = false;
        return;
    }

    try {
        std::ofstream file;
        file.exceptions(std::ofstream::failbit | std::ofstream::badbit);
        file.open(path, std::ios::binary | std::ios::trunc);
        file.write(text.get(), static_cast<std::streamsize>(length));
        file.close();
        ok = true;
        ++files_written;
    } catch (const std::ios_base::failure& e) {
        if (ok) OBX_LOG_WARN("[data] Failed writing schema file '%s': %s", path.c_str(), e.what());
        ok = false;
    }
}

std::string SchemaWriter::schemaFilePath(const std::string& id) const {
    const std::string name = obx_template_expand(kFileTemplate, {{"id", id}});
    boost::filesystem::path folder = schema_path.empty()
                                         ? boost::filesystem::absolute(data_path) / kSchemaFolder
                                         : boost::filesystem::absolute(schema_path);
    return (folder / name).string();
}

}  // namespace obx

obx_schema_writer_t* obx_schema_writer_create(void) { return new (std::nothrow) obx::SchemaWriter(); }

void obx_schema_writer_destroy(obx_schema_writer_t* writer) { delete writer; }

bool obx_schema_writer_set_schema_path(obx_schema_writer_t* writer, const char* path) {
    if (!writer || !path) return false;
    try {
        writer->schema_path = path;
        return true;
    } catch (...) {
        return false;
    }
}

bool obx_schema_writer_set_data_path(obx_schema_writer_t* writer, const char* path) {
    if (!writer || !path) return false;
    try {
        writer->data_path = path;
        return true;
    } catch (...) {
        return false;
    }
}

bool obx_schema_writer_on_schema(obx_schema_writer_t* writer, const json_t* value) {
    if (!writer) return false;
    try {
        writer->onSchema(value);
        return true;
    } catch (...) {
        return false;
    }
}
