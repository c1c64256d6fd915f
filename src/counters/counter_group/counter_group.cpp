#include "counters/counter_group/counter_group.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counters_json.h"
#include "utils/logger.h"

static const char* const GROUP_TEMPLATE =
    "{\"granularity\" : \"\", \"num_counters\" : 0, \"num_counter_sets\" : 0, \"counters\" : []}";

obx_counter_group_t* obx_counter_group_from_provider(obx_counters_provider_t* provider,
                                                     const obx_counter_group_info_t* group_info)
{
    if (!provider || !provider->create_group || !group_info) {
        OBX_LOG_ERR("Cannot create counter group: no provider or no group description");
        return nullptr;
    }
    obx_counter_group_t* group = provider->create_group(group_info);
    if (!group) {
        OBX_LOG_ERR("Provider '%s' failed to create counter group #%u", provider->name ? provider->name : "",
                    group_info->id);
        return nullptr;
    }
    group->provider = provider;
    group->group_info = group_info;
    group->provider_data = provider->provider_data;
    group->id = group_info->id;
    group->name = group_info->name ? strdup(group_info->name) : nullptr;
    group->provider_name = provider->name ? strdup(provider->name) : nullptr;
    return group;
}

bool obx_counter_group_add_counter(obx_counter_group_t* group, const obx_counter_info_t* counter)
{
    if (!group || !counter)
        return false;
    const uint32_t old_count = group->num_counters;
    obx_counter_info_t** grown = static_cast<obx_counter_info_t**>(
        realloc(group->counters, (static_cast<size_t>(old_count) + 1) * sizeof(obx_counter_info_t*)));
    if (!grown) {
        OBX_LOG_ERR("Failed to allocate array of %d counter pointers", static_cast<int>(old_count + 1));
        return false;
    }
    group->counters = grown;
    group->counters[old_count] = nullptr;

    if (group->provider && group->provider->add_counter) {
        if (!group->provider->add_counter(group, counter))
            return false;
        // The copy goes into the slot the hook made room for; anything else would write
        // outside the array.
        if (group->num_counters != old_count + 1) {
            OBX_LOG_ERR("Provider '%s' left counter group with %u counters instead of %u",
                        group->provider->name ? group->provider->name : "", group->num_counters, old_count + 1);
            group->num_counters = old_count;
            return false;
        }
    } else {
        group->num_counters = old_count + 1;
    }

    obx_counter_info_t* copy = obx_counter_info_copy(counter);
    if (!copy) {
        OBX_LOG_ERR("Deep copy of the counter failed");
        group->num_counters = old_count;
        return false;
    }
    group->counters[old_count] = copy;
    return true;
}

intptr_t obx_counter_group_call_hook1(obx_counter_group_t* group, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3,
                                      uintptr_t arg4, uintptr_t arg5)
{
    if (!group || !group->provider || !group->provider->hook1)
        return 0;
    return group->provider->hook1(group, arg1, arg2, arg3, arg4, arg5);
}

intptr_t obx_counter_group_call_hook2(obx_counter_group_t* group, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3,
                                      uintptr_t arg4, uintptr_t arg5)
{
    (void)arg1;
    if (!group || !group->provider || !group->provider->hook2)
        return 0;
    return group->provider->hook2(group, 0, arg2, arg3, arg4, arg5);
}

void obx_counter_group_destroy(obx_counter_group_t* group)
{
    if (!group)
        return;
    for (uint32_t i = 0; i < group->num_counters; ++i) {
        obx_counter_info_t* counter = group->counters ? group->counters[i] : nullptr;
        if (!counter) {
            OBX_LOG_WARN("on %s, %s %d attempted to free NULL ptr", __FILE__, "obx_free_counter_group", __LINE__);
            continue;
        }
        obx_counter_info_destroy(counter);
        free(counter);
    }
    free(group->name);
    free(group->provider_name);
    free(group->counters);
    free(group);
}

json_t* obx_counter_group_to_json(const obx_counter_group_t* group)
{
    if (!group)
        return nullptr;
    json_t* object = json_object();
    if (!object)
        return nullptr;
    // An unknown granularity has no text; JSON refuses it and the key stays out.
    obx_json_object_set_string(object, "granularity", obx_counter_granularity_to_string(group->granularity));
    const char* name = group->name;
    if (!name && group->provider)
        name = group->provider->name;
    if (name)
        obx_json_object_set_string(object, "name", name);
    if (group->provider_name)
        obx_json_object_set_string(object, "provider", group->provider_name);
    obx_json_object_set_number(object, "num_counter_sets", group->num_counter_sets);
    obx_json_object_set_number(object, "num_counters", group->num_counters);

    json_t* counters = json_array();
    if (!counters) {
        json_decref(object);
        return nullptr;
    }
    for (uint32_t i = 0; i < group->num_counters; ++i) {
        json_t* counter = group->counters ? obx_counter_info_to_json(group->counters[i]) : nullptr;
        if (!counter || !obx_json_array_append(counters, counter)) {
            json_decref(counters);
            json_decref(object);
            return nullptr;
        }
    }
    if (!obx_json_object_set(object, "counters", counters)) {
        json_decref(object);
        return nullptr;
    }
    return object;
}

obx_counter_group_t* obx_counter_group_from_json(const json_t* value)
{
    if (!obx_counters_json_matches(value, GROUP_TEMPLATE))
        return nullptr;
    obx_counter_group_t* group = static_cast<obx_counter_group_t*>(calloc(1, sizeof(obx_counter_group_t)));
    if (!group)
        return nullptr;
    group->num_counter_sets = obx_counters_json_get_u32(value, "num_counter_sets");
    group->granularity = obx_counter_granularity_from_string(obx_json_object_get_string(value, "granularity"));
    const char* name = obx_json_object_get_string(value, "name");
    const char* provider = obx_json_object_get_string(value, "provider");
    if ((name && !(group->name = strdup(name))) || (provider && !(group->provider_name = strdup(provider)))) {
        obx_counter_group_destroy(group);
        return nullptr;
    }

    // "num_counters" in the file is not trusted: the array itself says how many there are.
    const json_t* counters = obx_json_object_get_array(value, "counters");
    const size_t count = json_array_size(counters);
    if (count > UINT32_MAX) {
        obx_counter_group_destroy(group);
        return nullptr;
    }
    if (count > 0) {
        group->counters = static_cast<obx_counter_info_t**>(calloc(count, sizeof(obx_counter_info_t*)));
        if (!group->counters) {
            obx_counter_group_destroy(group);
            return nullptr;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        obx_counter_info_t* counter = obx_counter_info_from_json(json_array_get(counters, i));
        if (!counter) {
            obx_counter_group_destroy(group);
            return nullptr;
        }
        group->counters[i] = counter;
        group->num_counters = static_cast<uint32_t>(i + 1);
    }
    return group;
}
