#include "data/writer/data_page.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "host/source.h"
#include "utils/logger.h"

static const char kSharedTag[] = "obx_allocate_shared_mem";
// Room of the "%s_%d" name before it is cut to fit the config's field.
static const size_t kSharedNameRoom = 119;

uint64_t obx_data_page_time_now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

int obx_allocate_shared_mem(const char* name, size_t size, void** out_address, int32_t* out_creator_pid)
{
    int fd = shm_open(name, O_RDWR, 0666);
    if (fd >= 0) {
        OBX_LOG_INF("shared memory was opened: %s", name);
        *out_creator_pid = -1;
        // Mapping past the end of a smaller object would fault on first touch.
        struct stat info;
        if (fstat(fd, &info) != 0 || static_cast<uint64_t>(info.st_size) < size) {
            OBX_LOG_ERR("[%s] shared memory %s is smaller than the %zu bytes asked for", kSharedTag, name, size);
            close(fd);
            return -1;
        }
    } else {
        fd = shm_open(name, O_RDWR | O_CREAT, 0666);
        if (fd < 0) {
            OBX_LOG_ERR("[%s] cannot create shared memory %s", kSharedTag, name);
            return -1;
        }
        if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
            OBX_LOG_ERR("[%s] Cannot ftruncate shared page %s.  Cleaning up this page", kSharedTag, name);
            shm_unlink(name);
            close(fd);
            return -1;
        }
        OBX_LOG_DBG("shared memory was created: %s", name);
        *out_creator_pid = static_cast<int32_t>(getpid());
    }
    void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    int result;
    if (address != nullptr) {
        OBX_LOG_INF("Allocating shared_page: %s of size: %lu ptr=%p", name, static_cast<unsigned long>(size), address);
        result = 0;
    } else {
        OBX_LOG_ERR("FAILED to allocate shared_page: %s of size: %lu ", name, static_cast<unsigned long>(size));
        result = -1;
    }
    close(fd);
    *out_address = address;
    return result;
}

int obx_data_page_create_shared(obx_data_page_config_t* config, size_t size, void** out_address,
                                int32_t* out_creator_pid)
{
    char name[kSharedNameRoom];
    std::snprintf(name, sizeof(name), "%.*s_%d", static_cast<int>(strnlen(config->name, sizeof(config->name))),
                  config->name, config->page_id);
    name[OBX_DATA_PAGE_NAME_SIZE - 1] = '\0';
    std::memcpy(config->name, name, OBX_DATA_PAGE_NAME_SIZE);
    OBX_LOG_DBG("Creating shared-mem named %s", config->name);
    return obx_allocate_shared_mem(config->name, size, out_address, out_creator_pid);
}

int obx_data_page_unmap_shared(void* page, size_t size, const char* name)
{
    OBX_LOG_INF("| unmapping shared memory: %s %p %zu", name, page, size);
    OBX_LOG_INF("| --> munmap (page=%p, size=%zu) ", page, size);
    if (munmap(page, size) != 0)
        OBX_LOG_ERR("| --> cannot unmap (%p, %zu)", page, size);
    else
        OBX_LOG_INF("| ----> ok");
    return 0;
}

int obx_data_page_unlink_shared(void* page, size_t size, const char* name)
{
    OBX_LOG_INF("| unlinking shared memory: %s %p %zu", name, page, size);
    if (shm_unlink(name) != 0)
        OBX_LOG_INF("| --> shm_unlink(%s) failed", name);
    else
        OBX_LOG_INF("| --> shm_unlink(%s) ok", name);
    return obx_data_page_unmap_shared(page, size, name);
}

obx_data_page_t* obx_data_page_create(uint32_t block_size, size_t page_size, const obx_data_page_config_t* config)
{
    // The unsigned difference lets a page_size below the header pass this test.
    if (block_size > page_size - OBX_DATA_PAGE_HEADER_SIZE) {
        OBX_LOG_ERR("[data_page] Failed to allocate data page of size %zu which is less then header size %zu + block "
                    "size %u",
                    page_size, static_cast<size_t>(OBX_DATA_PAGE_HEADER_SIZE), block_size);
        return nullptr;
    }
    // ...but the header is written whole, so such a page could not hold it.
    if (page_size < OBX_DATA_PAGE_HEADER_SIZE) {
        OBX_LOG_ERR("[data_page] Failed to allocate data page of size %zu: the header alone needs %zu bytes",
                    page_size, static_cast<size_t>(OBX_DATA_PAGE_HEADER_SIZE));
        return nullptr;
    }
    obx_data_page_config_t local;
    std::memcpy(&local, config, sizeof(local));

    obx_data_page_t* page = nullptr;
    if (local.page_type == OBX_DATA_PAGE_REGULAR) {
        page = static_cast<obx_data_page_t*>(calloc(1, page_size));
        OBX_LOG_DBG("Allocating regular_page: size: %lu ptr=%p", static_cast<unsigned long>(page_size),
                    static_cast<void*>(page));
    } else if (local.page_type == OBX_DATA_PAGE_SHARED) {
        void* address = nullptr;
        int32_t creator = -1;
        // A failed mmap gives MAP_FAILED, which the null test of the allocation lets through.
        if (obx_data_page_create_shared(&local, page_size, &address, &creator) == 0 && address != MAP_FAILED) {
            page = static_cast<obx_data_page_t*>(address);
            if (creator > 0) {
                std::memset(page, 0, OBX_DATA_PAGE_HEADER_SIZE);
                page->creator_pid = creator;
            }
        }
    } else {
        errno = EINVAL;
    }
    if (!page) {
        OBX_LOG_ERR("[data_page] Data page allocation failed: %s", std::strerror(errno));
        return nullptr;
    }
    page->version = OBX_DATA_PAGE_VERSION;
    page->page_size = page_size;
    std::memcpy(&page->config, &local, sizeof(local));
    page->block_size = block_size ? block_size : static_cast<uint32_t>(page_size - OBX_DATA_PAGE_HEADER_SIZE);
    page->filled_bytes = OBX_DATA_PAGE_HEADER_SIZE;
    page->last_timestamp = 0;
    return page;
}

