#include "host/hca_info.h"

#include <glob.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "data/schema/schema_json.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/string_array.h"

static std::string g_sysfs_root = "/sys";

void obx_hca_info_set_sysfs_root(const char* root) { g_sysfs_root = root ? root : "/sys"; }

// Reads one GUID text: of a long read (a GID) the second half, then every fifth
// character (the group colons and the line end) dropped.
static void read_guid(const std::string& path, char out[OBX_ADAPTER_GUID_SIZE])
{
    FILE* file = std::fopen(path.c_str(), "r");
    if (!file) return;
    char buffer[40];
    const size_t got = std::fread(buffer, 1, sizeof(buffer), file);
    if (got == 0 && std::ferror(file)) {
        OBX_LOG_ERR("HCA info: failed to read file %s: %s", path.c_str(), std::strerror(errno));
        std::fclose(file);
        return;
    }
    std::fclose(file);
    const size_t skip = got >= 21 ? 20 : 0;
    size_t written = 0;
    for (size_t i = skip; i < got && written < OBX_ADAPTER_GUID_SIZE; ++i) {
        if ((i - skip) % 5 == 4) continue;
        out[written++] = buffer[i];
    }
}

int obx_hca_info_collect(obx_adapter_record_t* infos, int max_infos)
{
    obx_string_array_t* names = obx_string_array_create();
    if (!names) {
        OBX_LOG_ERR("HCA info: failed to allocate memory for HCA names array");
        return 0;
    }
    const std::string base = g_sysfs_root + "/class/infiniband";
    const std::string pattern = base + "/*";
    glob_t found;
    std::memset(&found, 0, sizeof(found));
    const int result = glob(pattern.c_str(), GLOB_ERR | GLOB_MARK, nullptr, &found);
    if (result == GLOB_ABORTED)
        OBX_LOG_ERR("HCA info: globing read failed: %s", std::strerror(errno));
    else if (result == GLOB_NOSPACE)
        OBX_LOG_ERR("HCA info: globing ran out of space");
    else if (result == GLOB_NOMATCH)
        OBX_LOG_WARN("HCA info: globing found no matches of '%s'", pattern.c_str());
    if (result == 0) {
        for (size_t i = 0; i < found.gl_pathc; ++i) {
            std::string entry = found.gl_pathv[i];
            if (!entry.empty() && entry.back() == '/') entry.pop_back();
            obx_string_array_append(&names, entry.substr(entry.rfind('/') + 1).c_str());
        }
    }
    globfree(&found);

    size_t count = names->count;
    if (max_infos < 0) max_infos = 0;
    if (count > static_cast<size_t>(max_infos)) {
        OBX_LOG_WARN("HCA info: %zu of %zu found HCAs will not fit array of %d elements",
                     count - static_cast<size_t>(max_infos), count, max_infos);
        count = static_cast<size_t>(max_infos);
    }
    for (size_t i = 0; i < count; ++i) {
        obx_adapter_record_t& record = infos[i];
        std::memset(&record, 0, sizeof(record));
        const char* name = names->strings[i];
        if (std::strlen(name) > OBX_ADAPTER_NAME_SIZE)
            OBX_LOG_WARN("HCA info: name %s does not fit %zu buffer", name, static_cast<size_t>(OBX_ADAPTER_NAME_SIZE));
        std::strncpy(record.name, name, OBX_ADAPTER_NAME_SIZE);
        const std::string folder = base + "/" + name;
        read_guid(folder + "/sys_image_guid", record.system_image_guid);
        read_guid(folder + "/node_guid", record.node_guid);
        read_guid(folder + "/ports/1/gids/0", record.port_1_guid);
        read_guid(folder + "/ports/2/gids/0", record.port_2_guid);
    }
    obx_string_array_destroy(names);
    return 0;
}

static int records_in_use(const obx_adapter_record_t* infos, int count)
{
    int used = 0;
    while (used < count && infos[used].name[0] != '\0') ++used;
    return used;
}

