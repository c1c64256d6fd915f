#include "counters/counter_group/counters_schema.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counters_json.h"
#include "data/schema/schema_json.h"
#include "utils/logger.h"
#include "utils/text.h"
#include "utils/version.h"

static const char* const SCHEMA_TEMPLATE = "{\"version\" : \"\", \"counter_groups\" : []}";

obx_counters_schema_t* obx_counters_schema_create(void)
{
    obx_counters_schema_t* schema = static_cast<obx_counters_schema_t*>(calloc(1, sizeof(obx_counters_schema_t)));
    if (!schema)
        OBX_LOG_ERR("failed to allocate schema");
    return schema;
}

void obx_counters_schema_destroy(obx_counters_schema_t* schema)
{
    if (!schema)
        return;
    for (uint32_t i = 0; i < schema->num_groups; ++i) {
        obx_counter_group_t* group = schema->groups[i];
        if (group && group->provider && group->provider->destroy_group)
            group->provider->destroy_group(group);
        else
            obx_counter_group_destroy(group);
    }
    free(schema->groups);
    free(schema);
}

bool obx_counters_schema_add_group(obx_counters_schema_t* schema, obx_counter_group_t* group)
{
    if (!schema || !group)
        return false;
    const size_t count = static_cast<size_t>(schema->num_groups) + 1;
    obx_counter_group_t** grown =
        static_cast<obx_counter_group_t**>(realloc(schema->groups, count * sizeof(obx_counter_group_t*)));
    if (!grown) {
        OBX_LOG_ERR("Failed allocating memory for %d's group: %s", static_cast<int>(count), strerror(errno));
        return false;
    }
    schema->groups = grown;
    schema->groups[schema->num_groups++] = group;
    return true;
}

obx_counters_schema_t* obx_counters_schema_from_json(const json_t* value)
{
    if (!obx_counters_json_matches(value, SCHEMA_TEMPLATE))
        return nullptr;

    // Unlike event schemas, a counters schema of another version is still read.
    const char* version = obx_json_object_get_string(value, "version");
    if (!obx_version_string_is_compatible(version, OBX_COUNTERS_SCHEMA_VERSION))
        OBX_LOG_ERR("Version '%s' of parsing schema is incompatible with current schema version '%s'", version,
                    OBX_COUNTERS_SCHEMA_VERSION);

    obx_counters_schema_t* schema = static_cast<obx_counters_schema_t*>(calloc(1, sizeof(obx_counters_schema_t)));
    if (!schema) {
        OBX_LOG_ERR("Failed to allocate schema object: %s", strerror(errno));
        return nullptr;
    }
    const json_t* groups = obx_json_object_get_array(value, "counter_groups");
    if (!groups) {
        OBX_LOG_ERR("Schema JSON is missing counter groups information");
        obx_counters_schema_destroy(schema);
        return nullptr;
    }
    const size_t count = json_array_size(groups);
    if (count > UINT32_MAX) {
        OBX_LOG_ERR("Failed to allocate counter groups array: %s", strerror(EOVERFLOW));
        obx_counters_schema_destroy(schema);
        return nullptr;
    }
    if (count > 0) {
        schema->groups = static_cast<obx_counter_group_t**>(calloc(count, sizeof(obx_counter_group_t*)));
        if (!schema->groups) {
            OBX_LOG_ERR("Failed to allocate counter groups array: %s", strerror(errno));
            obx_counters_schema_destroy(schema);
            return nullptr;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        const json_t* item = json_array_get(groups, i);
        if (!item) {
            OBX_LOG_ERR("Failed to get item #%d from groups array", static_cast<int>(i));
            obx_counters_schema_destroy(schema);
            return nullptr;
        }
        obx_counter_group_t* group = obx_counter_group_from_json(item);
        if (!group) {
            OBX_LOG_ERR("Failed to decode counter group from JSON");
            obx_counters_schema_destroy(schema);
            return nullptr;
        }
        schema->groups[schema->num_groups++] = group;
    }
    obx_counters_schema_update_counter_offsets(schema);
    schema->size_of_counters = obx_counters_schema_size_of_counters(schema);
    return schema;
}

obx_counters_schema_t* obx_counters_schema_from_string(const char* text)
{
    json_t* value = text ? obx_json_parse_string(text) : nullptr;
    if (!value) {
        OBX_LOG_ERR("Failed parsing counters schema JSON from string");
        return nullptr;
    }
    obx_counters_schema_t* schema = obx_counters_schema_from_json(value);
    json_decref(value);
    return schema;
}

obx_counters_schema_t* obx_counters_schema_from_file(const char* path)
{
    errno = 0;
    json_t* value = path ? obx_json_parse_file(path) : nullptr;
    if (!value) {
        OBX_LOG_ERR("Failed reading counters schema JSON from file '%s': %s", path ? path : "", strerror(errno));
        return nullptr;
    }
    obx_counters_schema_t* schema = obx_counters_schema_from_json(value);
    json_decref(value);
    // The count of sets has no bound of its own, yet every value of every set is printed:
    // a hostile file would make output without end.
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g) {
        const uint32_t sets = schema->groups[g]->num_counter_sets;
        if (sets > OBX_MAX_COUNTER_SETS) {
            OBX_LOG_ERR("Counters schema '%s': group %u has %u counter sets, more than the %u this reader takes", path,
                        g, sets, static_cast<unsigned>(OBX_MAX_COUNTER_SETS));
            obx_counters_schema_destroy(schema);
            schema = nullptr;
        }
    }
    return schema;
}

