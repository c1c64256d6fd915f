#include "data/schema/type_system.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "data/schema/built_in_types.h"
#include "data/schema/schema_json.h"
#include "utils/logger.h"
#include "utils/version.h"

obx_type_system_t* obx_type_system_create(void)
{
    obx_type_system_t* system = static_cast<obx_type_system_t*>(calloc(1, sizeof(obx_type_system_t)));
    if (!system)
        return nullptr;
    system->built_in_schema = obx_schema_create(OBX_BUILT_IN_SCHEMA_NAME, OBX_BUILT_IN_SCHEMA_VERSION);
    if (!system->built_in_schema || !obx_schema_register_built_in_types(system->built_in_schema)) {
        OBX_LOG_ERR("Failed to register built-in types");
        obx_type_system_destroy(system);
        return nullptr;
    }
    system->counters_schema = obx_counters_schema_create();
    if (!system->counters_schema) {
        OBX_LOG_ERR("Failed to create counters schema object");
        obx_type_system_destroy(system);
        return nullptr;
    }
    return system;
}

void obx_type_system_destroy(obx_type_system_t* system)
{
    if (!system)
        return;
    for (size_t i = 0; i < OBX_MAX_SCHEMAS; ++i)
        obx_schema_destroy(system->schemas[i]);
    obx_schema_destroy(system->built_in_schema);
    obx_counters_schema_destroy(system->counters_schema);
    free(system);
}

bool obx_type_system_adjust_schema(obx_type_system_t* system, obx_schema_t* schema)
{
    if (!system || !schema)
        return false;
    schema->base_schema = system->built_in_schema;
    for (size_t i = 0; i < schema->num_types; ++i)
        if (!obx_schema_adjust_type_fields(schema, schema->types[i]))
            return false;
    // A type that contains itself would be rendered without end.
    return schema->num_types == 0 || obx_schema_validate_layout(schema);
}

obx_schema_t* obx_type_system_load_schema_file(obx_type_system_t* system, const char* path)
{
    if (!system)
        return nullptr;
    if (system->num_schemas >= OBX_MAX_SCHEMAS) {
        OBX_LOG_ERR("Failed to load schema: schema limit exceeded '%u'", static_cast<unsigned>(system->num_schemas));
        return nullptr;
    }
    json_t* value = path ? obx_json_parse_file(path) : nullptr;
    if (!value) {
        OBX_LOG_ERR("Failed reading schema JSON from file '%s'", path ? path : "");
        return nullptr;
    }
    obx_schema_t* schema = obx_schema_from_json(value);
    json_decref(value);
    if (!schema)
        return nullptr;
    if (!obx_type_system_adjust_schema(system, schema)) {
        OBX_LOG_ERR("Failed to adjust type fields within schema %s", schema->name ? schema->name : "");
        obx_schema_destroy(schema);
        return nullptr;
    }
    system->schemas[system->num_schemas++] = schema;
    return schema;
}

const obx_type_definition_t* obx_type_system_event_type(const obx_type_system_t* system, uint8_t schema_index,
                                                        uint16_t type_index)
{
    if (!system || schema_index >= system->num_schemas) return nullptr;
    const obx_schema_t* schema = system->schemas[schema_index];
    const uint8_t position = static_cast<uint8_t>(type_index & 0xFFu);
    if (!schema || position >= schema->num_types) return nullptr;
    return schema->types[position];
}

