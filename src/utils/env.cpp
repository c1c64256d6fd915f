#include "utils/env.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/logger.h"

static const char* const kTag = "obx_getenv";

const char* obx_getenv(const char* name) {
    const std::string prefixed = std::string("OBX_") + name;
    const char* prefixed_value = std::getenv(prefixed.c_str());
    const char* bare_value = std::getenv(name);
    if (prefixed_value && bare_value && std::strcmp(prefixed_value, bare_value) != 0) {
        OBX_LOG_WARN("[%s] Environment variables conflict - %s=%s and %s=%s. Using %s", kTag,
                     prefixed.c_str(), prefixed_value, name, bare_value, prefixed.c_str());
    }
    if (prefixed_value) {
        OBX_LOG_DBG("[%s] Using '%s'='%s'", kTag, prefixed.c_str(), prefixed_value);
        return prefixed_value;
    }
    if (bare_value) {
        OBX_LOG_DBG("[%s] Using '%s'='%s'", kTag, name, bare_value);
        return bare_value;
    }
    OBX_LOG_DBG("[%s] No value for '%s' or '%s'", kTag, prefixed.c_str(), name);
    return nullptr;
}

bool obx_env_value_is_true(const char* value) {
    if (!value || value[0] == '\0') return false;
    const int c = std::tolower(static_cast<unsigned char>(value[0]));
    return c == '1' || c == 't' || c == 'y';
}
