// Who writes: the host name and a port, as a 66-byte wire record.
#pragma once

#include <cstddef>
#include <cstdint>

#define OBX_CLIENT_HOST_NAME_SIZE 64u

struct obx_client_id_t {
    char host_name[OBX_CLIENT_HOST_NAME_SIZE];
    uint16_t port;  // left 0 by this system
};
static_assert(sizeof(obx_client_id_t) == 66, "client id is a 66-byte record");

// OBX_HOST_NAME when set (its first size - 1 characters, dots kept), else the system's
// host name cut at its first dot. `buffer`, or nullptr when the system call fails.
char* obx_get_host_name(char* buffer, size_t size);
// A new zeroed record with the host name filled in (free()); nullptr on failure.
obx_client_id_t* obx_client_id_create(void);
void obx_client_id_copy(obx_client_id_t* target, const obx_client_id_t* source);
void obx_client_id_print_layout(void);
