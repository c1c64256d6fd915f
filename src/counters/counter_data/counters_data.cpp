#include "counters/counter_data/counters_data.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "counters/counter_group/counter_enums.h"
#include "data/format/data_file_format.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/text.h"
#include "utils/time_text.h"

uint64_t obx_counters_data_timestamp(const obx_counters_data_t* block)
{
    if (!block || !block->bytes || block->size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return 0;
    return obx_le_u64(block->bytes + OBX_COUNTERS_BLOCK_TIMESTAMP);
}

const uint8_t* obx_counters_data_values(const obx_counters_data_t* block)
{
    if (!block || !block->bytes || block->size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return nullptr;
    return block->bytes + OBX_COUNTERS_BLOCK_HEAD_SIZE;
}

size_t obx_counters_data_values_size(const obx_counters_data_t* block)
{
    if (!block || !block->bytes || block->size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return 0;
    return block->size - OBX_COUNTERS_BLOCK_HEAD_SIZE;
}

bool obx_counters_data_has_head(const obx_counters_data_t* block)
{
    if (block && block->bytes && block->size >= OBX_COUNTERS_BLOCK_HEAD_SIZE) return true;
    OBX_LOG_ERR("Counters block of %zu bytes is shorter than its %u-byte head", block ? block->size : 0,
                OBX_COUNTERS_BLOCK_HEAD_SIZE);
    return false;
}

const uint8_t* obx_counters_data_counter_value(const obx_counter_info_t* counter, const uint8_t* values,
                                               size_t available)
{
    const uint64_t size = obx_counter_data_type_size(counter->data_type, counter->length);
    const uint64_t end = static_cast<uint64_t>(counter->offset) + size;
    if (end > available) {
        OBX_LOG_DBG("Counter %s at offset %u (%lu bytes) lies beyond the %zu bytes of values; left out",
                    counter->name, counter->offset, static_cast<unsigned long>(size), available);
        return nullptr;
    }
    return values + counter->offset;
}

namespace {

// The JSON value of one counter; nullptr for a value JSON cannot hold.
json_t* counter_value_to_json(const obx_counter_info_t* counter, const uint8_t* value)
{
    switch (counter->data_type) {
    case OBX_COUNTER_DATA_TYPE_UINT64:
    case OBX_COUNTER_DATA_TYPE_BIT64:
        return obx_json_number(static_cast<double>(obx_le_u64(value)));
    case OBX_COUNTER_DATA_TYPE_FP64:
        return obx_json_number(obx_le_f64(value));
    case OBX_COUNTER_DATA_TYPE_STRING: {
        obx_log_hexdump(value, counter->length);
        const void* zero = std::memchr(value, 0, counter->length);
        const size_t length = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - value) : counter->length;
        return obx_json_stringn(reinterpret_cast<const char*>(value), length);
    }
    default:
        return obx_json_number(static_cast<double>(obx_le_i64(value)));
    }
}

// One counter set: every counter of the group read at its own offset. The sets of a
// group are not told apart; all of them read the same bytes.
json_t* counter_set_to_json(const obx_counter_group_t* group, const uint8_t* values, size_t available)
{
    json_t* set = json_object();
    if (!set) {
        OBX_LOG_ERR("Failed allocating JSON object");
        return nullptr;
    }
    for (uint32_t i = 0; i < group->num_counters; ++i) {
        const obx_counter_info_t* counter = group->counters ? group->counters[i] : nullptr;
        if (!counter || !counter->name) continue;
        const uint8_t* value = obx_counters_data_counter_value(counter, values, available);
        if (!value) continue;
        // A value JSON refuses, or a name it cannot take as a key, leaves the key out.
        json_t* json_value = counter_value_to_json(counter, value);
        if (json_value) obx_json_object_set(set, counter->name, json_value);
    }
    return set;
}

const char* group_name(const obx_counter_group_t* group)
{
    if (group->name) return group->name;
    if (group->provider && group->provider->name) return group->provider->name;
    return "unset";
}

json_t* group_to_json(const obx_counter_group_t* group, const uint8_t* values, size_t available)
{
    json_t* object = json_object();
    if (!object) return nullptr;
    // An unknown granularity has no text and its key stays out.
    const char* granularity = obx_counter_granularity_to_string(group->granularity);
    if (granularity) obx_json_object_set_string(object, "granularity", granularity);
    obx_json_object_set_string(object, "name", group_name(group));

    json_t* sets = json_array();
    if (!sets) {
        json_decref(object);
        return nullptr;
    }
    for (uint32_t s = 0; s < group->num_counter_sets; ++s) {
        json_t* set = counter_set_to_json(group, values, available);
        if (!set) {
            json_decref(sets);
            json_decref(object);
            return nullptr;
        }
        obx_json_array_append(sets, set);
    }
    obx_json_object_set(object, "counter_sets", sets);
    return object;
}

}  // namespace

json_t* obx_counters_data_to_json(const obx_counters_data_t* block, const obx_counters_schema_t* schema)
{
    if (!obx_counters_data_has_head(block)) return nullptr;
    const uint64_t timestamp = obx_counters_data_timestamp(block);
    const uint8_t* values = obx_counters_data_values(block);
    const size_t available = obx_counters_data_values_size(block);

    json_t* object = json_object();
    if (!object) return nullptr;
    if (!obx_json_object_set_number(object, "timestamp", static_cast<double>(timestamp))) {
        json_decref(object);
        return nullptr;
    }
    if (char* time_text = obx_time_to_string(timestamp)) {
        obx_json_object_set_string(object, "@timestamp", time_text);
        std::free(time_text);
    }
    json_t* groups = json_array();
    if (!groups) {
        json_decref(object);
        return nullptr;
    }
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups ? schema->groups[g] : nullptr;
        if (!group) continue;
        obx_json_array_append(groups, group_to_json(group, values, available));
    }
    obx_json_object_set(object, "groups", groups);
    return object;
}

namespace {

// One cell of the table from the 8-byte slot `slot` of the grid; a slot that does not lie
// wholly within the values prints as an empty cell, so the table keeps its shape.
void print_cell(FILE* stream, const obx_counter_info_t* counter, const uint8_t* values, size_t available,
                uint64_t slot)
{
    const int width = OBX_COUNTER_CELL_WIDTH;
    const uint64_t start = slot * OBX_COUNTER_SLOT_SIZE;
    if (slot > available / OBX_COUNTER_SLOT_SIZE || start + OBX_COUNTER_SLOT_SIZE > available) {
        std::fprintf(stream, " %*s |", width, "");
        return;
    }
    const uint8_t* value = values + start;
    const int32_t data_type = counter ? counter->data_type : OBX_COUNTER_DATA_TYPE_UNDEFINED;
    switch (data_type) {
    case OBX_COUNTER_DATA_TYPE_UINT64:
        std::fprintf(stream, " %*llu(u) |", width, static_cast<unsigned long long>(obx_le_u64(value)));
        break;
    case OBX_COUNTER_DATA_TYPE_FP64:
        std::fprintf(stream, " %*.3f |", width - 4, obx_le_f64(value));
        break;
    case OBX_COUNTER_DATA_TYPE_BIT64:
        std::fprintf(stream, " %*llX |", width, static_cast<unsigned long long>(obx_le_u64(value)));
        break;
    case OBX_COUNTER_DATA_TYPE_STRING: {
        // Text runs on past its slot, up to the cell width, but never past the values.
        char text[OBX_COUNTER_CELL_WIDTH + 1];
        const size_t room = available - start;
        size_t length = 0;
        while (length < static_cast<size_t>(width) && length < room && value[length] != 0) {
            text[length] = static_cast<char>(value[length]);
            ++length;
        }
        text[length] = '\0';
        std::fprintf(stream, " %*.*s |", width, width, text);
        break;
    }
    default:
        obx_print_counter_value(stream, width, static_cast<long long>(obx_le_i64(value)));
        break;
    }
}

void print_group_table(FILE* stream, const obx_counter_group_t* group, const uint8_t* values, size_t available)
{
    const uint64_t num_counters = group->num_counters;
    const uint64_t num_sets = group->num_counter_sets;
    const bool has_sets = num_sets != 0;
    const char* granularity = obx_counter_granularity_to_string(group->granularity);
    if (!granularity) granularity = "";
    const int label_width = static_cast<int>(std::strlen(granularity));

    const uint64_t width = num_counters * 23 + 1 + (has_sets ? static_cast<uint64_t>(label_width) + 3 : 0);
    // A table too wide to lay out is left out, as when its rule cannot be allocated.
    if (width > INT_MAX) return;
    char* rule = static_cast<char*>(std::malloc(width + 2));
    if (!rule) return;
    std::memset(rule, '-', width);
    rule[width] = '\n';
    rule[width + 1] = '\0';

    const int title_width = static_cast<int>(width) - 23;
    std::fputs(rule, stream);
    std::fprintf(stream, "| Counter values per %-*.*s |\n", title_width, title_width, granularity);
    std::fputs(rule, stream);

    if (has_sets)
        std::fprintf(stream, "| %*s |", label_width, granularity);
    else
        std::fputs("|", stream);
    for (uint64_t i = 0; i < num_counters; ++i) {
        const obx_counter_info_t* counter = group->counters ? group->counters[i] : nullptr;
        std::fprintf(stream, " %*s |", OBX_COUNTER_CELL_WIDTH, counter && counter->name ? counter->name : "");
    }
    std::fputs("\n", stream);
    std::fputs(rule, stream);

    if (!has_sets) {
        std::fputs(rule, stream);
        std::free(rule);
        return;
    }
    for (uint64_t s = 0; s < num_sets; ++s) {
        std::fprintf(stream, "| %*d |", label_width, static_cast<int>(s));
        for (uint64_t i = 0; i < num_counters; ++i) {
            const obx_counter_info_t* counter = group->counters ? group->counters[i] : nullptr;
            print_cell(stream, counter, values, available, num_counters * s + i);
        }
        std::fputs("\n", stream);
    }
    std::fputs(rule, stream);
    std::free(rule);
}

}  // namespace

void obx_counters_data_print(FILE* stream, const obx_counters_data_t* block, const obx_counters_schema_t* schema)
{
    if (!stream || !block || !block->bytes || block->size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return;
    const uint64_t timestamp = obx_counters_data_timestamp(block);
    if (char* time_text = obx_time_to_string(timestamp)) {
        std::fprintf(stream, "Data collected at %s\n", time_text);
        std::free(time_text);
    } else {
        std::fprintf(stream, "Data collected at %ld\n", static_cast<long>(timestamp));
    }
    const uint8_t* values = obx_counters_data_values(block);
    const size_t available = obx_counters_data_values_size(block);
    for (uint32_t g = 0; schema && g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups ? schema->groups[g] : nullptr;
        if (group) print_group_table(stream, group, values, available);
    }
}

bool obx_counters_data_init(uint8_t* block, size_t size)
{
    if (!block || size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return false;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t timestamp =
        static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    obx_block_magic_set(block, OBX_COUNTERS_BLOCK);
    obx_put_u32(block + OBX_MAGIC_SIZE, 0);
    obx_put_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP, timestamp);
    return true;
}

void obx_counters_data_print_head(FILE* stream, const obx_counters_data_t* block)
{
    if (!stream || !block || !block->bytes || block->size < OBX_COUNTERS_BLOCK_HEAD_SIZE) return;
    obx_counters_block_print(stream, block->bytes);
}

void obx_counters_data_print_layout(void) { obx_counters_block_print_layout(); }

void obx_counter_group_values_clear(const obx_counter_group_t* group, void* values)
{
    if (!group || !values) return;
    const uint64_t count = static_cast<uint64_t>(group->num_counter_sets) * group->num_counters;
    std::memset(values, 0, count * OBX_COUNTER_SLOT_SIZE);
}

void obx_counter_group_print(const obx_counter_group_t* group, FILE* stream)
{
    if (!group || !stream) return;
    static const char rule[] = "------------------------------------------\n";
    const char* granularity = obx_counter_granularity_to_string(group->granularity);
    std::fputs(rule, stream);
    std::fprintf(stream, "| Granularity per %s (%d counter sets) \n", granularity ? granularity : "",
                 static_cast<int>(group->num_counter_sets));
    std::fputs(rule, stream);
    std::fprintf(stream, "| %2s | %-20s | %-40s\n", "#", "Active counter", "Description");
    std::fputs(rule, stream);
    for (uint32_t i = 0; i < group->num_counters; ++i) {
        const obx_counter_info_t* counter = group->counters ? group->counters[i] : nullptr;
        if (!counter) continue;
        std::fprintf(stream, "| %2d | %-20s | %-40.40s\n", static_cast<int>(i), counter->name ? counter->name : "",
                     counter->description ? counter->description : "");
    }
    std::fputs(rule, stream);
    std::fflush(stream);
}

void obx_counter_info_print(const obx_counter_info_t* counter, FILE* stream)
{
    if (!counter || !stream) return;
    std::fprintf(stream, "| %-40s | %-60.60s |\n", counter->name ? counter->name : "",
                 counter->description ? counter->description : "");
}