obx_counters_schema_t* obx_counters_schema_load_by_id(const uint8_t* digest, const char* folder)
{
    if (!digest || obx_md5_is_zero(digest))
        return nullptr;
    if (!folder) {
        OBX_LOG_ERR("No schema folder to load counters schema from");
        return nullptr;
    }
    char hex[OBX_SCHEMA_ID_TEXT_SIZE];
    obx_md5_to_hex_into(digest, hex);
    char* path = obx_string_format("%s/schema_%s.json", folder, hex);
    if (!path) {
        OBX_LOG_ERR("asprintf failed");
        return nullptr;
    }
    OBX_LOG_DBG("opening counters schema: %s\n", path);
    obx_counters_schema_t* schema = obx_counters_schema_from_file(path);
    if (!schema)
        OBX_LOG_DBG("Failed to load counters schema from file: %s", path);
    free(path);
    return schema;
}

json_t* obx_counters_schema_jsonify(const obx_counters_schema_t* schema)
{
    static const char* const FUNCTION = "obx_counters_schema_jsonify";
    if (!schema)
        return nullptr;
    json_t* object = json_object();
    if (!object) {
        OBX_LOG_ERR("[%s] json_value_init_object() failed", FUNCTION);
        return nullptr;
    }
    json_t* groups = json_array();
    if (!groups || !obx_json_object_set_string(object, "title", OBX_COUNTERS_SCHEMA_TITLE) ||
        !obx_json_object_set_string(object, "version", OBX_COUNTERS_SCHEMA_VERSION)) {
        OBX_LOG_ERR("[%s] json_value_get_object() failed", FUNCTION);
        json_decref(groups);
        json_decref(object);
        return nullptr;
    }
    for (uint32_t i = 0; i < schema->num_groups; ++i) {
        json_t* group = obx_counter_group_to_json(schema->groups[i]);
        if (!group) {
            OBX_LOG_ERR("Failed to JSONify counter group #%d", static_cast<int>(i));
            json_decref(groups);
            json_decref(object);
            return nullptr;
        }
        if (!obx_json_array_append(groups, group)) {
            OBX_LOG_ERR("Failed to append JSON array with counter group #%d", static_cast<int>(i));
            json_decref(groups);
            json_decref(object);
            return nullptr;
        }
    }
    if (!obx_json_object_set(object, "counter_groups", groups)) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

char* obx_counters_schema_to_json_string(const obx_counters_schema_t* schema)
{
    json_t* value = obx_counters_schema_jsonify(schema);
    if (!value) {
        OBX_LOG_ERR("Failed to JSONify counters schemaector schema");
        return nullptr;
    }
    char* text = obx_json_serialize_to_string_pretty(value);
    json_decref(value);
    if (!text)
        OBX_LOG_ERR("Failed to serialize JSON counters schemaector schema");
    return text;
}

void obx_counters_schema_print(const obx_counters_schema_t* schema, FILE* stream)
{
    if (!stream)
        return;
    char* text = obx_counters_schema_to_json_string(schema);
    if (!text)
        return;
    fputs(text, stream);
    fputc('\n', stream);
    fflush(stream);
    obx_json_free_serialized_string(text);
}

void obx_counters_schema_update_counter_offsets(obx_counters_schema_t* schema)
{
    static const char* const FUNCTION = "obx_counters_schema_update_counter_offsets";
    if (!schema)
        return;
    uint64_t offset = 0;
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (!group)
            continue;
        for (uint32_t c = 0; c < group->num_counters; ++c) {
            obx_counter_info_t* counter = group->counters[c];
            if (!counter)
                continue;
            if (counter->data_type == OBX_COUNTER_DATA_TYPE_STRING && counter->length == 0) {
                OBX_LOG_ERR("[%s] Fail: received 0 length string counter %s", FUNCTION, counter->name);
                return;
            }
            // Offsets are 32 bits wide; wrapping would alias earlier values.
            if (offset > UINT32_MAX) {
                OBX_LOG_ERR("[%s] Fail: counter %s lies beyond the 32-bit range of offsets", FUNCTION,
                            counter->name);
                return;
            }
            counter->offset = static_cast<uint32_t>(offset);
            OBX_LOG_DBG("[schema] Set up counter %s  size=%d  offset=%d", counter->name,
                        static_cast<int>(counter->length), static_cast<int>(counter->offset));
            offset += counter->length != 0 ? counter->length : 8u;
        }
    }
}