int obx_type_system_add_schema(obx_type_system_t* system, const char* json_text, uint8_t* out_index)
{
    if (!system || system->num_schemas >= OBX_MAX_SCHEMAS)
        return -1;
    json_t* value = json_text ? obx_json_parse_string(json_text) : nullptr;
    if (!value) {
        OBX_LOG_ERR("Failed to read schemas as JSON");
        return -1;
    }
    // Both decoders run: the text may be either kind, and each logs its own mismatch.
    obx_schema_t* schema = obx_schema_from_json(value);
    obx_counters_schema_t* counters = obx_counters_schema_from_json(value);
    json_decref(value);
    if (!schema && !counters) {
        OBX_LOG_ERR("Failed to convert schema from JSON to internal memory representation");
        return -1;
    }

    if (counters) {
        obx_schema_destroy(schema);
        OBX_LOG_DBG("FOUND COUNTERS SCHEMA");
        obx_counters_schema_destroy(system->counters_schema);
        system->counters_schema = counters;
        memset(system->counters_md5_digest, 0, sizeof(system->counters_md5_digest));
        if (out_index)
            *out_index = OBX_COUNTERS_SCHEMA_INDEX;
        return 0;
    }

    // Known by the digest of the text as given, byte for byte.
    if (!obx_md5_compute(json_text, strlen(json_text), schema->md5_digest)) {
        OBX_LOG_ERR("Failed to compute digest of schema %s", schema->name ? schema->name : "");
        obx_schema_destroy(schema);
        return -1;
    }
    for (uint8_t i = 0; i < system->num_schemas; ++i) {
        if (system->schemas[i] && memcmp(system->schemas[i]->md5_digest, schema->md5_digest, 16) == 0) {
            OBX_LOG_DBG("Schema already exists");
            obx_schema_destroy(schema);
            if (out_index)
                *out_index = i;
            return 0;
        }
    }

    OBX_LOG_DBG("FOUND EVENTS SCHEMA");
    obx_md5_to_hex_into(schema->md5_digest, schema->md5_digest_str);
    schema->base_schema = system->built_in_schema;
    const uint8_t index = system->num_schemas;
    system->schemas[index] = schema;
    if (out_index)
        *out_index = index;
    system->num_schemas++;
    // Kept whatever the adjustment says: a field it could not resolve has no type, which
    // every reader of fields tests before use.
    obx_type_system_adjust_schema(system, schema);
    return 0;
}

obx_schema_t* obx_type_system_new_schema(obx_type_system_t* system, const char* name, uint32_t version,
                                         uint8_t* out_index)
{
    if (!system || system->num_schemas >= OBX_MAX_SCHEMAS)
        return nullptr;
    obx_schema_t* schema = obx_schema_create(name, version);
    if (!schema)
        return nullptr;
    schema->base_schema = system->built_in_schema;
    // An empty schema has no JSON form: its digest stays zero, its text all "0".
    obx_schema_fill_md5(schema, schema->md5_digest);
    obx_md5_to_hex_into(schema->md5_digest, schema->md5_digest_str);
    const uint8_t index = system->num_schemas;
    system->schemas[index] = schema;
    system->num_schemas++;
    if (out_index)
        *out_index = index;
    return schema;
}

// A moved schema whose types cannot be resolved here keeps its position without types:
// its fields may still point at the other system's built-ins, which die with it.
static void drop_types(obx_schema_t* schema)
{
    for (size_t i = 0; i < schema->num_types; ++i) {
        obx_type_definition_destroy(schema->types[i]);
        schema->types[i] = nullptr;
    }
    schema->num_types = 0;
}

int obx_type_system_add_schemas_of(obx_type_system_t* system, obx_type_system_t* other, uint8_t* out_index)
{
    if (!system || !other || system == other ||
        static_cast<size_t>(system->num_schemas) + other->num_schemas > OBX_MAX_SCHEMAS) {
        OBX_LOG_ERR("Cannot add schema to type system");
        return -1;
    }
    const uint8_t first = system->num_schemas;
    for (uint8_t i = 0; i < other->num_schemas; ++i) {
        obx_schema_t* schema = other->schemas[i];
        other->schemas[i] = nullptr;
        // Fields may point into the other system's built-ins, which die with it.
        if (schema && !obx_type_system_adjust_schema(system, schema)) {
            OBX_LOG_ERR("Schema %s keeps position %u without types: its types could not be resolved",
                        schema->name ? schema->name : "", static_cast<unsigned>(system->num_schemas));
            drop_types(schema);
        }
        system->schemas[system->num_schemas++] = schema;
    }
    other->num_schemas = 0;
    if (out_index)
        *out_index = first;
    return 0;
}

