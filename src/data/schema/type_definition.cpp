#include "data/schema/type_definition.h"

#include <cstdlib>
#include <cstring>

#include "utils/logger.h"

const obx_name_table_t obx_counting_mode_names[] = {
    {OBX_COUNTING_MODE_ABSOLUTE, "ABSOLUTE"},
    {OBX_COUNTING_MODE_RUNNING_SUM, "RUNNING_SUM"},
    {0, nullptr},
};

obx_type_definition_t* obx_type_definition_create(const char* name) {
    auto* type = static_cast<obx_type_definition_t*>(std::calloc(1, sizeof(obx_type_definition_t)));
    if (!type) return nullptr;
    if (name) {
        type->name = strdup(name);
        if (!type->name) {
            std::free(type);
            return nullptr;
        }
    }
    return type;
}

void obx_type_definition_destroy(obx_type_definition_t* type) {
    if (!type) return;
    if (type->fields) {
        for (uint16_t i = 0; i < type->num_fields; ++i) obx_type_field_definition_destroy(type->fields[i]);
        std::free(type->fields);
    }
    std::free(type->name);
    std::free(type);
}

obx_type_field_definition_t* obx_type_field_definition_create(void) {
    return static_cast<obx_type_field_definition_t*>(std::calloc(1, sizeof(obx_type_field_definition_t)));
}

void obx_type_field_definition_destroy(obx_type_field_definition_t* field) {
    if (!field) return;
    std::free(field->field_name);
    std::free(field->description);
    std::free(field->type_name);
    std::free(field);
}

bool obx_type_definition_fits(const obx_type_definition_t* type) {
    if (!type) return false;
    const char* type_name = type->name ? type->name : "<unnamed>";
    if (type->num_fields && !type->fields) {
        OBX_LOG_ERR("Type '%s' has %u fields but no field list", type_name, type->num_fields);
        return false;
    }
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        const obx_type_field_definition_t* field = type->fields[i];
        if (!field) {
            OBX_LOG_ERR("Type '%s' has no definition for field #%u", type_name, i);
            return false;
        }
        const char* field_name = field->field_name ? field->field_name : "<unnamed>";
        if (!field->type) {
            OBX_LOG_ERR("Field '%s' of type '%s' has no resolved type", field_name, type_name);
            return false;
        }
        // The renderers read a whole element of the resolved type at each step of type_size.
        if (field->type_size < field->type->size) {
            OBX_LOG_ERR("Field '%s' of type '%s': element size %lu is smaller than its type '%s' of size %lu",
                        field_name, type_name, field->type_size,
                        field->type->name ? field->type->name : "<unnamed>", field->type->size);
            return false;
        }
        uint64_t extent = 0;
        uint64_t end = 0;
        if (__builtin_mul_overflow(static_cast<uint64_t>(field->array_length), field->type_size, &extent) ||
            __builtin_add_overflow(field->offset, extent, &end) || end > type->size) {
            OBX_LOG_ERR("Field '%s' of type '%s' does not fit its record: offset %lu, %u x %lu bytes, record size %lu",
                        field_name, type_name, field->offset, field->array_length, field->type_size, type->size);
            return false;
        }
    }
    return true;
}
