#include "serializers/influx_serializer.h"

#include <cctype>
#include <cmath>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counter_info.h"
#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "data/format/data_page_layout.h"
#include "data/schema/type_system.h"
#include "utils/logger.h"
#include "data/schema/built_in_types.h"
#include "data/schema/type_definition.h"

namespace obx {
namespace data {

namespace {

// Counter data types as the counters schema numbers them.
constexpr int32_t kCounterUint64 = 1;
constexpr int32_t kCounterFp64 = 2;
constexpr int32_t kCounterBit64 = 3;
constexpr int32_t kCounterString = 5;

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* pattern, ...)
{
    char buffer[512];  // "%f" of the largest double needs 317 bytes
    va_list args;
    va_start(args, pattern);
    const int length = std::vsnprintf(buffer, sizeof buffer, pattern, args);
    va_end(args);
    if (length < 0) throw std::runtime_error("influx: value cannot be formatted");
    return std::string(buffer, static_cast<size_t>(length) < sizeof buffer ? static_cast<size_t>(length)
                                                                           : sizeof buffer - 1);
}

// Scalar and text fields join the prefix with a dot; the top level has no prefix.
std::string dotted_name(const std::string& prefix, const char* field_name)
{
    if (prefix.empty()) return field_name;
    return prefix + "." + field_name;
}

// A field without a resolved type or without a name cannot be rendered at all.
const obx_type_definition_t* resolved_type(const obx_type_field_definition_t* field)
{
    if (!field || !field->type || !field->field_name) throw std::logic_error("influx: unusable field definition");
    return field->type;
}

}  // namespace

InfluxSerializer::InfluxSerializer()
    : measurement_escapes{" ", "=", ","}, key_escapes{" ", ","}, string_value_escapes{"\""}
{
}

std::vector<std::string> InfluxSerializer::serializePage(const SerializerTags& tags, const obx_data_page_t* page,
                                                         const obx_type_system_t* type_system)
{
    std::vector<std::string> lines;
    if (!page || !type_system) return lines;
    const uint8_t* base = reinterpret_cast<const uint8_t*>(page);
    const uint64_t end = page->filled_bytes < page->page_size ? page->filled_bytes : page->page_size;
    const obx_counters_schema_t* counters = type_system->counters_schema;
    uint64_t offset = OBX_DATA_PAGE_HEADER_SIZE;
    while (offset < end) {
        const uint8_t* block = base + offset;
        // A block letter needs four bytes; fewer left read as no block.
        const uint32_t type = end - offset >= OBX_MAGIC_SIZE ? obx_block_type_get(block) : OBX_UNKNOWN_BLOCK;
        if (type == OBX_EVENTS_BLOCK) {
            uint64_t consumed = 0;
            for (std::string& line : serializeEventBlock(tags, type_system, block, end - offset, consumed))
                lines.push_back(std::move(line));
            if (consumed == 0) {
                OBX_LOG_ERR("[influx] event block of an unknown type at byte %lu of the page: the rest of the page "
                            "is not read",
                            static_cast<unsigned long>(offset));
                break;
            }
            offset += consumed;
        } else if (type == OBX_COUNTERS_BLOCK) {
            const uint64_t size = OBX_COUNTERS_BLOCK_HEAD_SIZE + (counters ? counters->size_of_counters : 0);
            if (counters && end - offset >= size && end - offset >= OBX_COUNTERS_BLOCK_HEAD_SIZE + 8ull * obx_counters_schema_total_values(counters)) {
                for (const InfluxMeasurement& measurement : buildMeasurements(tags, page, counters))
                    if (!measurement.fields.empty()) lines.push_back(serializeMeasurement(measurement, block));
            }
            offset += size;
        } else if (type == OBX_SCHEMAS_BLOCK && end - offset >= OBX_SCHEMAS_BLOCK_COUNT) {
            // A size of 0 would hold the walk in place: step one byte instead.
            const uint16_t size = obx_le_u16(block + OBX_SCHEMAS_BLOCK_SIZE);
            offset += size ? size : 1;
        } else {
            offset += 1;
        }
    }
    return lines;
}

std::vector<std::string> InfluxSerializer::serializeEventBlock(const SerializerTags& tags,
                                                               const obx_type_system_t* type_system,
                                                               const uint8_t* block, uint64_t remaining,
                                                               uint64_t& consumed) const
{
    std::vector<std::string> lines;
    consumed = 0;
    if (remaining < OBX_EVENT_BLOCK_HEAD_SIZE) return lines;
    obx_event_block_head_t head;
    obx_event_block_head_read(block, &head);
    const obx_type_definition_t* type = obx_type_system_event_type(type_system, head.schema_index, head.type_index);
    if (!type) return lines;
    consumed = OBX_EVENT_BLOCK_HEAD_SIZE;
    const uint64_t size = type->size;
    if (head.num_events == 0 || remaining < size + OBX_EVENT_BLOCK_HEAD_SIZE) return lines;
    // A trusted layout may read past its record: an event whose reads pass the buffer
    // is dropped like one that does not fit.
    const uint64_t reach = obx_type_definition_reach(type);
    for (uint8_t i = 0; i < head.num_events && consumed + size <= remaining; ++i) {
        if (reach > remaining - consumed) {
            OBX_LOG_WARN("Event of type '%s' at offset %" PRIu64 " reads %" PRIu64 " bytes, its buffer holds %" PRIu64
                         " more; the rest of its block is left",
                         type->name ? type->name : "<unnamed>", consumed, reach, remaining - consumed);
            break;
        }
        lines.push_back(serializeEventLine(tags, type, block + consumed, head.timestamp));
        consumed += size;
    }
    return lines;
}

namespace {

// "0x" and the 16 stored characters of a GUID field.
std::string guid_text(const char (&guid)[OBX_ADAPTER_GUID_SIZE]) {
    return "0x" + std::string(guid, OBX_ADAPTER_GUID_SIZE);
}

// Prefixes are compared as texts that end at their first zero byte.
bool starts_with_prefix(const std::string& name, const std::string& prefix, size_t* length) {
    const size_t n = strnlen(prefix.c_str(), prefix.size());
    *length = n;
    return name.compare(0, n, prefix.c_str(), n) == 0;
}

}  // namespace

std::vector<InfluxMeasurement> InfluxSerializer::buildMeasurements(const SerializerTags& tags,
                                                                   const obx_data_page_t* page,
                                                                   const obx_counters_schema_t* counters_schema) const
{
    std::vector<InfluxMeasurement> adapters, ports, cpus;
    std::string node_guid, image_guid;
    for (const obx_adapter_record_t& record : page->adapters) {
        if (record.name[0] == '\0') continue;
        if (node_guid.empty()) {
            node_guid = guid_text(record.node_guid);
            image_guid = guid_text(record.system_image_guid);
        }
        const std::string name(record.name, OBX_ADAPTER_NAME_SIZE);  // padding zeros included
        InfluxMeasurement adapter{"hca_counters", tags, name + ":", {}};
        adapter.tags["hca_name"] = name;
        adapter.tags["node_guid"] = guid_text(record.node_guid);
        adapter.tags["system_image_guid"] = guid_text(record.system_image_guid);
        adapters.push_back(adapter);
        const struct {
            const char (*guid)[OBX_ADAPTER_GUID_SIZE];
            const char* number;
        } port_guids[] = {{&record.port_1_guid, "1"}, {&record.port_2_guid, "2"}};
        for (const auto& port_guid : port_guids) {
            if (port_guid.number[0] == '2' && record.port_2_guid[0] == '\0') continue;
            InfluxMeasurement port{"hca_port_counters", tags, name + ":" + port_guid.number + ":", {}};
            port.tags["hca_name"] = name;
            port.tags["node_guid"] = guid_text(record.node_guid);
            port.tags["port_num"] = port_guid.number;
            port.tags["port_guid"] = guid_text(*port_guid.guid);
            ports.push_back(port);
        }
    }
    auto with_guids = [&](const char* measurement) {
        InfluxMeasurement m{measurement, tags, "", {}};
        if (!node_guid.empty()) m.tags["node_guid"] = node_guid;
        if (!image_guid.empty()) m.tags["system_image_guid"] = image_guid;
        return m;
    };
    const uint32_t groups = counters_schema ? counters_schema->num_groups : 0;
    for (uint32_t g = 0; g < groups; ++g) {
        const obx_counter_group_t* group = counters_schema->groups[g];
        if (group->granularity != OBX_COUNTER_GRANULARITY_CPU) continue;
        for (uint32_t s = 0; s < group->num_counter_sets; ++s) {
            cpus.push_back(with_guids("cpu_counters"));
            cpus.back().tags["cpu_num"] = std::to_string(s);
        }
        break;
    }
    InfluxMeasurement node = with_guids("node_counters");

    uint64_t value_index = 0;
    for (uint32_t g = 0; g < groups; ++g) {
        const obx_counter_group_t* group = counters_schema->groups[g];
        if (group->granularity == OBX_COUNTER_GRANULARITY_CPU) {
            // Measurements were made for the first CPU group's sets; a set beyond them has none.
            for (uint32_t s = 0; s < group->num_counter_sets; ++s)
                for (uint32_t c = 0; c < group->num_counters; ++c, ++value_index)
                    if (s < cpus.size())
                        cpus[s].fields.push_back({group->counters[c]->name ? group->counters[c]->name : "", value_index,
                                                  group->counters[c]->data_type});
        } else if (group->granularity == OBX_COUNTER_GRANULARITY_NODE) {
            for (uint32_t c = 0; c < group->num_counters; ++c, ++value_index) {
                const obx_counter_info_t* counter = group->counters[c];
                const std::string name = counter->name ? counter->name : "";
                InfluxMeasurement* target = nullptr;
                std::string field = name;
                size_t length = 0;
                if (name.compare(0, 3, "vzn") == 0) {
                    for (InfluxMeasurement& port : ports)
                        if (starts_with_prefix(name, port.counter_prefix, &length)) {
                            target = &port;
                            break;
                        }
                    if (!target)
                        for (InfluxMeasurement& adapter : adapters)
                            if (starts_with_prefix(name, adapter.counter_prefix, &length) && length < name.size() &&
                                std::isalpha(static_cast<unsigned char>(name[length]))) {
                                target = &adapter;
                                break;
                            }
                    if (target) field = name.substr(length);
                }
                if (!target) target = &node;
                target->fields.push_back({field, value_index, counter->data_type});
            }
        } else {
            value_index += static_cast<uint64_t>(group->num_counter_sets) * group->num_counters;
        }
    }
    std::vector<InfluxMeasurement> result;
    result.push_back(node);
    result.insert(result.end(), cpus.begin(), cpus.end());
    result.insert(result.end(), ports.begin(), ports.end());
    result.insert(result.end(), adapters.begin(), adapters.end());
    return result;
}

std::string InfluxSerializer::serializeMeasurement(const InfluxMeasurement& measurement, const uint8_t* block) const
{
    std::string line = escape(measurement.name, measurement_escapes);
    const std::string tag_text = serializeTags(measurement.tags);
    if (!tag_text.empty()) line += "," + tag_text;
    std::string fields;
    for (const InfluxCounterField& field : measurement.fields) {
        const std::string text = counterText(block + OBX_COUNTERS_BLOCK_HEAD_SIZE + 8 * field.value_index, field.data_type);
        if (faithful && text.empty()) continue;
        if (!fields.empty()) fields += ",";
        fields += (faithful ? fieldKey(field.name) : escape(field.name, key_escapes)) + "=" + text;
    }
    line += " " + fields;
    line += " " + std::to_string(obx_le_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP) / 1000);
    return line;
}

