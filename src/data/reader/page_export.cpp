#include "data/reader/page_export.h"

#include <cstring>

#include "data/format/encoded_payload.h"
#include "data/reader/reader_context.h"
#include "data/writer/data_page.h"
#include "data/writer/data_writer.h"
#include "utils/logger.h"

bool obx_reader_page_prepare(obx_data_page_t** page, size_t size)
{
    if (*page && (*page)->page_size == size + OBX_DATA_PAGE_HEADER_SIZE) {
        (*page)->filled_bytes = OBX_DATA_PAGE_HEADER_SIZE;
        (*page)->last_timestamp = 0;
        return true;
    }
    obx_data_page_destroy(*page);
    obx_data_page_config_t config;
    std::memset(&config, 0, sizeof(config));
    config.page_type = OBX_DATA_PAGE_REGULAR;
    std::strcpy(config.name, "file-reader");
    *page = obx_data_page_create(0, size + OBX_DATA_PAGE_HEADER_SIZE, &config);
    return *page != nullptr;
}

bool obx_reader_page_write(obx_reader_context_t* context, const uint8_t* data, size_t size,
                           const uint8_t* encoded_header, size_t header_available, obx_data_page_t* page)
{
    const uint64_t free_space = page->page_size - page->filled_bytes;
    if (size > free_space) {
        OBX_LOG_ERR("Invalid allocated data page size %lu is smaller than available space %lu",
                    static_cast<unsigned long>(size), static_cast<unsigned long>(free_space));
        return false;
    }
    std::memcpy(reinterpret_cast<uint8_t*>(page) + page->filled_bytes, data, size);
    obx_data_page_consume_free_space(page, size);

    obx_encoded_header_t header;
    if (!obx_encoded_header_read(encoded_header, header_available, &header)) return false;
    // Id and tag lie back to back in the page header, as the source fields expect them.
    if (!obx_obxp_header_get_source(encoded_header, header_available,
                                    reinterpret_cast<char*>(page) + OBX_DP_SOURCE_ID))
        return false;
    page->first_timestamp = header.first_timestamp;
    page->last_timestamp = header.last_timestamp;
    return obx_data_writer_write_page(context->data_writer, page, context->type_system);
}
