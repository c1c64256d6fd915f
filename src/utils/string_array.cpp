#include "utils/string_array.h"

#include <fnmatch.h>
#include <stdio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "utils/logger.h"
#include "utils/text.h"

// "regexp" carries the value of "exact" on purpose: selecting it by name gives exact
// matching. Value 2 has no name, and a match in mode 2 finds nothing.
const obx_name_table_t obx_match_mode_names[] = {
    {OBX_MATCH_EXACT, "exact"},
    {OBX_MATCH_WILDCARD, "wildcard"},
    {OBX_MATCH_EXACT, "regexp"},
    {OBX_MATCH_CONTAINS, "contains"},
    {-1, nullptr},
};

namespace {

size_t block_size(uint64_t count) { return sizeof(obx_string_array_t) + count * sizeof(char*); }

int compare_texts(const void* first, const void* second) {
    return std::strcmp(*static_cast<char* const*>(first), *static_cast<char* const*>(second));
}

// Token bound of the comma list; a longer token is refused rather than cut.
constexpr size_t kCommaTokenSize = 1024;

}  // namespace

obx_string_array_t* obx_string_array_create(void) {
    return static_cast<obx_string_array_t*>(std::calloc(1, sizeof(obx_string_array_t)));
}

bool obx_string_array_append(obx_string_array_t** array, const char* text) {
    if (!array || !text) return false;
    if (!*array) {
        *array = obx_string_array_create();
        if (!*array) return false;
    }
    const uint64_t count = (*array)->count;
    auto* grown = static_cast<obx_string_array_t*>(std::realloc(*array, block_size(count + 1)));
    if (!grown) return false;
    *array = grown;
    char* copy = strdup(text);
    if (!copy) return false;
    grown->strings[count] = copy;
    grown->count = count + 1;
    return true;
}

void obx_string_array_destroy(obx_string_array_t* array) {
    if (!array) return;
    for (uint64_t i = 0; i < array->count; ++i) std::free(array->strings[i]);
    std::free(array);
}

void obx_string_array_log(uint32_t level, const obx_string_array_t* array, const char* label) {
    if (!array) return;
    for (uint64_t i = 0; i < array->count; ++i)
        OBX_LOG(level, "%s[%zu] = %s", label ? label : "", static_cast<size_t>(i), array->strings[i]);
}

bool obx_string_array_join(obx_string_array_t** array, const obx_string_array_t* other) {
    if (!array) return false;
    if (!other) return true;
    for (uint64_t i = 0; i < other->count; ++i) {
        if (!obx_string_array_append(array, other->strings[i])) {
            obx_string_array_destroy(*array);
            *array = nullptr;
            return false;
        }
    }
    return true;
}

obx_string_array_t* obx_string_array_from_comma_list(const char* text, size_t length) {
    if (!text && length > 0) {
        OBX_LOG_ERR("[%s] invalid input", __func__);
        return nullptr;
    }
    obx_string_array_t* array = obx_string_array_create();
    if (!array) {
        OBX_LOG_ERR("Unable to create string array");
        return nullptr;
    }
    char token[kCommaTokenSize];
    size_t used = 0;
    // All `length` bytes are scanned: a zero byte is taken into its token, which then
    // ends there when appended as a text.
    const size_t end = text ? length : 0;
    for (size_t i = 0; i <= end; ++i) {
        const bool at_end = i == end;
        if (!at_end && text[i] != ',') {
            if (used + 1 >= sizeof(token)) {
                OBX_LOG_ERR("Comma list element longer than %zu bytes", sizeof(token) - 1);
                obx_string_array_destroy(array);
                return nullptr;
            }
            token[used++] = text[i];
            continue;
        }
        if (used == 0) continue;  // runs of commas and commas at either end
        token[used] = '\0';
        used = 0;
        if (!obx_string_array_append(&array, token)) {
            OBX_LOG_ERR("Unable to append string");
            obx_string_array_destroy(array);
            return nullptr;
        }
    }
    return array;
}

bool obx_string_array_remove_duplicates(obx_string_array_t** array, bool is_sorted) {
    if (!array) return false;
    if (!*array || (*array)->count == 0) return true;
    if (!is_sorted) {
        OBX_LOG_ERR("[%s] not implemented", __func__);
        return false;
    }
    obx_string_array_t* list = *array;
    // Only neighbours are compared, so the list must be sorted for this to remove all repeats.
    uint64_t kept = 1;
    for (uint64_t i = 1; i < list->count; ++i) {
        if (std::strcmp(list->strings[i], list->strings[kept - 1]) == 0)
            std::free(list->strings[i]);
        else
            list->strings[kept++] = list->strings[i];
    }
    if (kept == list->count) return true;
    // The count is set first so that the block stays consistent if the shrink fails.
    list->count = kept;
    auto* shrunk = static_cast<obx_string_array_t*>(std::realloc(list, block_size(kept)));
    if (!shrunk) return false;
    *array = shrunk;
    return true;
}

bool obx_string_array_contains(const obx_string_array_t* array, const char* text) {
    if (!array || !text) return false;
    for (uint64_t i = 0; i < array->count; ++i)
        if (std::strcmp(array->strings[i], text) == 0) return true;
    return false;
}

