#include "serializers/influx_serializer.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "data/format/data_file_format.h"
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
    (void)tags;
    (void)page;
    (void)type_system;
    return {};
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
        if (type->id != OBX_TYPE_COMPOSITE) return {name + "=" + renderScalar(type->id, value)};
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
    std::string text = dotted_name(prefix, field->field_name);
    text += "=\"";
    text.append(reinterpret_cast<const char*>(value), used);
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
        const std::string value = escape(tag.second, key_escapes);
        const std::string key = escape(tag.first, key_escapes);
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
