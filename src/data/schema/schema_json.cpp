#include "data/schema/schema_json.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/json.h"
#include "utils/logger.h"
#include "utils/name_table.h"
#include "utils/version.h"

namespace {

// Validation templates: every key must be present with the JSON type shown; extra keys pass.
const char* const kEventSchemaTemplate =
    "{\"obx_version\" : \"\", \"provider_name\" : \"\", \"provider_version\" : \"\", \"types\" : []}";
const char* const kTypeTemplate = "{\"name\" : \"\", \"size\" : 0, \"fields\" : []}";
const char* const kFieldWithIndexTemplate =
    "{\"field_name\" : \"\", \"description\" : \"\", \"type_size\" : 0, \"offset\" : 0, \"type_name\" : \"\", "
    "\"counting_mode\" : \"\", \"index\" : 0}";
const char* const kFieldWithoutIndexTemplate =
    "{\"field_name\" : \"\", \"description\" : \"\", \"type_size\" : 0, \"offset\" : 0, \"type_name\" : \"\", "
    "\"counting_mode\" : \"\"}";

const char* const kSchemaTitle = "Ombrix schema";
// Older collectors wrote this word for running totals.
const char* const kAbsoluteMonotonic = "ABSOLUTE_MONOTONIC";

enum class TemplateCheck { kPass, kMismatch, kBadTemplate };

TemplateCheck obx_check_template(const char* template_text, const json_t* value) {
    json_t* json_template = obx_json_parse_string(template_text);
    if (!json_template) return TemplateCheck::kBadTemplate;
    const bool pass = value && obx_json_validate(json_template, value);
    json_decref(json_template);
    return pass ? TemplateCheck::kPass : TemplateCheck::kMismatch;
}

// JSON numbers are doubles. Sizes and offsets become unsigned 64-bit values the way a
// C cast does on this platform (negative values wrap), but without its undefined cases:
// out-of-range values saturate, so that the layout check refuses them later.
uint64_t obx_number_to_u64(double number) {
    if (number != number) return 0;
    if (number >= 18446744073709551616.0) return UINT64_MAX;
    if (number >= 0) return static_cast<uint64_t>(number);
    if (number > -9223372036854775808.0) return static_cast<uint64_t>(static_cast<int64_t>(number));
    return static_cast<uint64_t>(INT64_MIN);
}

// array_length and index: truncated to a signed 32-bit value, then kept in 16 bits.
// Values outside the 32-bit range give what the processor's conversion gives there.
uint16_t obx_number_to_u16(double number) {
    int32_t value = INT32_MIN;
    if (number > -2147483649.0 && number < 2147483648.0) value = static_cast<int32_t>(number);
    return static_cast<uint16_t>(static_cast<uint32_t>(value));
}

bool obx_copy_string(const json_t* object, const char* key, char** out) {
    const char* text = obx_json_object_get_string(object, key);
    *out = text ? strdup(text) : nullptr;
    return *out != nullptr;
}

}  // namespace

// ---- encoding -------------------------------------------------------------------------