bool obx_string_array_load_file(obx_string_array_t** array, const char* path, const char* label) {
    if (!array || !path) {
        OBX_LOG_ERR("[%s] invalid input", __func__);
        return false;
    }
    FILE* file = std::fopen(path, "r");
    if (!file) {
        OBX_LOG_INF("Failed to open %s file %s: %s", label ? label : "", path, std::strerror(errno));
        return false;
    }
    if (label) OBX_LOG_INF("Loading %s from %s", label, path);
    char* line = nullptr;
    size_t capacity = 0;
    bool ok = true;
    while (getline(&line, &capacity, file) >= 0) {
        const char* text = obx_str_trim(line);
        if (text[0] == '\0' || text[0] == '#') continue;
        if (!obx_string_array_append(array, text)) {
            ok = false;
            break;
        }
    }
    std::free(line);
    std::fclose(file);
    return ok;
}

bool obx_string_array_match(const char* name, const obx_string_array_t* array, int32_t mode) {
    if (!name || !array || array->count == 0) return false;
    if (mode != OBX_MATCH_EXACT && mode != OBX_MATCH_WILDCARD && mode != OBX_MATCH_CONTAINS) return false;
    for (uint64_t i = 0; i < array->count; ++i) {
        const char* element = array->strings[i];
        if (mode == OBX_MATCH_EXACT) {
            if (std::strcmp(element, name) == 0) return true;
        } else if (mode == OBX_MATCH_CONTAINS) {
            if (std::strstr(name, element)) return true;
        } else {
            if (fnmatch(element, name, FNM_CASEFOLD) == 0) return true;
            // "port" also selects the members "port.rx", "PORT.tx", ...
            char* extended = nullptr;
            if (asprintf(&extended, "%s.*", element) < 0) {
                OBX_LOG_ERR("Error: unable to allocate memory for wildcard string search");
                return false;
            }
            const bool hit = fnmatch(extended, name, FNM_CASEFOLD) == 0;
            std::free(extended);
            if (hit) return true;
        }
    }
    return false;
}

obx_string_array_t* obx_string_array_filter(const obx_string_array_t* names, const obx_string_array_t* patterns,
                                            int32_t mode, bool wanted) {
    if (!names) return nullptr;
    obx_string_array_t* result = obx_string_array_create();
    if (!result) return nullptr;
    for (uint64_t i = 0; i < names->count; ++i) {
        if (obx_string_array_match(names->strings[i], patterns, mode) != wanted) continue;
        if (!obx_string_array_append(&result, names->strings[i])) {
            obx_string_array_destroy(result);
            return nullptr;
        }
    }
    return result;
}

obx_string_array_t* obx_string_array_match_names(const obx_string_array_t* names,
                                                 const obx_string_array_t* includes,
                                                 const obx_string_array_t* excludes,
                                                 const obx_string_array_t* mandatory, int32_t mode) {
    if (!names) return nullptr;
    obx_string_array_t* included = obx_string_array_filter(names, includes, mode, true);
    if (!included) return nullptr;
    obx_string_array_t* selected = obx_string_array_filter(included, excludes, mode, false);
    obx_string_array_destroy(included);
    if (!selected) return nullptr;

    if (mandatory && mandatory->count > 0) {
        if (!obx_string_array_join(&selected, mandatory)) {
            OBX_LOG_ERR("could not join mandatory counters properly to names array");
            OBX_LOG_ERR("failed to match counter names");
            obx_string_array_destroy(selected);
            return nullptr;
        }
        std::qsort(selected->strings, selected->count, sizeof(char*), compare_texts);
        if (!obx_string_array_remove_duplicates(&selected, true)) {
            OBX_LOG_ERR("could not remove duplicates from string array");
            OBX_LOG_ERR("failed to match counter names");
            obx_string_array_destroy(selected);
            return nullptr;
        }
        return selected;
    }
    // Without mandatory names repeats in the input stay.
    std::qsort(selected->strings, selected->count, sizeof(char*), compare_texts);
    return selected;
}

const char* obx_match_mode_to_string(int32_t value) { return obx_enum_to_string(obx_match_mode_names, value); }

int32_t obx_match_mode_from_string(const char* text) { return obx_enum_from_string(obx_match_mode_names, text); }

bool obx_name_is_enabled(const char* name, const obx_string_array_t* enable_list,
                         const obx_string_array_t* disable_list) {
    const bool enabled = obx_string_array_match(name, enable_list, OBX_MATCH_WILDCARD) ||
                         obx_string_array_match(name, enable_list, OBX_MATCH_CONTAINS);
    if (!enabled) return false;
    if (obx_string_array_match(name, disable_list, OBX_MATCH_CONTAINS)) {
        OBX_LOG_WARN("'%s' will not run. specified in disable-provider and in enable-provider.", name);
        return false;
    }
    return true;
}

bool obx_name_is_enabled_by_config(const char* name, const obx_name_config_t* configuration) {
    if (!configuration || (!configuration->enable_list && !configuration->disable_list)) return true;
    const bool enabled = obx_string_array_match(name, configuration->enable_list, OBX_MATCH_WILDCARD);
    const bool disabled = obx_string_array_match(name, configuration->disable_list, OBX_MATCH_WILDCARD);
    if (enabled && disabled)
        OBX_LOG_WARN("'%s' will not run. specified in disable-provider and in enable-provider.", name);
    return enabled && !disabled;
}

bool obx_name_matches_component(const char* name, const obx_string_array_t* components) {
    if (!name || !components) return false;
    for (uint64_t i = 0; i < components->count; ++i) {
        const char* element = components->strings[i];
        const char* dot = std::strrchr(element, '.');
        if (!dot) continue;
        char* component = strndup(element, static_cast<size_t>(dot - element));
        if (!component) {
            OBX_LOG_ERR("Error: unable to allocate memory for component string search");
            return false;
        }
        const bool hit = std::strstr(name, component) != nullptr;
        std::free(component);
        if (hit) return true;
    }
    return false;
}
