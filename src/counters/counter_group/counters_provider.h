// The interface of a source of counters. The reader defines no provider: it keeps the
// pointer in the groups a provider made and forwards calls to it.
#pragma once

#include <cstdint>

struct obx_counter_group_t;
struct obx_counter_info_t;

// A provider's description of one of its groups.
struct obx_counter_group_info_t {
    uint32_t id;
    const char* name;
};

// The two free hooks take the group and five word-sized arguments whose meaning is the
// provider's own.
typedef intptr_t (*obx_counters_provider_hook_t)(obx_counter_group_t* group, uintptr_t arg1, uintptr_t arg2,
                                                 uintptr_t arg3, uintptr_t arg4, uintptr_t arg5);

struct obx_counters_provider_t {
    const char* name;
    // Makes the heap group record (malloc'd, freed by destroy_group) for `group_info`, with
    // no counters and with `name` and `provider_name` empty: the caller fills those.
    obx_counter_group_t* (*create_group)(const obx_counter_group_info_t* group_info);
    // Frees a group this provider made, counters included.
    void (*destroy_group)(obx_counter_group_t* group);
    // Accepts a counter into the group; raises the group's num_counters by one itself.
    bool (*add_counter)(obx_counter_group_t* group, const obx_counter_info_t* counter);
    obx_counters_provider_hook_t hook1;
    obx_counters_provider_hook_t hook2;
    uint64_t provider_data;
};
