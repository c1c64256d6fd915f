#include "tools/file_sort.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cstring>
#include <string>
#include <vector>

#include "utils/logger.h"

const obx_name_table_t obx_sort_key_names[] = {
    {OBX_SORT_KEY_SOURCE_ID, "source_id"},
    {OBX_SORT_KEY_SOURCE_TAG, "source_tag"},
    {OBX_SORT_KEY_FIRST_TIMESTAMP, "first_timestamp"},
    {0, nullptr},
};

void obx_sort_spec_set_default(obx_sort_spec_t* order)
{
    order->keys[0] = OBX_SORT_KEY_FIRST_TIMESTAMP;
    order->keys[1] = OBX_SORT_KEY_SOURCE_ID;
    order->keys[2] = OBX_SORT_KEY_SOURCE_TAG;
    order->num_keys = 3;
}

bool obx_sort_spec_parse(const char* text, obx_sort_spec_t* order)
{
    if (!text || !order) return false;
    std::vector<std::string> tokens;
    boost::algorithm::split(tokens, std::string(text), boost::algorithm::is_any_of(","));
    for (std::string& token : tokens) boost::algorithm::trim(token);
    tokens.erase(std::remove(tokens.begin(), tokens.end(), std::string()), tokens.end());

    order->num_keys = 0;
    if (tokens.empty()) return false;
    for (const std::string& token : tokens) {
        const int32_t key = obx_enum_from_string(obx_sort_key_names, token.c_str());
        if (key < 0) {
            OBX_LOG_ERR("[sort] Unknown sort key: '%s'", token.c_str());
            return false;
        }
        order->keys[order->num_keys++] = static_cast<uint32_t>(key);
        if (order->num_keys == OBX_SORT_MAX_KEYS) break;
    }
    return true;
}

void obx_sort_spec_choose(const char* text, obx_sort_spec_t* order)
{
    if (!text || text[0] == '\0') {
        OBX_LOG_INF("Sort order not specified. Using default.");
        obx_sort_spec_set_default(order);
    } else if (!obx_sort_spec_parse(text, order)) {
        OBX_LOG_WARN("Invalid sort order string '%s'. Using default.", text);
        obx_sort_spec_set_default(order);
    }
}

bool obx_file_entry_before(const obx_file_entry_t& a, const obx_file_entry_t& b, const obx_sort_spec_t& order)
{
    for (uint32_t i = 0; i < order.num_keys && i < OBX_SORT_MAX_KEYS; ++i) {
        switch (order.keys[i]) {
            case OBX_SORT_KEY_SOURCE_ID: {
                const int order = std::strcmp(a.source_id, b.source_id);
                if (order != 0) return order < 0;
                break;
            }
            case OBX_SORT_KEY_SOURCE_TAG: {
                const int order = std::strcmp(a.source_tag, b.source_tag);
                if (order != 0) return order < 0;
                break;
            }
            case OBX_SORT_KEY_FIRST_TIMESTAMP:
                if (a.first_timestamp != b.first_timestamp) return a.first_timestamp < b.first_timestamp;
                break;
            default:
                break;
        }
    }
    return false;
}

static void log_entries(const char* label, const std::vector<obx_file_entry_t>& entries)
{
    if (!obx_log_enabled(OBX_LOG_DEBUG)) return;
    for (const obx_file_entry_t& entry : entries)
        OBX_LOG_DBG("%s %s \xE2\x86\x92 source_id = %s | source_tag = %s | ts = %lu", label, entry.path,
                    entry.source_id, entry.source_tag, static_cast<unsigned long>(entry.first_timestamp));
}

void obx_file_entries_sort(obx_file_entry_t* entries, size_t count, const obx_sort_spec_t* order)
{
    std::vector<obx_file_entry_t> sorted(entries, entries + count);
    log_entries("before sort:", sorted);
    std::sort(sorted.begin(), sorted.end(),
              [order](const obx_file_entry_t& a, const obx_file_entry_t& b) { return obx_file_entry_before(a, b, *order); });
    std::copy(sorted.begin(), sorted.end(), entries);
    log_entries("after sort: ", sorted);
}