std::vector<std::string> InfluxSerializer::serializeCountersByGroup(const SerializerTags& tags, const uint8_t* block,
                                                                    const obx_counters_schema_t* counters_schema) const
{
    std::vector<std::string> lines;
    if (!counters_schema) return lines;
    const std::string tag_text = serializeTags(tags);
    const std::string time = std::to_string(obx_le_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP) / 1000);
    const uint8_t* values = block + OBX_COUNTERS_BLOCK_HEAD_SIZE;
    for (uint32_t g = 0; g < counters_schema->num_groups; ++g) {
        const obx_counter_group_t* group = counters_schema->groups[g];
        const std::string measurement = escape(group->name ? group->name : "counters", measurement_escapes);
        const char* granularity = obx_counter_granularity_to_string(group->granularity);
        for (uint32_t s = 0; s < group->num_counter_sets; ++s) {
            std::string line = measurement + "," + tag_text;
            if (group->num_counter_sets >= 2)
                line += "," + escape(granularity ? granularity : "", key_escapes) + "=" + std::to_string(s);
            line += " ";
            for (uint32_t c = 0; c < group->num_counters; ++c) {
                if (c) line += ",";
                const obx_counter_info_t* counter = group->counters[c];
                line += escape(counter->name ? counter->name : "", key_escapes) + "=" +
                        renderCounterValue(values + 8 * c, counter->data_type);
            }
            line += " " + time;
            lines.push_back(line);
            values += 8ull * group->num_counters;
        }
    }
    return lines;
}

