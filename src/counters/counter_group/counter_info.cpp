#include "counters/counter_group/counter_info.h"

#include <cstdlib>
#include <cstring>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counters_json.h"
#include "utils/logger.h"

static const char* const COUNTER_TEMPLATE =
    "{\"name\" : \"\", \"description\" : \"\", \"units\" : \"\", \"data_type\" : \"\", \"counting_type\" : \"\"}";

#define FREE_COUNTER_TEXT(field)                                                                       \
    do {                                                                                               \
        if (counter->field) {                                                                          \
            free(counter->field);                                                                      \
            counter->field = nullptr;                                                                  \
        } else {                                                                                       \
            OBX_LOG_WARN("on %s, %s %d attempted to free NULL ptr", __FILE__, "obx_destroy_counter_info", \
                         __LINE__);                                                                    \
        }                                                                                              \
    } while (0)

void obx_counter_info_destroy(obx_counter_info_t* counter)
{
    if (!counter)
        return;
    FREE_COUNTER_TEXT(name);
    FREE_COUNTER_TEXT(description);
    FREE_COUNTER_TEXT(units);
}

// A missing text stays missing in the copy; only a failed allocation is a failure.
static bool copy_text(char** destination, const char* source)
{
    *destination = nullptr;
    if (!source)
        return true;
    *destination = strdup(source);
    return *destination != nullptr;
}

obx_counter_info_t* obx_counter_info_copy(const obx_counter_info_t* counter)
{
    if (!counter)
        return nullptr;
    obx_counter_info_t* copy = static_cast<obx_counter_info_t*>(calloc(1, sizeof(obx_counter_info_t)));
    if (!copy)
        return nullptr;
    if (!copy_text(&copy->name, counter->name) || !copy_text(&copy->description, counter->description) ||
        !copy_text(&copy->units, counter->units)) {
        obx_counter_info_destroy(copy);
        free(copy);
        return nullptr;
    }
    copy->id = counter->id;
    copy->data_type = counter->data_type;
    copy->counting_type = counter->counting_type;
    copy->offset = counter->offset;
    copy->length = counter->length;
    copy->reserved = counter->reserved;
    copy->mandatory = counter->mandatory;
    // `hidden` stays 0: copies are never hidden.
    return copy;
}

json_t* obx_counter_info_to_json(const obx_counter_info_t* counter)
{
    if (!counter)
        return nullptr;
    json_t* object = json_object();
    if (!object)
        return nullptr;
    // Set results are not checked: a text JSON refuses just leaves its key out.
    obx_json_object_set_string(object, "name", counter->name);
    obx_json_object_set_string(object, "description", counter->description);
    obx_json_object_set_string(object, "units", counter->units);
    obx_json_object_set_string(object, "data_type", obx_counter_data_type_to_string(counter->data_type));
    obx_json_object_set_number(object, "length", counter->length);
    obx_json_object_set_number(object, "offset", counter->offset);
    obx_json_object_set_number(object, "hidden", counter->hidden ? 1 : 0);
    obx_json_object_set_number(object, "mandatory", counter->mandatory ? 1 : 0);
    obx_json_object_set_string(object, "counting_type",
                               obx_counter_counting_type_to_string(counter->counting_type));
    return object;
}

obx_counter_info_t* obx_counter_info_from_json(const json_t* value)
{
    if (!obx_counters_json_matches(value, COUNTER_TEMPLATE))
        return nullptr;
    obx_counter_info_t* counter = static_cast<obx_counter_info_t*>(calloc(1, sizeof(obx_counter_info_t)));
    if (!counter)
        return nullptr;
    counter->name = strdup(obx_json_object_get_string(value, "name"));
    counter->description = strdup(obx_json_object_get_string(value, "description"));
    counter->units = strdup(obx_json_object_get_string(value, "units"));
    if (!counter->name || !counter->description || !counter->units) {
        free(counter->name);
        free(counter->description);
        free(counter->units);
        free(counter);
        return nullptr;
    }
    counter->data_type = obx_counter_data_type_from_string(obx_json_object_get_string(value, "data_type"));
    counter->offset = obx_counters_json_get_u32(value, "offset");
    counter->length = obx_counters_json_get_u32(value, "length");
    counter->hidden = obx_json_object_get_number(value, "hidden") != 0 ? 1 : 0;
    counter->mandatory = obx_json_object_get_number(value, "mandatory") != 0 ? 1 : 0;
    counter->counting_type =
        obx_counter_counting_type_from_string(obx_json_object_get_string(value, "counting_type"));
    counter->reserved = 0;
    return counter;
}