void obx_type_system_remove_last_schema(obx_type_system_t* system)
{
    if (!system || system->num_schemas == 0)
        return;
    system->num_schemas--;
    obx_schema_destroy(system->schemas[system->num_schemas]);
    system->schemas[system->num_schemas] = nullptr;
}

bool obx_type_system_find_schema(const obx_type_system_t* system, const char* md5_text, uint8_t* out_index)
{
    if (!system || !md5_text)
        return false;
    for (uint8_t i = 0; i < system->num_schemas; ++i) {
        const obx_schema_t* schema = system->schemas[i];
        if (schema && strcmp(schema->md5_digest_str, md5_text) == 0) {
            OBX_LOG_DBG("Schema already exists %s", md5_text);
            if (out_index)
                *out_index = i;
            return true;
        }
    }
    return false;
}

void obx_type_system_recalculate_md5(obx_type_system_t* system)
{
    if (!system)
        return;
    for (uint8_t i = 0; i < system->num_schemas; ++i) {
        obx_schema_t* schema = system->schemas[i];
        if (!schema)
            continue;
        obx_schema_fill_md5(schema, schema->md5_digest);
        obx_md5_to_hex_into(schema->md5_digest, schema->md5_digest_str);
    }
}

uint32_t obx_type_system_max_event_size(const obx_type_system_t* system)
{
    if (!system)
        return 0;
    uint64_t largest = 0;
    for (uint8_t i = 0; i < system->num_schemas; ++i) {
        const obx_schema_t* schema = system->schemas[i];
        if (!schema)
            continue;
        for (size_t t = 0; t < schema->num_types; ++t)
            if (schema->types[t] && schema->types[t]->size > largest)
                largest = schema->types[t]->size;
    }
    return largest > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(largest);
}

uint32_t obx_type_system_max_record_size(const obx_type_system_t* system)
{
    if (!system)
        return 0;
    const uint32_t events = obx_type_system_max_event_size(system);
    const uint32_t counters = system->counters_schema ? system->counters_schema->size_of_counters : 0;
    return events > counters ? events : counters;
}

bool obx_type_system_counters_md5(obx_type_system_t* system, uint8_t digest[16])
{
    if (!system || !system->counters_schema || !digest)
        return false;
    if (obx_md5_is_zero(system->counters_md5_digest)) {
        json_t* value = obx_counters_schema_jsonify(system->counters_schema);
        const bool done = value && obx_json_md5(system->counters_md5_digest, value);
        json_decref(value);
        if (!done)
            return false;
    }
    memcpy(digest, system->counters_md5_digest, 16);
    return true;
}