std::string InfluxSerializer::escape(const std::string& text, const std::vector<std::string>& escapes)
{
    std::string result = text;
    for (const std::string& entry : escapes) {
        if (entry.empty()) continue;
        size_t position = 0;
        while ((position = result.find(entry, position)) != std::string::npos) {
            result.insert(position, 1, '\\');
            position += entry.size() + 1;  // past the entry; what was put in is not looked at again
        }
    }
    return result;
}

std::string InfluxSerializer::renderScalar(uint32_t id, const uint8_t* value)
{
    switch (id) {
    case OBX_TYPE_BOOL: return obx_le_u8(value) ? "true" : "false";
    case OBX_TYPE_CHAR:
    case OBX_TYPE_INT8: return format("%di", static_cast<int>(obx_le_i8(value)));
    case OBX_TYPE_SHORT:
    case OBX_TYPE_INT16: return format("%di", static_cast<int>(obx_le_i16(value)));
    case OBX_TYPE_INT:
    case OBX_TYPE_INT32: return format("%di", static_cast<int>(obx_le_i32(value)));
    case OBX_TYPE_LONG:
    case OBX_TYPE_INT64: return format("%ldi", static_cast<long>(obx_le_i64(value)));
    case OBX_TYPE_LONG_LONG: return format("%lldi", static_cast<long long>(obx_le_i64(value)));
    case OBX_TYPE_UNSIGNED_CHAR:
    case OBX_TYPE_UINT8: return format("%di", static_cast<int>(obx_le_u8(value)));
    case OBX_TYPE_UNSIGNED_SHORT:
    case OBX_TYPE_UINT16: return format("%di", static_cast<int>(obx_le_u16(value)));
    case OBX_TYPE_UNSIGNED_INT:
    case OBX_TYPE_UINT32: return format("%ui", static_cast<unsigned>(obx_le_u32(value)));
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP: return format("%lui", static_cast<unsigned long>(obx_le_u64(value)));
    case OBX_TYPE_UNSIGNED_LONG_LONG: return format("%llui", static_cast<unsigned long long>(obx_le_u64(value)));
    case OBX_TYPE_FLOAT: return format("%f", static_cast<double>(obx_le_f32(value)));
    case OBX_TYPE_DOUBLE: return format("%f", obx_le_f64(value));
    default: throw std::logic_error("influx: no built-in type " + std::to_string(id));
    }
}

