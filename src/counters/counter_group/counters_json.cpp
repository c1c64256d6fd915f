#include "counters/counter_group/counters_json.h"

#include "utils/logger.h"

bool obx_counters_json_matches(const json_t* value, const char* template_text)
{
    json_t* json_template = obx_json_parse_string(template_text);
    if (!json_template) {
        OBX_LOG_ERR("Unable to parse schema to JSON value: '%s'", template_text);
        return false;
    }
    bool matches = value && obx_json_validate(json_template, value);
    json_decref(json_template);
    if (!matches)
        OBX_LOG_ERR("JSON does not match schema '%s'", template_text);
    return matches;
}

uint32_t obx_counters_json_get_u32(const json_t* object, const char* key)
{
    double number = obx_json_object_get_number(object, key);
    // A plain cast of a negative or too large double is undefined; clamp first.
    if (!(number > 0.0))
        return 0;
    if (number >= 4294967295.0)
        return UINT32_MAX;
    return static_cast<uint32_t>(number);
}
