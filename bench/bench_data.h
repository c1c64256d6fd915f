// What the benchmarks render, shared by the file generator and the micro-benchmarks: an
// event type like the ones collectors send (scalars of most widths, a float and a double
// with fractional values, a text field, a nested record), a counters schema of three
// groups, and value patterns with noise so that the data compresses as real data does.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "utils/json.h"

namespace obx_bench {

struct Random {
    uint64_t state = 0x9E3779B97F4A7C15ull;
    uint64_t next()
    {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    }
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() % bound); }
    double unit() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }
};

// Offsets of the fields of "port_event".
struct EventLayout {
    uint64_t size = 0;
    uint64_t timestamp = 0, node = 0, port = 0, state = 0, speed = 0, rx_bytes = 0, tx_bytes = 0, errors = 0,
             temperature = 0, utilization = 0, link_lid = 0, link_width = 0, link_active = 0, flags = 0;
};

// The built-in types and a schema "bench_collector" holding "link_info" (type 0) and
// "port_event" (type 1). `ok` is false when they could not be made.
class EventSchema {
public:
    EventSchema()
    {
        built_ins = obx_schema_create("<built-in>", 1281);
        schema = obx_schema_create("bench_collector", 0x00010201);
        if (!built_ins || !schema || !obx_schema_register_built_in_types(built_ins)) return;
        schema->base_schema = built_ins;
        auto info = [](const char* name, const char* type_name, uint16_t length = 1) {
            return obx_type_field_info_t{name, "", type_name, 0, length};
        };
        const std::vector<obx_type_field_info_t> link = {info("lid", "uint16_t"), info("width", "uint8_t"),
                                                         info("active", "bool")};
        const std::vector<obx_type_field_info_t> port = {
            info("timestamp", "timestamp"), info("node", "char", 16),       info("port", "uint16_t"),
            info("state", "uint8_t"),       info("speed_mbps", "uint32_t"), info("rx_bytes", "uint64_t"),
            info("tx_bytes", "uint64_t"),   info("errors", "int32_t"),      info("temperature", "float"),
            info("utilization", "double"),  info("link", "link_info"),      info("flags", "bool")};
        if (obx_schema_add_type(schema, "link_info", link.data(), link.size(), nullptr) != OBX_SCHEMA_OK ||
            obx_schema_add_type(schema, "port_event", port.data(), port.size(), nullptr) != OBX_SCHEMA_OK)
            return;
        type = obx_schema_find_type(schema, "port_event");
        uint64_t* offsets[] = {&layout.timestamp,   &layout.node,        &layout.port,     &layout.state,
                               &layout.speed,       &layout.rx_bytes,    &layout.tx_bytes, &layout.errors,
                               &layout.temperature, &layout.utilization, &layout.link_lid, &layout.flags};
        for (uint16_t i = 0; i < type->num_fields; ++i) *offsets[i] = type->fields[i]->offset;
        layout.link_width = layout.link_lid + 2;
        layout.link_active = layout.link_lid + 3;
        layout.size = type->size;
        ok = true;
    }
    ~EventSchema()
    {
        obx_schema_destroy(schema);
        obx_schema_destroy(built_ins);
    }
    EventSchema(const EventSchema&) = delete;
    EventSchema& operator=(const EventSchema&) = delete;

    obx_schema_t* built_ins = nullptr;
    obx_schema_t* schema = nullptr;
    const obx_type_definition_t* type = nullptr;
    EventLayout layout;
    bool ok = false;
};

// One event of port `port` at `time`: counters grow with `sequence`, the rest wanders.
inline void fill_event(uint8_t* event, const EventLayout& layout, Random& random, uint64_t time, uint32_t port,
                       uint64_t sequence)
{
    std::memset(event, 0, layout.size);
    obx_put_u64(event + layout.timestamp, time);
    char node[17];
    std::snprintf(node, sizeof node, "node-%04u", port / 16);
    std::memcpy(event + layout.node, node, std::strlen(node));
    obx_put_u16(event + layout.port, static_cast<uint16_t>(port % 64 + 1));
    obx_put_u8(event + layout.state, static_cast<uint8_t>(random.below(100) < 95 ? 4 : random.below(5)));
    static const uint32_t speeds[] = {10000, 25000, 100000, 200000};
    obx_put_u32(event + layout.speed, speeds[port % 4]);
    obx_put_u64(event + layout.rx_bytes, sequence * 1048576 + random.below(1048576));
    obx_put_u64(event + layout.tx_bytes, sequence * 917504 + random.below(917504));
    obx_put_u32(event + layout.errors, random.below(50) == 0 ? random.below(20) : 0);
    const float temperature = 35.0f + static_cast<float>(random.unit() * 30.0);
    std::memcpy(event + layout.temperature, &temperature, 4);
    const double utilization = random.unit();
    std::memcpy(event + layout.utilization, &utilization, 8);
    obx_put_u16(event + layout.link_lid, static_cast<uint16_t>(port + 1));
    obx_put_u8(event + layout.link_width, static_cast<uint8_t>(1u << (port % 4)));
    obx_put_u8(event + layout.link_active, 1);
    obx_put_u8(event + layout.flags, static_cast<uint8_t>(random.below(2)));
}