std::string InfluxSerializer::renderCounterValue(const uint8_t* value, int32_t data_type)
{
    switch (data_type) {
    case kCounterUint64:
    case kCounterBit64: return format("%lui", static_cast<unsigned long>(obx_le_u64(value)));
    case kCounterFp64: return format("%f", obx_le_f64(value));
    case kCounterString: {
        // The bytes of the pointer itself, up to the first zero: a string counter has no
        // value in this protocol, and what comes out is kept as it always was.
        char bytes[sizeof value + 1] = {0};
        std::memcpy(bytes, &value, sizeof value);
        return std::string(bytes);
    }
    default: return format("%ldi", static_cast<long>(obx_le_i64(value)));
    }
}

std::string InfluxSerializer::scalarText(uint32_t id, const uint8_t* value) const
{
    if (!faithful) return renderScalar(id, value);
    double real = 0;
    switch (id) {
    case OBX_TYPE_FLOAT: real = static_cast<double>(obx_le_f32(value)); break;
    case OBX_TYPE_DOUBLE: real = obx_le_f64(value); break;
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UNSIGNED_LONG_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP:
        // InfluxDB 1.x has signed integers only.
        if (obx_le_u64(value) > static_cast<uint64_t>(INT64_MAX)) return format("%.17g", static_cast<double>(obx_le_u64(value)));
        return renderScalar(id, value);
    default: return renderScalar(id, value);
    }
    return std::isfinite(real) ? format("%.17g", real) : std::string();
}