void obx_data_page_destroy(obx_data_page_t* page)
{
    if (!page) return;
    if (page->config.page_type == OBX_DATA_PAGE_REGULAR) {
        free(page);
    } else if (page->config.page_type == OBX_DATA_PAGE_SHARED) {
        OBX_LOG_INF("Freeing shared-memory page: %p", static_cast<void*>(page));
        // The name lives in the page, which the unmap takes away.
        char name[OBX_DATA_PAGE_NAME_SIZE];
        std::memcpy(name, page->config.name, sizeof(name));
        name[sizeof(name) - 1] = '\0';
        const size_t size = page->page_size;
        const int result = page->creator_pid == static_cast<int32_t>(getpid())
                               ? obx_data_page_unlink_shared(page, size, name)
                               : obx_data_page_unmap_shared(page, size, name);
        if (result != 0) OBX_LOG_ERR("Problem freeing shared-memory page");
    }
}

uint64_t obx_data_page_get_first_timestamp(const obx_data_page_t* page)
{
    OBX_LOG_DBG("[data_page] page %p, first_timestamp = %lu", static_cast<const void*>(page),
                static_cast<unsigned long>(page->first_timestamp));
    if (page->first_timestamp) return page->first_timestamp;
    OBX_LOG_ERR("[data_page] going to return local timestamp rather than (correct) remote timestamp");
    return obx_data_page_time_now();
}

uint64_t obx_data_page_get_last_timestamp(const obx_data_page_t* page) { return page->last_timestamp; }

void obx_data_page_set_first_timestamp(obx_data_page_t* page)
{
    if (!page) return;
    page->first_timestamp = obx_data_page_time_now();
    OBX_LOG_DBG("[data_page] set first_ts = %lu for page %p", static_cast<unsigned long>(page->first_timestamp),
                static_cast<void*>(page));
}

void obx_data_page_update_last_timestamp(obx_data_page_t* page)
{
    if (!page) return;
    page->last_timestamp = obx_data_page_time_now();
    OBX_LOG_DBG("[data_page] update last_ts = %lu for page %p", static_cast<unsigned long>(page->last_timestamp),
                static_cast<void*>(page));
}

void obx_data_page_consume_free_space(obx_data_page_t* page, uint64_t size)
{
    if (page->filled_bytes > page->page_size)
        OBX_LOG_ERR("obx_data_page_consume_free_space: page->filled_bytes > page->page_size  %lu %lu ",
                    static_cast<unsigned long>(page->filled_bytes), static_cast<unsigned long>(page->page_size));
    page->filled_bytes += size;
}

void obx_data_page_mark_blob(obx_data_page_t* page)
{
    page->filled_bytes = OBX_DATA_PAGE_HEADER_SIZE;
    std::memcpy(page->schema_id, OBX_BLOB_DATA_SCHEMA, OBX_SCHEMA_ID_SIZE);
}

bool obx_data_page_is_blob(const obx_data_page_t* page)
{
    if (page->page_size < OBX_DATA_PAGE_MIN_BLOB_SIZE || page->filled_bytes != OBX_DATA_PAGE_HEADER_SIZE) return false;
    return std::memcmp(page->schema_id, OBX_BLOB_DATA_SCHEMA, OBX_SCHEMA_ID_SIZE) == 0;
}

obx_data_page_t* obx_data_page_create_blob(const obx_source_t* source, const void* data, size_t size)
{
    if (size > SIZE_MAX - OBX_DATA_PAGE_MIN_BLOB_SIZE) return nullptr;  // the page size would wrap
    obx_data_page_config_t config;
    std::memset(&config, 0, sizeof(config));
    config.page_type = OBX_DATA_PAGE_REGULAR;
    config.page_id = 0;
    std::strcpy(config.name, "blob_data_page");
    obx_data_page_t* page = obx_data_page_create(0, size + OBX_DATA_PAGE_MIN_BLOB_SIZE, &config);
    if (!page) return nullptr;
    std::memcpy(page->source_id, source->source_id, OBX_SOURCE_ID_SIZE);
    std::memcpy(page->source_tag, source->source_tag, OBX_SOURCE_TAG_SIZE);
    const uint64_t now = obx_data_page_time_now();
    page->first_timestamp = now;
    page->last_timestamp = now;
    obx_data_page_mark_blob(page);
    if (size + OBX_BLOB_BLOCK_HEAD_SIZE > page->page_size - page->filled_bytes) {
        obx_data_page_destroy(page);
        return nullptr;
    }
    uint8_t* block = reinterpret_cast<uint8_t*>(page) + page->filled_bytes;
    obx_blob_block_head_t head;
    std::memcpy(head.magic, "OBXB", OBX_MAGIC_SIZE);
    head.timestamp = now;
    head.data_size = size;
    obx_blob_block_head_write(block, &head);
    if (size) std::memcpy(block + OBX_BLOB_BLOCK_HEAD_SIZE, data, size);
    return page;
}
