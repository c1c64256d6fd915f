#include "data/schema/event_json.h"

#include <cctype>
#include <cstdlib>

#include "data/format/data_file_format.h"
#include "data/schema/built_in_types.h"
#include "data/schema/type_definition.h"
#include "utils/json.h"
#include "utils/logger.h"

namespace {

// A char or unsigned char array: the bytes up to the first one that the locale does
// not call printable (a zero, a control character, in most locales anything above
// 127), as a JSON string.
json_t* text_field_to_json(const obx_type_field_definition_t* field, const uint8_t* data)
{
    const size_t length = field->array_length;
    char* text = static_cast<char*>(std::malloc(length + 1));
    if (!text) return nullptr;
    size_t used = 0;
    while (used < length && std::isprint(static_cast<signed char>(data[used]))) {
        text[used] = static_cast<char>(data[used]);
        ++used;
    }
    text[used] = '\0';
    text[length] = '\0';
    json_t* value = obx_json_string(text);
    std::free(text);
    if (!value) {
        OBX_LOG_ERR("Failed to serialize field %s of type %s[%u] as string",
                    field->field_name ? field->field_name : "(null)",
                    field->type_name ? field->type_name : "", static_cast<unsigned>(field->array_length));
    }
    return value;
}

}  // namespace

json_t* obx_built_in_value_to_json(uint32_t id, const uint8_t* data)
{
    if (!data) return nullptr;
    double number;
    switch (id) {
    case OBX_TYPE_BOOL:
    case OBX_TYPE_UNSIGNED_CHAR:
    case OBX_TYPE_UINT8: number = obx_le_u8(data); break;
    case OBX_TYPE_CHAR:
    case OBX_TYPE_INT8: number = obx_le_i8(data); break;
    case OBX_TYPE_SHORT:
    case OBX_TYPE_INT16: number = obx_le_i16(data); break;
    case OBX_TYPE_INT:
    case OBX_TYPE_INT32: number = obx_le_i32(data); break;
    case OBX_TYPE_LONG:
    case OBX_TYPE_LONG_LONG:
    case OBX_TYPE_INT64: number = static_cast<double>(obx_le_i64(data)); break;
    case OBX_TYPE_UNSIGNED_SHORT:
    case OBX_TYPE_UINT16: number = obx_le_u16(data); break;
    case OBX_TYPE_UNSIGNED_INT:
    case OBX_TYPE_UINT32: number = obx_le_u32(data); break;
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UNSIGNED_LONG_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP: number = static_cast<double>(obx_le_u64(data)); break;
    case OBX_TYPE_FLOAT: number = obx_le_f32(data); break;
    case OBX_TYPE_DOUBLE: number = obx_le_f64(data); break;
    default: return nullptr;
    }
    return obx_json_number(number);  // nullptr for NaN and the infinities
}

json_t* obx_element_to_json(const obx_type_field_definition_t* field, const uint8_t* data)
{
    // A field whose type was never resolved has no meaning; it fails like a bad value.
    if (!field || !field->type) return nullptr;
    if (field->type->id == OBX_TYPE_COMPOSITE) return obx_event_to_json(field->type, data);
    return obx_built_in_value_to_json(field->type->id, data);
}

json_t* obx_field_value_to_json(const obx_type_field_definition_t* field, const uint8_t* data)
{
    if (!field || !field->type) return nullptr;
    if (field->array_length == 1) return obx_element_to_json(field, data);
    const uint32_t id = field->type->id;
    if (id == OBX_TYPE_CHAR || id == OBX_TYPE_UNSIGNED_CHAR) return text_field_to_json(field, data);

    json_t* array = json_array();
    if (!array) return nullptr;
    for (uint32_t i = 0; i < field->array_length; ++i) {
        if (!obx_json_array_append(array, obx_element_to_json(field, data + i * field->type_size))) {
            json_decref(array);
            return nullptr;
        }
    }
    return array;
}

json_t* obx_event_to_json(const obx_type_definition_t* type, const uint8_t* record)
{
    if (!type || !record) return nullptr;
    json_t* object = json_object();
    if (!object) return nullptr;
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        const obx_type_field_definition_t* field = type->fields ? type->fields[i] : nullptr;
        json_t* value = field ? obx_field_value_to_json(field, record + field->offset) : nullptr;
        // The setter takes the value also when it refuses the key.
        if (!value || !obx_json_object_set(object, field->field_name, value)) {
            json_decref(object);
            return nullptr;
        }
    }
    return object;
}