std::string InfluxSerializer::counterText(const uint8_t* value, int32_t data_type) const
{
    if (!faithful) return renderCounterValue(value, data_type);
    switch (data_type) {
    case kCounterFp64: {
        const double real = obx_le_f64(value);
        return std::isfinite(real) ? format("%.17g", real) : std::string();
    }
    case kCounterUint64:
    case kCounterBit64:
        if (obx_le_u64(value) > static_cast<uint64_t>(INT64_MAX)) return format("%.17g", static_cast<double>(obx_le_u64(value)));
        return renderCounterValue(value, data_type);
    case kCounterString: {
        size_t used = 0;
        while (used < 8 && std::isprint(static_cast<signed char>(value[used]))) ++used;
        return "\"" + escape(std::string(reinterpret_cast<const char*>(value), used), {"\\", "\""}) + "\"";
    }
    default: return renderCounterValue(value, data_type);
    }
}

std::string InfluxSerializer::fieldKey(const std::string& name) const
{
    if (!faithful) return name;
    if (name == "time") return "time_";  // InfluxDB keeps no field named time
    return escape(name, {" ", ",", "="});
}

std::vector<std::string> InfluxSerializer::serializeFields(const obx_type_definition_t* type, const uint8_t* record,
                                                           const std::string& prefix) const
{
    std::vector<std::string> result;
    if (!type || type->num_fields == 0) return result;
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        const obx_type_field_definition_t* field = type->fields ? type->fields[i] : nullptr;
        if (!field) throw std::logic_error("influx: missing field definition");
        std::vector<std::string> texts = serializeField(field, record + field->offset, prefix);
        for (std::string& text : texts) result.push_back(std::move(text));
    }
    return result;
}

std::vector<std::string> InfluxSerializer::serializeField(const obx_type_field_definition_t* field,
                                                          const uint8_t* value, const std::string& prefix) const
{
    const obx_type_definition_t* type = resolved_type(field);
    if (field->array_length == 1) {
        std::string name = dotted_name(prefix, field->field_name);
        if (type->id != OBX_TYPE_COMPOSITE) {
            const std::string text = scalarText(type->id, value);
            if (text.empty()) return {};
            return {fieldKey(name) + "=" + text};
        }
        return serializeFields(type, value, name);
    }
    if (type->id == OBX_TYPE_CHAR || type->id == OBX_TYPE_UNSIGNED_CHAR) return serializeTextField(field, value, prefix);
    return serializeArrayField(field, value, prefix);
}