json_t* obx_type_system_to_json(const obx_type_system_t* system)
{
    if (!system)
        return nullptr;
    json_t* object = json_object();
    if (!object)
        return nullptr;
    bool ok = obx_json_object_set_string(object, "name", OBX_TYPE_SYSTEM_NAME) &&
              obx_json_object_set_string(object, "version", OBX_SCHEMA_JSON_VERSION_TEXT);
    if (ok && system->counters_schema) {
        json_t* counters = obx_counters_schema_jsonify(system->counters_schema);
        if (!counters || !obx_json_object_set(object, "counters_schema", counters)) {
            OBX_LOG_ERR("[ts] failed to serialize counters schema");
            json_decref(object);
            return nullptr;
        }
    }
    json_t* schemas = ok ? json_array() : nullptr;
    if (!schemas) {
        json_decref(object);
        return nullptr;
    }
    for (uint8_t i = 0; i < system->num_schemas; ++i) {
        // A schema with no types has no JSON form and is left out.
        json_t* schema = obx_schema_to_json(system->schemas[i]);
        if (schema && !obx_json_array_append(schemas, schema)) {
            json_decref(schemas);
            json_decref(object);
            return nullptr;
        }
    }
    if (!obx_json_object_set(object, "schemas", schemas)) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

char* obx_type_system_to_json_string(const obx_type_system_t* system, int pretty)
{
    json_t* value = obx_type_system_to_json(system);
    if (!value)
        return nullptr;
    char* text = pretty ? obx_json_serialize_to_string_pretty(value) : obx_json_serialize_to_string(value);
    json_decref(value);
    return text;
}

// Fails the whole decoding: what was built goes, nothing comes back.
static obx_type_system_t* give_up(obx_type_system_t* system)
{
    obx_type_system_destroy(system);
    return nullptr;
}

obx_type_system_t* obx_type_system_from_json(const json_t* value)
{
    if (!json_is_object(value)) {
        OBX_LOG_ERR("[ts] Failed to deserialize: schema is not a JSON object");
        return nullptr;
    }
    const char* version = obx_json_object_get_string(value, "version");
    if (!version) {
        OBX_LOG_ERR("[ts] Failed to deserialize: missing Ombrix schema version");
        return nullptr;
    }
    // An older text is reported and read all the same.
    const uint32_t word = obx_version_from_string(version);
    if (word == 0 || obx_version_compare(word, OBX_SCHEMA_MIN_VERSION_WORD) < 0)
        OBX_LOG_ERR("[ts] Failed to deserialize: schema version %s is incompatible with the deserializer, the "
                    "minimal supported schema version is %s",
                    version, OBX_SCHEMA_MIN_VERSION_TEXT);

    obx_type_system_t* system = obx_type_system_create();
    if (!system) {
        OBX_LOG_ERR("[ts] Failed to deserialize: unable to create type system object");
        return nullptr;
    }
    // Only what the text holds counts: no counters schema unless it brings one.
    obx_counters_schema_destroy(system->counters_schema);
    system->counters_schema = nullptr;

    const json_t* schemas = obx_json_object_get_array(value, "schemas");
    const json_t* counters = json_object_get(value, "counters_schema");
    if (counters) {
        system->counters_schema = obx_counters_schema_from_json(counters);
        if (!system->counters_schema) {
            OBX_LOG_ERR("[ts] Failed to deserialize: unable to decode counters schema");
            return give_up(system);
        }
        if (!schemas)
            return system;
    } else if (!schemas) {
        if (!obx_json_object_get_array(value, "counter_groups")) {
            OBX_LOG_ERR("[schema writer] schema was not recognized neither as type system nor as counters schema");
            return give_up(system);
        }
        system->counters_schema = obx_counters_schema_from_json(value);
        if (!system->counters_schema) {
            OBX_LOG_ERR("[ts] Failed to deserialize: unable to decode JSON as counters schema");
            return give_up(system);
        }
        return system;
    }

    size_t count = json_array_size(schemas);
    if (count > OBX_MAX_SCHEMAS) {
        OBX_LOG_ERR("[ts] Failed to deserialize: number of schemas %zu exceeds limit %d", count, OBX_MAX_SCHEMAS);
        count = OBX_MAX_SCHEMAS;  // there is no room for the rest
    }
    for (size_t i = 0; i < count; ++i) {
        const json_t* item = json_array_get(schemas, i);
        if (!item) {
            OBX_LOG_ERR("[ts] Failed to deserialize: unable to get schema #%d from the array", static_cast<int>(i));
            return give_up(system);
        }
        obx_schema_t* schema = obx_schema_from_json(item);
        if (!schema) {
            OBX_LOG_ERR("[ts] Failed to deserialize: unable to decode type schema");
            return give_up(system);
        }
        if (!obx_json_md5(schema->md5_digest, item))
            OBX_LOG_ERR("[ts] Failed to fill schema '%s' md5 digest", schema->name ? schema->name : "");
        system->schemas[system->num_schemas++] = schema;
        if (!obx_type_system_adjust_schema(system, schema)) {
            OBX_LOG_ERR("[ts] Failed to deserialize: unable to adjust type fields of schema %s",
                        schema->name ? schema->name : "");
            return give_up(system);
        }
    }
    return system;
}

obx_type_system_t* obx_type_system_from_json_string(const char* text)
{
    json_t* value = text ? obx_json_parse_string(text) : nullptr;
    if (!value) {
        OBX_LOG_ERR("Failed parsing schema JSON string");
        return nullptr;
    }
    obx_type_system_t* system = obx_type_system_from_json(value);
    json_decref(value);
    return system;
}
