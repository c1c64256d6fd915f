// Renders one record by the value path and by the direct writer, in every text form;
// the two must give the same bytes, or both nothing.
#pragma once

#include <cstdlib>
#include <exception>
#include <string>

#include "data/schema/event_json.h"
#include "serializers/event_text_writer.h"
#include "serializers/influx_serializer.h"
#include "utils/json.h"

namespace obx_fuzz {

inline std::string value_text(const obx_type_definition_t* type, const uint8_t* record, obx_event_text_form_t form) {
    if (form == OBX_EVENT_TEXT_INFLUX_FAITHFUL) {
        try {
            obx::data::InfluxSerializer serializer;
            serializer.faithful = true;
            std::string result;
            for (const std::string& field : serializer.serializeFields(type, record, "")) result += (result.empty() ? "" : ",") + field;
            return result;
        } catch (const std::exception&) {
            return "<none>";
        }
    }
    if (form == OBX_EVENT_TEXT_INFLUX) {
        char* text = obx_influx_serialize_event(type, record);
        if (!text) return "<none>";
        std::string result(text);
        obx_influx_free_text(text);
        return result;
    }
    json_t* value = obx_event_to_json(type, record);
    if (!value) return "<none>";
    char* text = form == OBX_EVENT_TEXT_JSON_PRETTY ? obx_json_serialize_to_string_pretty(value)
                                                    : obx_json_serialize_to_string(value);
    json_decref(value);
    if (!text) std::abort();
    std::string result(text);
    obx_json_free_serialized_string(text);
    return result;
}

// `record` holds obx_type_definition_reach(type) bytes.
inline bool paths_agree(obx_event_text_writer_t* writer, const obx_type_definition_t* type, const uint8_t* record) {
    for (obx_event_text_form_t form :
         {OBX_EVENT_TEXT_JSON_PRETTY, OBX_EVENT_TEXT_JSON_PLAIN, OBX_EVENT_TEXT_INFLUX, OBX_EVENT_TEXT_INFLUX_FAITHFUL}) {
        const std::string expected = value_text(type, record, form);
        obx_event_text_writer_clear(writer);
        const bool ok = obx_event_text_writer_append_event(writer, form, type, record);
        const std::string got =
            ok ? std::string(obx_event_text_writer_data(writer), obx_event_text_writer_size(writer)) : "<none>";
        if (got != expected || (!ok && obx_event_text_writer_size(writer) != 0)) return false;
    }
    return true;
}

}  // namespace obx_fuzz
