#include "data/schema/schema.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "data/schema/schema_json.h"
#include "utils/json.h"
#include "utils/logger.h"

// Quoted in the heads of the indexed-field-name lines, with the line number.
#define OBX_SCHEMA_SOURCE_PATH "src/data/schema"

static const char* obx_printable(const char* text, const char* fallback) { return text ? text : fallback; }

obx_schema_t* obx_schema_create(const char* name, uint32_t version) {
    auto* schema = static_cast<obx_schema_t*>(std::calloc(1, sizeof(obx_schema_t)));
    if (!schema) return nullptr;
    schema->version = version;
    // A failed copy leaves the schema unnamed; the name is informational only.
    if (name) schema->name = strdup(name);
    OBX_LOG_DBG("clearing md5_digest of schema: %p", static_cast<void*>(schema));
    std::memset(schema->md5_digest, 0, sizeof(schema->md5_digest));
    std::memset(schema->md5_digest_str, 0, sizeof(schema->md5_digest_str));
    return schema;
}

void obx_schema_destroy(obx_schema_t* schema) {
    if (!schema) return;
    // Every slot, not only the first num_types: a slot is either a type or nullptr.
    for (size_t i = 0; i < OBX_MAX_TYPES; ++i) obx_type_definition_destroy(schema->types[i]);
    std::free(schema->name);
    std::free(schema);
}

obx_type_definition_t* obx_schema_find_type(const obx_schema_t* schema, const char* name) {
    if (!name) return nullptr;
    // The chain is short (own schema, then the built-ins); the hop bound only guards
    // against a base chain that loops back on itself.
    size_t hops = 0;
    for (const obx_schema_t* s = schema; s && hops < 256; s = s->base_schema, ++hops) {
        for (uint8_t i = 0; i < s->num_types && i < OBX_MAX_TYPES; ++i) {
            obx_type_definition_t* type = s->types[i];
            if (type && type->name && std::strcmp(type->name, name) == 0) return type;
        }
    }
    return nullptr;
}

uint64_t obx_schema_get_type_size(const obx_schema_t* schema, const char* name) {
    const obx_type_definition_t* type = obx_schema_find_type(schema, name);
    return type ? type->size : 0;
}

static bool obx_field_from_info(obx_type_field_definition_t* field, const obx_type_field_info_t* info) {
    field->field_name = strdup(info->field_name);
    field->type_name = strdup(info->type_name);
    field->description = info->description ? strdup(info->description) : nullptr;
    field->counting_mode = info->counting_mode;
    field->array_length = info->array_length;
    return field->field_name && field->type_name && (field->description || !info->description);
}

