#include "serializers/json_output.h"

#include "utils/json.h"
#include "utils/logger.h"

json_t* obx_json_one_member_object(const std::string& key, json_t* value) {
    if (!value) return nullptr;
    // A key with a zero byte would be cut short in the text, so it is refused like a
    // key that is not UTF-8.
    json_t* object = key.find('\0') == std::string::npos ? json_object() : nullptr;
    if (!object) {
        json_decref(value);
        return nullptr;
    }
    if (!obx_json_object_set(object, key.c_str(), value)) {  // frees value
        json_decref(object);
        return nullptr;
    }
    return object;
}

json_t* obx_json_one_member_object(const std::string& key, const std::string& text) {
    return obx_json_one_member_object(key, obx_json_stringn(text.data(), text.size()));
}

void obx_json_print_record(const json_t* value, FILE* stream, bool is_first_record) {
    char* text = obx_json_serialize_to_string_pretty(value);
    if (!text) {
        OBX_LOG_WARN("Failed to serialize json.");
        return;
    }
    if (!is_first_record) std::fputs(",\n", stream);
    std::fputs(text, stream);
    obx_json_free_serialized_string(text);
}

void obx_json_print_line(const json_t* value, FILE* stream) {
    char* text = obx_json_serialize_to_string(value);
    if (!text) {
        OBX_LOG_WARN("Failed to serialize json.");
        return;
    }
    std::fprintf(stream, "%s\n", text);
    obx_json_free_serialized_string(text);
}

json_t* obx_labels_to_json_array(const std::unordered_map<std::string, std::string>& labels) {
    json_t* array = json_array();
    if (!array) return nullptr;
    for (const auto& label : labels) {
        json_t* object = obx_json_one_member_object(label.first, label.second);
        if (!object || !obx_json_array_append(array, object)) {
            OBX_LOG_ERR("Failed allocating JSON object");
            json_decref(array);
            return nullptr;
        }
    }
    return array;
}