uint32_t obx_counters_schema_size_of_counters(const obx_counters_schema_t* schema)
{
    static const char* const FUNCTION = "obx_counters_schema_size_of_counters";
    if (!schema)
        return 0;
    uint64_t size = 0;
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (!group)
            continue;
        OBX_LOG_DBG("%s group %s has %d counter sets", FUNCTION, group->name ? group->name : "",
                    static_cast<int>(group->num_counter_sets));
        for (uint32_t c = 0; c < group->num_counters; ++c) {
            const obx_counter_info_t* counter = group->counters[c];
            if (counter)
                size += obx_counter_data_type_size(counter->data_type, counter->length);
        }
    }
    const uint32_t result = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    OBX_LOG_DBG("%s returning %d d", FUNCTION, static_cast<int>(result));
    return result;
}

uint32_t obx_counters_schema_number_of_counters(const obx_counters_schema_t* schema)
{
    if (!schema)
        return 0;
    uint64_t count = 0;
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (!group)
            continue;
        if (group->num_counter_sets != 1) {
            OBX_LOG_ERR("[%s] num_counter_sets should be 1, not %d", "obx_counters_schema_number_of_counters",
                        static_cast<int>(group->num_counter_sets));
            return 0;
        }
        count += group->num_counters;
    }
    return count > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(count);
}

uint64_t obx_counters_schema_total_values(const obx_counters_schema_t* schema)
{
    if (!schema)
        return 0;
    uint64_t total = 0;
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (group)
            total += static_cast<uint64_t>(group->num_counter_sets) * group->num_counters;
    }
    return total;
}

obx_counter_info_t* obx_counters_schema_find_counter(const obx_counters_schema_t* schema, const char* name)
{
    if (!schema || !name)
        return nullptr;
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (!group)
            continue;
        for (uint32_t c = 0; c < group->num_counters; ++c) {
            obx_counter_info_t* counter = group->counters[c];
            if (counter && counter->name && strcmp(counter->name, name) == 0)
                return counter;
        }
    }
    return nullptr;
}
