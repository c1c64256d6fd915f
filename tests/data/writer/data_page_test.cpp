#include "data/writer/data_page.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fixtures/log_capture.h"
#include "host/source.h"
#include "utils/logger.h"

namespace {

obx_data_page_config_t config_of(uint32_t type, int32_t id, const std::string& name) {
    obx_data_page_config_t config;
    std::memset(&config, 0, sizeof(config));
    config.page_type = type;
    config.page_id = id;
    std::snprintf(config.name, sizeof(config.name), "%s", name.c_str());
    return config;
}

// A name no other test run uses, so pages never meet across runs.
std::string unique_name(const char* what) { return std::string("obx_test_") + what + "_" + std::to_string(getpid()); }

bool shm_exists(const std::string& name) { return access(("/dev/shm/" + name).c_str(), F_OK) == 0; }

TEST(DataPage, CreateSizesAndRefusals) {
    struct Case {
        uint32_t block_size;
        size_t page_size;
        bool made;
        uint32_t stored_block_size;
        const char* error;
    } cases[] = {
        {0, 720, true, 0, nullptr},
        {0, 4096, true, 3376, nullptr},
        {100, 4096, true, 100, nullptr},
        {3376, 4096, true, 3376, nullptr},
        {3377, 4096, false, 0,
         "[data_page] Failed to allocate data page of size 4096 which is less then header size 720 + block size 3377"},
        {1, 720, false, 0,
         "[data_page] Failed to allocate data page of size 720 which is less then header size 720 + block size 1"},
        // Passes the unsigned test, yet cannot hold the header.
        {0, 100, false, 0, "[data_page] Failed to allocate data page of size 100: the header alone needs 720 bytes"},
    };
    for (const Case& c : cases) {
        obx_test::LogCapture log;
        const obx_data_page_config_t config = config_of(OBX_DATA_PAGE_REGULAR, 0, "regular");
        obx_data_page_t* page = obx_data_page_create(c.block_size, c.page_size, &config);
        ASSERT_EQ(page != nullptr, c.made) << c.page_size << " " << c.block_size;
        if (page) {
            EXPECT_EQ(page->version, 71169u);
            EXPECT_EQ(page->page_size, c.page_size);
            EXPECT_EQ(page->filled_bytes, 720u);
            EXPECT_EQ(page->block_size, c.stored_block_size);
            EXPECT_EQ(page->first_timestamp, 0u);
            EXPECT_EQ(page->creator_pid, 0);
            EXPECT_STREQ(page->config.name, "regular");
            EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
        } else {
            EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{c.error});
        }
        obx_data_page_destroy(page);
    }
}

TEST(DataPage, UnknownTypeIsRefusedAndNeverFreed) {
    obx_test::LogCapture log;
    const obx_data_page_config_t config = config_of(2, 0, "odd");
    EXPECT_EQ(obx_data_page_create(0, 1024, &config), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"[data_page] Data page allocation failed: Invalid argument"});

    // A page whose type changed after creation stays in memory, silently.
    log.clear();
    obx_data_page_t* page = static_cast<obx_data_page_t*>(calloc(1, 720));
    page->config.page_type = 9;
    obx_data_page_destroy(page);
    EXPECT_EQ(log.all(), "");
    free(page);  // still ours: a free inside destroy would make this a double free
    obx_data_page_destroy(nullptr);
}

TEST(DataPage, SharedNameIsCutTo59Characters) {
    const std::string base = unique_name("cut") + std::string(50, 'n');
    obx_data_page_config_t config = config_of(OBX_DATA_PAGE_SHARED, 123, base.substr(0, 50));
    void* address = nullptr;
    int32_t creator = 0;
    ASSERT_EQ(obx_data_page_create_shared(&config, 4096, &address, &creator), 0);
    const std::string expected = (base.substr(0, 50) + "_123").substr(0, 59);
    EXPECT_EQ(std::string(config.name), expected);
    EXPECT_EQ(creator, getpid());
    EXPECT_TRUE(shm_exists(expected));
    obx_data_page_unlink_shared(address, 4096, config.name);
    EXPECT_FALSE(shm_exists(expected));
}

TEST(DataPage, SharedPageBetweenTwoProcessesOnlyTheCreatorUnlinks) {
    const std::string base = unique_name("two");
    const std::string name = base + "_7";
    obx_test::LogCapture log(OBX_LOG_INFO);
    const obx_data_page_config_t config = config_of(OBX_DATA_PAGE_SHARED, 7, base);
    obx_data_page_t* page = obx_data_page_create(0, 8192, &config);
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->creator_pid, getpid());
    EXPECT_EQ(std::string(page->config.name), name);
    std::memcpy(page->source_id, "node-a", 7);
    std::memcpy(page->data(), "payload", 7);
    page->filled_bytes = 727;

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Opens the same memory by name: sees the parent's data, creator and source.
        obx_data_page_t* other = obx_data_page_create(100, 8192, &config);
        int code = 0;
        if (!other) code = 10;
        else if (other->creator_pid != getppid()) code = 11;
        else if (std::memcmp(other->data(), "payload", 7) != 0) code = 12;
        else if (std::strcmp(other->source_id, "node-a") != 0) code = 13;
        // Creation rewrites these header fields even in memory that was there.
        else if (other->block_size != 100 || other->filled_bytes != 720) code = 14;
        obx_data_page_destroy(other);
        if (code == 0 && !shm_exists(name)) code = 15;  // only the creator unlinks
        _exit(code);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(page->block_size, 100u);  // the child's creation step wrote the shared header
    EXPECT_TRUE(shm_exists(name));

    log.clear();
    void* address = page;
    obx_data_page_destroy(page);
    EXPECT_FALSE(shm_exists(name));
    char text[160];
    std::snprintf(text, sizeof(text), "Freeing shared-memory page: %p", address);
    EXPECT_TRUE(log.has(text)) << log.all();
    EXPECT_TRUE(log.has("| --> shm_unlink(" + name + ") ok")) << log.all();
    EXPECT_TRUE(log.has("| ----> ok")) << log.all();
}

