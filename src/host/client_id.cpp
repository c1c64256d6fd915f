#include "host/client_id.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

char* obx_get_host_name(char* buffer, size_t size)
{
    if (!buffer || size == 0) return nullptr;
    const char* configured = getenv("OBX_HOST_NAME");
    if (configured) {
        std::snprintf(buffer, size, "%s", configured);
        return buffer;
    }
    if (gethostname(buffer, size) != 0) return nullptr;
    buffer[size - 1] = '\0';  // a cut name may come without its terminator
    char* dot = std::strchr(buffer, '.');
    if (dot) *dot = '\0';
    return buffer;
}

obx_client_id_t* obx_client_id_create(void)
{
    obx_client_id_t* id = static_cast<obx_client_id_t*>(calloc(1, sizeof(obx_client_id_t)));
    if (!id) return nullptr;
    if (!obx_get_host_name(id->host_name, sizeof(id->host_name))) {
        free(id);
        return nullptr;
    }
    return id;
}

void obx_client_id_copy(obx_client_id_t* target, const obx_client_id_t* source)
{
    std::memcpy(target, source, sizeof(*target));
}

void obx_client_id_print_layout(void)
{
    std::printf("Client identifier obx_client_id_t\n");
    std::printf("Field                 Offset    Size\n");
    std::printf(" %-25s  %-8lu  %-lu\n", "host_name", 0ul, static_cast<unsigned long>(OBX_CLIENT_HOST_NAME_SIZE));
    std::printf(" %-25s  %-8lu  %-lu\n", "port", static_cast<unsigned long>(OBX_CLIENT_HOST_NAME_SIZE), 2ul);
}
