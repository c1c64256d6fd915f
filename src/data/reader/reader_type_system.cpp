#include "data/reader/reader_type_system.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "counters/counter_group/counters_schema.h"
#include "data/reader/reader_context.h"
#include "data/schema/schema_json.h"
#include "data/schema/type_system.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "data/reader/reader_options.h"
#include "utils/logger.h"
#include "utils/text.h"

char* obx_reader_schema_file_name(const obx_reader_context_t* context, const uint8_t id[16])
{
    if (!context || !context->options || !context->options->schema_path || !id)
        return nullptr;
    char hex[OBX_SCHEMA_ID_TEXT_SIZE];
    obx_md5_to_hex_into(id, hex);
    return obx_string_format("%s/schema_%s.json", context->options->schema_path, hex);
}

bool obx_reader_load_type_system(obx_reader_context_t* context, const uint8_t (*ids)[16], size_t count)
{
    if (!context)
        return false;
    context->block_schema_ids_valid = false;
    // The text writers' plans point into the schemas about to go.
    obx_event_text_writer_forget_types(context->event_writer);
    obx_counters_text_writer_forget_schemas(context->counters_writer);
    obx_type_system_destroy(context->type_system);
    errno = 0;
    context->type_system = obx_type_system_create();
    if (!context->type_system) {
        OBX_LOG_ERR("Failed to create type system object: %s", strerror(errno));
        return false;
    }
    obx_type_system_t* system = context->type_system;

    // Zero ids take no position: a block's schema_index counts loaded schemas only.
    for (size_t i = 0; ids && i < count; ++i) {
        if (obx_md5_is_zero(ids[i]))
            continue;
        char* path = obx_reader_schema_file_name(context, ids[i]);
        if (!path) {
            OBX_LOG_ERR("Failed to build schema file name from the schema id");
            return false;
        }
        const bool loaded = obx_type_system_load_schema_file(system, path) != nullptr;
        if (!loaded)
            OBX_LOG_ERR("Failed to load schema from file: %s", path);
        free(path);
        if (!loaded)
            return false;
    }

    // The counters schema always comes from the file header, also for a schemas block.
    const uint8_t* counters_id = context->header.counters_schema_id;
    if (obx_md5_is_zero(counters_id))
        return true;
    char* path = obx_reader_schema_file_name(context, counters_id);
    if (!path) {
        OBX_LOG_ERR("Failed to build schema file name from the counters schema id");
        return false;
    }
    obx_counters_schema_t* counters = obx_counters_schema_from_file(path);
    // The empty schema of a new system gives way; on failure none is left.
    obx_counters_schema_destroy(system->counters_schema);
    system->counters_schema = counters;
    memset(system->counters_md5_digest, 0, sizeof(system->counters_md5_digest));
    if (!counters)
        OBX_LOG_ERR("Failed to load counters schema from file: %s", path);
    free(path);
    return counters != nullptr;
}