TEST(DataPage, OpeningASmallerSharedObjectIsRefused) {
    const std::string base = unique_name("small");
    const obx_data_page_config_t config = config_of(OBX_DATA_PAGE_SHARED, 1, base);
    obx_data_page_t* page = obx_data_page_create(0, 1024, &config);
    ASSERT_NE(page, nullptr);
    {
        obx_test::LogCapture log;
        EXPECT_EQ(obx_data_page_create(0, 1 << 20, &config), nullptr);
        EXPECT_TRUE(log.has("[obx_allocate_shared_mem] shared memory " + base +
                            "_1 is smaller than the 1048576 bytes asked for"))
            << log.all();
    }
    obx_data_page_destroy(page);
    EXPECT_FALSE(shm_exists(base + "_1"));
}

TEST(DataPage, Timestamps) {
    const obx_data_page_config_t config = config_of(OBX_DATA_PAGE_REGULAR, 0, "t");
    obx_data_page_t* page = obx_data_page_create(0, 1024, &config);
    ASSERT_NE(page, nullptr);
    obx_test::LogCapture log;
    const char* local = "[data_page] going to return local timestamp rather than (correct) remote timestamp";
    for (int query = 0; query < 2; ++query) {  // every query of an unset time says so
        const uint64_t before = obx_data_page_time_now();
        const uint64_t got = obx_data_page_get_first_timestamp(page);
        EXPECT_GE(got, before);
        EXPECT_LE(got, obx_data_page_time_now());
    }
    EXPECT_EQ(log.at(OBX_LOG_ERROR), (std::vector<std::string>{local, local}));

    log.clear();
    page->first_timestamp = 1700000000000000ull;
    EXPECT_EQ(obx_data_page_get_first_timestamp(page), 1700000000000000ull);
    char text[160];
    std::snprintf(text, sizeof(text), "[data_page] page %p, first_timestamp = 1700000000000000", static_cast<void*>(page));
    EXPECT_EQ(log.at(OBX_LOG_DEBUG), std::vector<std::string>{text});
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty());

    obx_data_page_update_last_timestamp(page);
    obx_data_page_set_first_timestamp(page);
    EXPECT_GE(page->first_timestamp, page->last_timestamp);
    EXPECT_GT(page->last_timestamp, 1700000000000000ull);
    obx_data_page_set_first_timestamp(nullptr);
    obx_data_page_destroy(page);
}

TEST(DataPage, ConsumeFreeSpaceSaysWhenAlreadyOverfilled) {
    const obx_data_page_config_t config = config_of(OBX_DATA_PAGE_REGULAR, 0, "c");
    obx_data_page_t* page = obx_data_page_create(0, 1000, &config);
    ASSERT_NE(page, nullptr);
    obx_test::LogCapture log;
    obx_data_page_consume_free_space(page, 280);
    EXPECT_EQ(page->filled_bytes, 1000u);
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty());
    obx_data_page_consume_free_space(page, 1);  // at the page size: still quiet
    obx_data_page_consume_free_space(page, 1);
    EXPECT_EQ(page->filled_bytes, 1002u);
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              std::vector<std::string>{"obx_data_page_consume_free_space: page->filled_bytes > page->page_size  1001 1000 "});
    obx_data_page_destroy(page);
}

TEST(DataPage, BlobPage) {
    obx_source_t source;
    std::memset(&source, 0, sizeof(source));
    std::memcpy(source.source_id, "blob-host", 9);
    std::memcpy(source.source_tag, "tag16charactersX", 16);  // fills the field, no terminator
    const uint64_t before = obx_data_page_time_now();
    obx_data_page_t* page = obx_data_page_create_blob(&source, "hello", 5);
    ASSERT_NE(page, nullptr);
    EXPECT_EQ(page->page_size, 745u);
    EXPECT_EQ(page->filled_bytes, 720u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(page->schema_id), 16), "BLOB_DATA_SCHEMA");
    EXPECT_STREQ(page->source_id, "blob-host");
    EXPECT_EQ(std::string(page->source_tag, 16), "tag16charactersX");
    EXPECT_GE(page->first_timestamp, before);
    EXPECT_EQ(page->first_timestamp, page->last_timestamp);
    const uint8_t* block = page->data();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(block), 4), "OBXB");
    EXPECT_EQ(obx_le_u64(block + 4), page->first_timestamp);
    EXPECT_EQ(obx_le_u64(block + 12), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(block + 20), 5), "hello");
    EXPECT_TRUE(obx_data_page_is_blob(page));

    page->filled_bytes = 721;  // any data placed behind makes it an ordinary page
    EXPECT_FALSE(obx_data_page_is_blob(page));
    obx_data_page_mark_blob(page);
    EXPECT_TRUE(obx_data_page_is_blob(page));
    page->page_size = 739;  // below header plus blob head
    EXPECT_FALSE(obx_data_page_is_blob(page));
    page->page_size = 740;
    EXPECT_TRUE(obx_data_page_is_blob(page));
    obx_data_page_destroy(page);

    obx_data_page_t* empty = obx_data_page_create_blob(&source, nullptr, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->page_size, 740u);
    EXPECT_EQ(obx_le_u64(empty->data() + 12), 0u);
    obx_data_page_destroy(empty);
}

}  // namespace