std::vector<std::string> InfluxSerializer::serializeTextField(const obx_type_field_definition_t* field,
                                                              const uint8_t* value, const std::string& prefix) const
{
    resolved_type(field);
    size_t used = 0;
    while (used < field->array_length && std::isprint(static_cast<signed char>(value[used]))) ++used;
    std::string text = fieldKey(dotted_name(prefix, field->field_name));
    text += "=\"";
    const std::string content(reinterpret_cast<const char*>(value), used);
    text += faithful ? escape(content, {"\\", "\""}) : content;
    text += "\"";
    return {text};
}

std::vector<std::string> InfluxSerializer::serializeArrayField(const obx_type_field_definition_t* field,
                                                               const uint8_t* value, const std::string& prefix) const
{
    std::vector<std::string> result;
    const obx_type_definition_t* type = resolved_type(field);
    // No dot between the prefix and the field's name here, unlike scalars and texts.
    const std::string element_prefix = prefix + field->field_name + ".";
    if (faithful && type->id != OBX_TYPE_COMPOSITE) {
        for (uint32_t i = 0; i < field->array_length; ++i) {
            const std::string text = scalarText(type->id, value + i * field->type_size);
            if (!text.empty()) result.push_back(fieldKey(element_prefix + std::to_string(i)) + "=" + text);
        }
        return result;
    }
    for (uint32_t i = 0; i < field->array_length; ++i) {
        std::vector<std::string> texts =
            serializeFields(type, value + i * field->type_size, element_prefix + std::to_string(i));
        for (std::string& text : texts) result.push_back(std::move(text));
    }
    return result;
}

std::string InfluxSerializer::serializeTags(const SerializerTags& tags) const
{
    std::string result;
    for (const auto& tag : tags) {
        const std::string value = faithful ? fieldKey(tag.second) : escape(tag.second, key_escapes);
        const std::string key = faithful ? fieldKey(tag.first) : escape(tag.first, key_escapes);
        if (!result.empty()) result += ",";
        result += key + "=" + value;
    }
    return result;
}

std::string InfluxSerializer::serializeEventLine(const SerializerTags& tags, const obx_type_definition_t* type,
                                                 const uint8_t* record, uint64_t timestamp) const
{
    std::string line = escape(type && type->name ? type->name : "", measurement_escapes);
    const std::string tag_text = serializeTags(tags);
    if (!tag_text.empty()) line += "," + tag_text;
    line += " ";
    const std::vector<std::string> fields = serializeFields(type, record, "");
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) line += ",";
        line += fields[i];
    }
    line += " " + format("%lu", static_cast<unsigned long>(timestamp / 1000));
    return line;
}

}  // namespace data
}  // namespace obx

char* obx_influx_serialize_event(const obx_type_definition_t* type, const uint8_t* record)
{
    if (!type || !record) return nullptr;
    try {
        obx::data::InfluxSerializer serializer;
        const std::vector<std::string> fields = serializer.serializeFields(type, record, "");
        size_t length = 0;
        for (const std::string& text : fields) length += text.size() + 1;
        char* result = new char[length + 1];
        char* cursor = result;
        for (size_t i = 0; i < fields.size(); ++i) {
            if (i > 0) *cursor++ = ',';
            std::memcpy(cursor, fields[i].data(), fields[i].size());
            cursor += fields[i].size();
        }
        *cursor = '\0';
        return result;
    } catch (const std::exception&) {
        // Memory ran out or the type is unusable; the caller reports the event.
        return nullptr;
    }
}

void obx_influx_free_text(char* text) { delete[] text; }
