#include "data/schema/type_definition.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "data/schema/built_in_types.h"
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

namespace {

// Bytes from a record's start that rendering may read, worked out once per type.
struct obx_reach_walk_t {
    std::vector<std::pair<const obx_type_definition_t*, uint64_t>> known;
    std::vector<const obx_type_definition_t*> open;  // on the current path: a cycle reads without end

    uint64_t of(const obx_type_definition_t* type) {
        if (!type) return 0;
        for (const auto& entry : known)
            if (entry.first == type) return entry.second;
        if (open.size() >= kMaxDepth || std::find(open.begin(), open.end(), type) != open.end()) return UINT64_MAX;
        // A built-in is read by its id, whatever size its definition states.
        uint64_t reach = type->id != OBX_TYPE_COMPOSITE ? std::max(type->size, obx_built_in_type_size(type->id)) : 0;
        if (type->num_fields && !type->fields) return UINT64_MAX;
        open.push_back(type);
        for (uint16_t i = 0; i < type->num_fields && reach != UINT64_MAX; ++i)
            reach = std::max(reach, field_end(type->fields[i]));
        open.pop_back();
        known.emplace_back(type, reach);
        return reach;
    }

    uint64_t field_end(const obx_type_field_definition_t* field) {
        if (!field || !field->type || field->array_length == 0) return field ? field->offset : 0;
        uint64_t extent = 0;
        if (field->array_length > 1 && (field->type->id == OBX_TYPE_CHAR || field->type->id == OBX_TYPE_UNSIGNED_CHAR)) {
            extent = field->array_length;  // text is read byte by byte, whatever type_size says
        } else {
            const uint64_t element = of(field->type);
            if (element == UINT64_MAX ||
                __builtin_mul_overflow(static_cast<uint64_t>(field->array_length - 1), field->type_size, &extent) ||
                __builtin_add_overflow(extent, element, &extent))
                return UINT64_MAX;
        }
        uint64_t end = 0;
        return __builtin_add_overflow(field->offset, extent, &end) ? UINT64_MAX : end;
    }

    static constexpr size_t kMaxDepth = 1024;
};

}  // namespace

uint64_t obx_type_definition_reach(const obx_type_definition_t* type) {
    obx_reach_walk_t walk;
    return walk.of(type);
}