void obx_hca_info_print(FILE* stream, const obx_adapter_record_t* infos, int count)
{
    for (int i = 0; i < count; ++i) {
        const obx_adapter_record_t& r = infos[i];
        if (r.name[0] == '\0') continue;
        std::fprintf(stream, "info[%d].%-17s = %.*s\n", i, "hca_name", static_cast<int>(OBX_ADAPTER_NAME_SIZE), r.name);
        std::fprintf(stream, "info[%d].%-17s = %.*s\n", i, "node_guid", 16, r.node_guid);
        std::fprintf(stream, "info[%d].%-17s = %.*s\n", i, "system_image_guid", 16, r.system_image_guid);
        std::fprintf(stream, "info[%d].%-17s = %.*s\n", i, "port_1_guid", 16, r.port_1_guid);
        std::fprintf(stream, "info[%d].%-17s = %.*s\n", i, "port_2_guid", 16, r.port_2_guid);
    }
}

bool obx_hca_info_to_json_text(uint64_t timestamp, const obx_adapter_record_t* infos, int count, char** text,
                               size_t* length)
{
    json_t* object = json_object();
    if (!object) {
        OBX_LOG_ERR("HCA info: unable to allocate json value");
        return false;
    }
    if (timestamp && !obx_json_object_set_number(object, "timestamp", static_cast<double>(timestamp)))
        OBX_LOG_ERR("HCA info: unable to set 'timestamp' field");
    const int used = records_in_use(infos, count);
    for (int i = 0; i < used; ++i) {
        const obx_adapter_record_t& r = infos[i];
        const int name_length = static_cast<int>(strnlen(r.name, OBX_ADAPTER_NAME_SIZE));
        const struct {
            const char* key;
            const char* value;
        } fields[] = {{"node_guid", r.node_guid},
                      {"system_image_guid", r.system_image_guid},
                      {"port_1_guid", r.port_1_guid},
                      {"port_2_guid", r.port_2_guid}};
        for (const auto& field : fields) {
            if (field.value == r.port_2_guid && r.port_2_guid[0] == '\0') continue;
            char key[OBX_ADAPTER_NAME_SIZE + 32];
            std::snprintf(key, sizeof(key), "%.*s.%s", name_length, r.name, field.key);
            const std::string value(field.value, strnlen(field.value, OBX_ADAPTER_GUID_SIZE));
            if (!obx_json_object_dotset_string(object, key, value.c_str()))
                OBX_LOG_ERR("HCA info: unable to set '%s' field", key);
        }
    }
    char* serialized = obx_json_serialize_to_string_pretty(object);
    json_decref(object);
    if (!serialized) {
        OBX_LOG_ERR("HCA info: unable serialize json to string");
        return false;
    }
    *text = serialized;
    *length = std::strlen(serialized);
    return true;
}

void obx_hca_info_md5(const obx_adapter_record_t* infos, int count, uint8_t digest[16])
{
    const int used = records_in_use(infos, count);
    obx_md5_compute(infos, static_cast<size_t>(used) * sizeof(obx_adapter_record_t), digest);
}

int obx_hca_port_without_smi(const char* hca_name, int port)
{
    if (std::strcmp(hca_name, "vzn4_0") == 0) return 0;
    const std::string path =
        g_sysfs_root + "/class/infiniband/" + hca_name + "/ports/" + std::to_string(port) + "/has_smi";
    struct stat info;
    if (stat(path.c_str(), &info) != 0) return 0;
    FILE* file = std::fopen(path.c_str(), "r");
    if (!file) {
        OBX_LOG_ERR("Failed to open has_smi file: %s with %s:%d", path.c_str(), hca_name, port);
        return -1;
    }
    const int first = std::fgetc(file);
    std::fclose(file);
    if (first == EOF) {
        OBX_LOG_ERR("Failed to read has_smi file: %s with %s:%d", path.c_str(), hca_name, port);
        return -1;
    }
    return first == '0' ? 1 : 0;
}

void obx_hex_dump(const void* data, size_t size, FILE* stream)
{
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    for (size_t line = 0; line < size; line += 16) {
        char hex[64];
        char text[17];
        size_t at = 0;
        size_t n = 0;
        for (; n < 16 && line + n < size; ++n) {
            at += static_cast<size_t>(std::snprintf(hex + at, sizeof(hex) - at, "%02X ", bytes[line + n]));
            if (n % 8 == 7) hex[at++] = ' ';
            const uint8_t c = bytes[line + n];
            text[n] = c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.';
        }
        text[n] = '\0';
        hex[at] = '\0';
        std::fprintf(stream, "%-50s|  %s \n", hex, text);
    }
}