json_t* obx_field_to_json(const obx_type_field_definition_t* field) {
    if (!field) return nullptr;
    json_t* object = json_object();
    if (!object) return nullptr;
    const char* counting_mode = obx_enum_to_string(obx_counting_mode_names, field->counting_mode);
    bool ok = obx_json_object_set_string(object, "field_name", field->field_name) &&
              obx_json_object_set_string(object, "description", field->description) &&
              obx_json_object_set_string(object, "type_name", field->type_name) &&
              obx_json_object_set_string(object, "counting_mode", counting_mode);
    if (ok && field->array_length > 1)
        ok = obx_json_object_set_number(object, "array_length", static_cast<double>(field->array_length));
    ok = ok && obx_json_object_set_number(object, "offset", static_cast<double>(field->offset)) &&
         obx_json_object_set_number(object, "type_size", static_cast<double>(field->type_size)) &&
         obx_json_object_set_number(object, "index", static_cast<double>(field->index));
    if (!ok) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

json_t* obx_type_to_json(const obx_type_definition_t* type) {
    if (!type || (type->num_fields && !type->fields)) return nullptr;
    json_t* object = json_object();
    if (!object) return nullptr;
    bool ok = obx_json_object_set_string(object, "name", type->name) &&
              obx_json_object_set_number(object, "size", static_cast<double>(type->size));
    json_t* fields = ok ? json_array() : nullptr;
    ok = fields && obx_json_object_set(object, "fields", fields);
    for (uint16_t i = 0; ok && i < type->num_fields; ++i) ok = obx_json_array_append(fields, obx_field_to_json(type->fields[i]));
    if (!ok) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

json_t* obx_schema_to_json(const obx_schema_t* schema) {
    if (!schema || schema->num_types == 0) return nullptr;
    json_t* object = json_object();
    if (!object) return nullptr;
    char version[32];
    std::snprintf(version, sizeof(version), "%u.%u.%u", static_cast<unsigned>(obx_version_major(schema->version)),
                  static_cast<unsigned>(obx_version_minor(schema->version)),
                  static_cast<unsigned>(obx_version_patch(schema->version)));
    bool ok = obx_json_object_set_string(object, "title", kSchemaTitle) &&
              obx_json_object_set_string(object, "obx_version", OBX_SCHEMA_JSON_VERSION_TEXT) &&
              obx_json_object_set_string(object, "provider_name", schema->name) &&
              obx_json_object_set_string(object, "provider_version", version);
    json_t* types = ok ? json_array() : nullptr;
    ok = types && obx_json_object_set(object, "types", types);
    for (int i = 0; ok && i < schema->num_types && i < OBX_MAX_TYPES; ++i) {
        json_t* type = obx_type_to_json(schema->types[i]);
        ok = type && obx_json_object_set_number(type, "type_index", i);
        if (!ok) {
            json_decref(type);
            break;
        }
        ok = obx_json_array_append(types, type);
    }
    if (!ok) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

// ---- decoding -------------------------------------------------------------------------

obx_type_field_definition_t* obx_field_from_json(const json_t* value) {
    TemplateCheck check = obx_check_template(kFieldWithIndexTemplate, value);
    if (check == TemplateCheck::kBadTemplate) {
        OBX_LOG_ERR("Unable to parse schema to JSON value: '%s'", kFieldWithIndexTemplate);
        return nullptr;
    }
    if (check == TemplateCheck::kMismatch) {
        // "index" is optional, and an "index" of another type is ignored.
        check = obx_check_template(kFieldWithoutIndexTemplate, value);
        if (check == TemplateCheck::kBadTemplate) {
            OBX_LOG_ERR("Unable to parse schema to JSON value (without index): '%s'", kFieldWithoutIndexTemplate);
            return nullptr;
        }
        if (check == TemplateCheck::kMismatch) {
            OBX_LOG_ERR("Field definition JSON does not match schema with or without 'index'.");
            return nullptr;
        }
    }

    obx_type_field_definition_t* field = obx_type_field_definition_create();
    if (!field) {
        OBX_LOG_ERR("Failed to allocate field definition: %s", std::strerror(errno));
        return nullptr;
    }
    field->array_length = obx_number_to_u16(obx_json_object_get_number(value, "array_length"));
    if (field->array_length == 0) field->array_length = 1;

    const char* mode = obx_json_object_get_string(value, "counting_mode");
    if (mode && std::strcmp(mode, kAbsoluteMonotonic) == 0)
        field->counting_mode = OBX_COUNTING_MODE_RUNNING_SUM;
    else
        field->counting_mode = obx_enum_from_string(obx_counting_mode_names, mode);  // -1 when unknown

    if (!obx_copy_string(value, "field_name", &field->field_name) ||
        !obx_copy_string(value, "description", &field->description) ||
        !obx_copy_string(value, "type_name", &field->type_name)) {
        OBX_LOG_ERR("Failed to allocate field definition: %s", std::strerror(errno));
        obx_type_field_definition_destroy(field);
        return nullptr;
    }
    field->type_size = obx_number_to_u64(obx_json_object_get_number(value, "type_size"));
    field->offset = obx_number_to_u64(obx_json_object_get_number(value, "offset"));
    if (json_object_get(value, "index")) field->index = obx_number_to_u16(obx_json_object_get_number(value, "index"));
    return field;
}

obx_type_definition_t* obx_type_from_json(const json_t* value) {
    const TemplateCheck check = obx_check_template(kTypeTemplate, value);
    if (check == TemplateCheck::kBadTemplate) {
        OBX_LOG_ERR("Unable to parse schema to JSON value: '%s'", kTypeTemplate);
        return nullptr;
    }
    if (check == TemplateCheck::kMismatch) {
        OBX_LOG_ERR("Type definition JSON does not match schema '%s'", kTypeTemplate);
        return nullptr;
    }
    const char* name = obx_json_object_get_string(value, "name");
    const json_t* fields = obx_json_object_get_array(value, "fields");
    const size_t count = json_array_size(fields);
    if (count > UINT16_MAX) {
        OBX_LOG_ERR("Type '%s' has %zu fields, more than the %u a type can hold", name, count,
                    static_cast<unsigned>(UINT16_MAX));
        return nullptr;
    }
    obx_type_definition_t* type = obx_type_definition_create(name);
    if (!type) {
        OBX_LOG_ERR("Failed to allocate type definition object: %s", std::strerror(errno));
        return nullptr;
    }
    type->size = obx_number_to_u64(obx_json_object_get_number(value, "size"));
    if (type->size == 0) {  // the caller names the type that failed
        obx_type_definition_destroy(type);
        return nullptr;
    }
    if (count) {
        type->fields = static_cast<obx_type_field_definition_t**>(std::calloc(count, sizeof(*type->fields)));
        if (!type->fields) {
            OBX_LOG_ERR("Failed to allocate type definition object: %s", std::strerror(errno));
            obx_type_definition_destroy(type);
            return nullptr;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        obx_type_field_definition_t* field = obx_field_from_json(json_array_get(fields, i));
        if (!field) {
            obx_type_definition_destroy(type);
            return nullptr;
        }
        type->fields[type->num_fields++] = field;
    }
    return type;
}

obx_schema_t* obx_schema_from_json(const json_t* value) {
    const TemplateCheck check = obx_check_template(kEventSchemaTemplate, value);
    if (check == TemplateCheck::kBadTemplate) {
        OBX_LOG_ERR("Unable to parse schema to JSON value: '%s'", kEventSchemaTemplate);
        return nullptr;
    }
    if (check == TemplateCheck::kMismatch) {
        // Callers try this first on JSON that may be something else.
        OBX_LOG_INF("Not an event schema");
        return nullptr;
    }
    const char* obx_version = obx_json_object_get_string(value, "obx_version");
    if (!obx_version_string_is_compatible(obx_version, OBX_SCHEMA_JSON_VERSION_TEXT)) {
        OBX_LOG_ERR("Schema version %s is incompatible with current version %s", obx_version,
                    OBX_SCHEMA_JSON_VERSION_TEXT);
        return nullptr;
    }
    const char* provider_name = obx_json_object_get_string(value, "provider_name");
    const json_t* types = obx_json_object_get_array(value, "types");
    const size_t count = json_array_size(types);
    // The types array of a schema has a fixed size; more would be written past its end.
    if (count > OBX_MAX_TYPES) {
        OBX_LOG_ERR("Schema '%s' has %zu types, more than the limit of %d", provider_name, count, OBX_MAX_TYPES);
        return nullptr;
    }
    errno = 0;
    obx_schema_t* schema =
        obx_schema_create(provider_name, obx_version_from_string(obx_json_object_get_string(value, "provider_version")));
    if (!schema) {
        OBX_LOG_ERR("Failed to initialize '%s' schema: %s", provider_name, std::strerror(errno));
        return nullptr;
    }
    for (size_t i = 0; i < count; ++i) {
        const json_t* element = json_array_get(types, i);
        if (!element) {
            OBX_LOG_ERR("Failed to get type #%d from JSON array", static_cast<int>(i));
            obx_schema_destroy(schema);
            return nullptr;
        }
        obx_type_definition_t* type = obx_type_from_json(element);
        if (!type) {
            OBX_LOG_ERR("Failed to deserialize type #%d from JSON array", static_cast<int>(i));
            obx_schema_destroy(schema);
            return nullptr;
        }
        // Position wins over any "type_index" the file states.
        schema->types[schema->num_types++] = type;
    }
    return schema;
}

// ---- schema ids -----------------------------------------------------------------------

bool obx_md5_compute(const void* data, size_t size, uint8_t digest[16]) {
    if (!digest || (!data && size)) return false;
    unsigned char result[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data ? data : "", size, result, &length, EVP_md5(), nullptr) != 1 || length != 16) return false;
    std::memcpy(digest, result, 16);
    return true;
}

bool obx_schema_fill_md5(const obx_schema_t* schema, uint8_t digest[16]) {
    if (!digest) return false;
    json_t* value = obx_schema_to_json(schema);
    if (!value) return false;
    uint8_t computed[16];
    const bool ok = obx_json_md5(computed, value);
    json_decref(value);
    if (ok) std::memcpy(digest, computed, sizeof(computed));
    return ok;
}

void obx_md5_to_hex_into(const uint8_t digest[16], char text[33]) {
    static const char kDigits[] = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        text[2 * i] = kDigits[digest[i] >> 4];
        text[2 * i + 1] = kDigits[digest[i] & 0x0F];
    }
    text[32] = '\0';
}

char* obx_md5_to_hex(const uint8_t digest[16]) {
    auto* text = static_cast<char*>(std::malloc(OBX_SCHEMA_ID_TEXT_SIZE));
    if (!text) return nullptr;
    obx_md5_to_hex_into(digest, text);
    return text;
}

bool obx_hex_to_md5(const char* text, uint8_t digest[16]) {
    if (!text) return true;
    // Each pair is scanned from its own small copy, so a short text is never read past its end.
    const size_t length = strnlen(text, 32);
    for (size_t i = 0; i < 16; ++i) {
        char pair[3] = {0, 0, 0};
        for (size_t k = 0; k < 2 && 2 * i + k < length; ++k) pair[k] = text[2 * i + k];
        unsigned char byte = 0;
        if (std::sscanf(pair, "%02hhx", &byte) != 1) return false;
        digest[i] = byte;
    }
    return true;
}

bool obx_md5_is_zero(const uint8_t digest[16]) {
    for (int i = 0; i < 16; ++i)
        if (digest[i] != 0) return false;
    return true;
}