inline json_t* counter_json(const std::string& name, const char* data_type, uint32_t length, const char* counting)
{
    json_t* counter = json_object();
    obx_json_object_set_string(counter, "name", name.c_str());
    obx_json_object_set_string(counter, "description", "benchmark counter");
    obx_json_object_set_string(counter, "units", "count");
    obx_json_object_set_string(counter, "data_type", data_type);
    obx_json_object_set_number(counter, "length", length);
    obx_json_object_set_number(counter, "offset", 0);
    obx_json_object_set_number(counter, "hidden", 0);
    obx_json_object_set_number(counter, "mandatory", 0);
    obx_json_object_set_string(counter, "counting_type", counting);
    return counter;
}

inline json_t* group_json(const char* granularity, const char* name, int sets, int count, Random& random)
{
    static const char* const types[] = {"UINT64", "UINT64", "UINT64", "INT64", "FP64", "BIT64"};
    json_t* group = json_object();
    obx_json_object_set_string(group, "granularity", granularity);
    obx_json_object_set_string(group, "name", name);
    obx_json_object_set_string(group, "provider", "bench");
    obx_json_object_set_number(group, "num_counter_sets", sets);
    obx_json_object_set_number(group, "num_counters", count);
    json_t* counters = json_array();
    for (int i = 0; i < count; ++i) {
        char counter_name[64];
        std::snprintf(counter_name, sizeof counter_name, "%s_%03d", name, i);
        obx_json_array_append(counters, counter_json(counter_name, types[random.below(6)], 0, "RUNNING_SUM"));
    }
    obx_json_object_set(group, "counters", counters);
    return group;
}

// The counters schema document: a node group of 120 numbers and a text, 8 CPU sets of 16
// and 2 package sets of 10. The caller frees it.
inline json_t* counters_schema_json()
{
    Random random;
    json_t* root = json_object();
    obx_json_object_set_string(root, "title", OBX_COUNTERS_SCHEMA_TITLE);
    obx_json_object_set_string(root, "version", OBX_COUNTERS_SCHEMA_VERSION);
    json_t* groups = json_array();
    json_t* node = group_json("NODE", "node", 1, 120, random);
    obx_json_array_append(obx_json_object_get_array(node, "counters"),
                          counter_json("host_name", "STRING", 16, "ABSOLUTE"));
    obx_json_object_set_number(node, "num_counters", 121);
    obx_json_array_append(groups, node);
    obx_json_array_append(groups, group_json("CPU", "cpu", 8, 16, random));
    obx_json_array_append(groups, group_json("PACKAGE", "package", 2, 10, random));
    obx_json_object_set(root, "counter_groups", groups);
    return root;
}

// Values of block number `sequence` at `values`, each at its counter's offset.
inline void fill_counters(uint8_t* values, const obx_counters_schema_t* schema, uint64_t sequence, Random& random)
{
    for (uint32_t g = 0; g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        for (uint32_t c = 0; c < group->num_counters; ++c) {
            const obx_counter_info_t* counter = group->counters[c];
            uint8_t* value = values + counter->offset;
            switch (counter->data_type) {
            case OBX_COUNTER_DATA_TYPE_FP64: {
                const double reading = 100.0 * random.unit();
                std::memcpy(value, &reading, 8);
                break;
            }
            case OBX_COUNTER_DATA_TYPE_STRING: std::memcpy(value, "bench-host-01", 13); break;
            case OBX_COUNTER_DATA_TYPE_BIT64: obx_put_u64(value, random.next() & 0xff00ff); break;
            default: obx_put_u64(value, sequence * (c + 1) * 1000 + random.below(1000)); break;
            }
        }
    }
}

}  // namespace obx_bench
