// A group of counters: a name, a granularity, the number of counter sets and the counters
// of one set. Groups are owned by their counters schema.
#pragma once

#include <cstdint>

#include "counters/counter_group/counter_info.h"
#include "counters/counter_group/counters_provider.h"
#include "utils/json.h"

struct obx_counter_group_t {
    uint32_t id;
    obx_counters_provider_t* provider;           // not owned; nullptr for a decoded group
    const obx_counter_group_info_t* group_info;  // not owned
    int32_t granularity;                         // obx_counter_granularity_t, or -1 when unknown
    uint32_t num_counter_sets;
    uint32_t num_counters;
    obx_counter_info_t** counters;
    char* name;            // may be nullptr
    char* provider_name;   // may be nullptr
    uint64_t provider_data;
};

// Asks the provider to make the group, then records the provider and copies of the names.
obx_counter_group_t* obx_counter_group_from_provider(obx_counters_provider_t* provider,
                                                     const obx_counter_group_info_t* group_info);
// Appends a deep copy of `counter`. False on failure, the group then as it was.
bool obx_counter_group_add_counter(obx_counter_group_t* group, const obx_counter_info_t* counter);
// Forwarded to the provider's hooks; 0 without a provider or hook. The second call passes
// 0 in place of `arg1`.
intptr_t obx_counter_group_call_hook1(obx_counter_group_t* group, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3,
                                      uintptr_t arg4, uintptr_t arg5);
intptr_t obx_counter_group_call_hook2(obx_counter_group_t* group, uintptr_t arg1, uintptr_t arg2, uintptr_t arg3,
                                      uintptr_t arg4, uintptr_t arg5);
// Frees the counters, the texts, the array and the group. Accepts nullptr.
void obx_counter_group_destroy(obx_counter_group_t* group);

// The group's JSON object; nullptr when it or one of its counters cannot be made.
json_t* obx_counter_group_to_json(const obx_counter_group_t* group);
// A new group from its JSON object; nullptr when the object or any counter does not qualify.
obx_counter_group_t* obx_counter_group_from_json(const json_t* value);