int obx_schema_add_type(obx_schema_t* schema, const char* type_name, const obx_type_field_info_t* fields_info,
                        size_t count, uint8_t* type_index) {
    static const char* const fn = "obx_schema_add_type";
    // Arguments first: everything below may rely on them.
    if (!schema || !type_name) {
        OBX_LOG_ERR("[%s] Missing schema or type name", fn);
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    if (count == 0 || !fields_info) {
        OBX_LOG_ERR("[%s] Unable to register type '%s': a type needs at least one field", fn, type_name);
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    if (count > UINT16_MAX) {
        OBX_LOG_ERR("[%s] Unable to register type '%s': %zu fields, at most %u are possible", fn, type_name, count,
                    static_cast<unsigned>(UINT16_MAX));
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    for (size_t i = 0; i < count; ++i) {
        if (!fields_info[i].field_name || !fields_info[i].type_name) {
            OBX_LOG_ERR("[%s] Unable to register type '%s': field #%zu has no name or no type name", fn, type_name, i);
            return OBX_SCHEMA_BAD_ARGUMENT;
        }
        if (fields_info[i].array_length == 0) {
            OBX_LOG_ERR("[%s] Unable to register type '%s': field '%s' has an array length of 0", fn, type_name,
                        fields_info[i].field_name);
            return OBX_SCHEMA_BAD_ARGUMENT;
        }
    }

    if (schema->num_types > OBX_MAX_TYPES - 1) {
        OBX_LOG_ERR("[%s] Unable to add new type, reached OBX_MAX_TYPES. schema->num_types = %d", fn,
                    static_cast<int>(schema->num_types));
        return OBX_SCHEMA_MAX_TYPES_REACHED;
    }
    if (obx_schema_find_type(schema, type_name)) {
        OBX_LOG_ERR("Schema '%s' already contains type '%s'", obx_printable(schema->name, "<undefined>"), type_name);
        return OBX_SCHEMA_NAME_TAKEN;
    }
    for (size_t i = 0; i < count; ++i) {
        if (!obx_schema_find_type(schema, fields_info[i].type_name)) {
            OBX_LOG_ERR("Unable to register type '%s': type '%s' of the field '%s' is undefined", type_name,
                        fields_info[i].type_name, fields_info[i].field_name);
            return OBX_SCHEMA_BAD_ARGUMENT;
        }
    }
    // The last field is never compared with the others: two equal names at the end of
    // the list are accepted, and existing schemas depend on that.
    for (size_t i = 1; i + 1 < count; ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (std::strcmp(fields_info[i].field_name, fields_info[j].field_name) == 0) {
                OBX_LOG_ERR("[%s] Failed to register new type '%s': field name '%s' occurs more than once.", fn,
                            type_name, fields_info[i].field_name);
                return OBX_SCHEMA_NAME_TAKEN;
            }
        }
    }

    obx_type_definition_t* type = obx_type_definition_create(type_name);
    if (!type) {
        OBX_LOG_ERR("[%s] cannot allocate type definition", fn);
        return OBX_SCHEMA_NO_MEMORY;
    }
    type->fields = static_cast<obx_type_field_definition_t**>(std::calloc(count, sizeof(*type->fields)));
    if (!type->fields) {
        OBX_LOG_ERR("[%s] cannot allocate fields for type definition", fn);
        obx_type_definition_destroy(type);
        return OBX_SCHEMA_NO_MEMORY;
    }
    for (size_t i = 0; i < count; ++i) {
        obx_type_field_definition_t* field = obx_type_field_definition_create();
        if (!field || !obx_field_from_info(field, &fields_info[i])) {
            OBX_LOG_ERR("[%s] cannot get type definition from fields_info[%d]", fn, static_cast<int>(i));
            obx_type_field_definition_destroy(field);
            obx_type_definition_destroy(type);
            return OBX_SCHEMA_NO_MEMORY;
        }
        field->offset = type->size;  // packed: no alignment, no padding
        type->fields[type->num_fields++] = field;
        field->type = obx_schema_find_type(schema, field->type_name);
        if (!field->type) {
            OBX_LOG_ERR("[%s] cannot find type_definition of type_field_definition '%s', number %d", fn,
                        field->field_name, static_cast<int>(i));
            obx_type_definition_destroy(type);
            return OBX_SCHEMA_NO_MEMORY;
        }
        field->type_size = field->type->size;
        uint64_t extent = 0;
        if (__builtin_mul_overflow(static_cast<uint64_t>(field->array_length), field->type_size, &extent) ||
            __builtin_add_overflow(type->size, extent, &type->size)) {
            OBX_LOG_ERR("[%s] Unable to register type '%s': its size overflows at field '%s'", fn, type_name,
                        field->field_name);
            obx_type_definition_destroy(type);
            return OBX_SCHEMA_BAD_ARGUMENT;
        }
    }

    if (type_index) *type_index = schema->num_types;
    schema->types[schema->num_types++] = type;
    return OBX_SCHEMA_OK;
}

int obx_schema_set_field_indexes(obx_schema_t* schema, uint32_t type_index, const char* const* names,
                                 size_t count) {
    static const char* const fn = "obx_schema_set_field_indexes";
    if (!schema) {
        OBX_LOG_ERR("[%s] Schema pointer is NULL!", fn);
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    if (!names) {
        OBX_LOG_ERR("[%s] Index names array is NULL!", fn);
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    if (type_index >= schema->num_types) {
        OBX_LOG_ERR("[%s] Invalid type_index: %u (out of range, max: %u)", fn, type_index,
                    static_cast<unsigned>(schema->num_types - 1));
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    obx_type_definition_t* type = schema->types[type_index];
    if (!type) {
        OBX_LOG_ERR("[%s] No type at type_index %u", fn, type_index);
        return OBX_SCHEMA_BAD_ARGUMENT;
    }
    for (uint16_t i = 0; i < type->num_fields; ++i) type->fields[i]->index = 0;
    if (count == 0) return OBX_SCHEMA_OK;

    uint16_t next = 1;
    for (size_t n = 0; n < count; ++n) {
        if (!names[n]) continue;
        for (uint16_t i = 0; i < type->num_fields; ++i) {
            obx_type_field_definition_t* field = type->fields[i];
            if (field->field_name && std::strcmp(field->field_name, names[n]) == 0) {
                field->index = next++;
                break;
            }
        }
    }
    const unsigned assigned = static_cast<uint16_t>(next - 1);
    if (assigned != count)
        OBX_LOG_DBG("Mismatch in assigned indices: expected %zu, but assigned %u (%s).", count, assigned,
                    obx_printable(type->name, "<unnamed>"));
    return OBX_SCHEMA_OK;
}

const char** obx_schema_get_indexed_field_names(const obx_schema_t* schema, uint32_t type_index,
                                                size_t* out_count) {
    if (!out_count) {
        OBX_LOG_ERR("[%s %i] out_count is NULL", OBX_SCHEMA_SOURCE_PATH, __LINE__);
        return nullptr;
    }
    *out_count = 0;
    if (!schema) {
        OBX_LOG_ERR("[%s %i] schema is NULL", OBX_SCHEMA_SOURCE_PATH, __LINE__);
        return nullptr;
    }
    if (type_index >= schema->num_types) {
        OBX_LOG_ERR("[%s %i] type_index %u out of bounds (max: %u)", OBX_SCHEMA_SOURCE_PATH, __LINE__, type_index,
                    static_cast<unsigned>(schema->num_types - 1));
        return nullptr;
    }
    const obx_type_definition_t* type = schema->types[type_index];
    if (!type) {
        OBX_LOG_ERR("[%s %i] schema->types[%u] is NULL", OBX_SCHEMA_SOURCE_PATH, __LINE__, type_index);
        return nullptr;
    }
    size_t count = 0;
    for (uint16_t i = 0; i < type->num_fields; ++i)
        if (type->fields[i]->index != 0) ++count;
    // At least one slot, so that a type without indexed fields is not mistaken for a failure.
    auto* names = static_cast<const char**>(std::malloc(std::max<size_t>(count, 1) * sizeof(const char*)));
    if (!names) {
        OBX_LOG_ERR("[%s %i] malloc failed for %zu fields", OBX_SCHEMA_SOURCE_PATH, __LINE__, count);
        return nullptr;
    }
    size_t n = 0;
    for (uint16_t i = 0; i < type->num_fields; ++i)
        if (type->fields[i]->index != 0) names[n++] = type->fields[i]->field_name;
    *out_count = n;
    return names;
}

bool obx_schema_adjust_type_fields(const obx_schema_t* schema, obx_type_definition_t* type) {
    if (!type) return false;
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        obx_type_field_definition_t* field = type->fields[i];
        field->type = obx_schema_find_type(schema, field->type_name);
        if (!field->type) {
            OBX_LOG_ERR("Definition of type %s not found within the schema %s",
                        obx_printable(field->type_name, "<none>"),
                        obx_printable(schema ? schema->name : nullptr, "<undefined>"));
            return false;
        }
    }
    return true;
}

namespace {

// Depth-first walk over the composite types of one schema, looking for a type that
// contains itself; the renderers would recurse without end on such a type.
struct obx_layout_walk_t {
    const obx_schema_t* schema;
    uint8_t state[OBX_MAX_TYPES];  // 0 unseen, 1 on the current path, 2 done

    int position_of(const obx_type_definition_t* type) const {
        for (int i = 0; i < schema->num_types && i < OBX_MAX_TYPES; ++i)
            if (schema->types[i] == type) return i;
        return -1;  // a type of the base schema, checked with that schema
    }

    bool visit(int position) {
        state[position] = 1;
        const obx_type_definition_t* type = schema->types[position];
        for (uint16_t i = 0; i < type->num_fields; ++i) {
            const obx_type_field_definition_t* field = type->fields[i];
            if (!field->type || field->type->id != 0) continue;
            const int inner = position_of(field->type);
            if (inner < 0 || state[inner] == 2) continue;
            if (state[inner] == 1) {
                OBX_LOG_ERR("Type '%s' contains itself through field '%s' of type '%s'",
                            obx_printable(schema->types[inner]->name, "<unnamed>"),
                            obx_printable(field->field_name, "<unnamed>"), obx_printable(type->name, "<unnamed>"));
                return false;
            }
            if (!visit(inner)) return false;
        }
        state[position] = 2;
        return true;
    }
};

}  // namespace

bool obx_schema_validate_layout(const obx_schema_t* schema) {
    if (!schema) return false;
    for (int i = 0; i < schema->num_types && i < OBX_MAX_TYPES; ++i) {
        const obx_type_definition_t* type = schema->types[i];
        if (!type || (type->num_fields && !type->fields)) {
            OBX_LOG_ERR("Schema '%s' has a type without its fields", obx_printable(schema->name, "<undefined>"));
            return false;
        }
    }
    // Depth is bounded by the number of types, since no type is entered twice.
    obx_layout_walk_t walk{};
    walk.schema = schema;
    for (int i = 0; i < schema->num_types && i < OBX_MAX_TYPES; ++i)
        if (walk.state[i] == 0 && !walk.visit(i)) return false;
    return true;
}

char* obx_schema_type_to_json_string(const obx_schema_t* schema, const char* name, int pretty) {
    const obx_type_definition_t* type = obx_schema_find_type(schema, name);
    if (!type) return nullptr;
    json_t* value = obx_type_to_json(type);
    if (!value) return nullptr;
    char* text = pretty ? obx_json_serialize_to_string_pretty(value) : obx_json_serialize_to_string(value);
    json_decref(value);
    return text;
}

obx_schema_t* obx_schema_load_file(const char* path, const obx_schema_t* base_schema) {
    json_t* root = path ? obx_json_parse_file(path) : nullptr;
    if (!root) {
        OBX_LOG_ERR("Failed reading schema JSON from file '%s'", obx_printable(path, "<none>"));
        return nullptr;
    }
    obx_schema_t* schema = obx_schema_from_json(root);
    json_decref(root);
    if (!schema) return nullptr;

    schema->base_schema = base_schema;
    for (uint8_t i = 0; i < schema->num_types; ++i) {
        if (!obx_schema_adjust_type_fields(schema, schema->types[i])) {
            obx_schema_destroy(schema);
            return nullptr;
        }
    }
    // Sizes and offsets are taken as the file states them; only a type that contains
    // itself is refused, since no record could ever hold it.
    if (!obx_schema_validate_layout(schema)) {
        OBX_LOG_ERR("Refusing schema file '%s': its type layout is inconsistent", path);
        obx_schema_destroy(schema);
        return nullptr;
    }
    // A schema without types has no JSON form: its digest stays zero.
    obx_schema_fill_md5(schema, schema->md5_digest);
    obx_md5_to_hex_into(schema->md5_digest, schema->md5_digest_str);
    return schema;
}
