#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "tools/read_options.h"
#include "utils/logger.h"

using obx_test::CountersSchemaDoc;
using obx_test::EventSchemaDoc;
using obx_test::LogCapture;
using obx_test::SchemaFolder;
using obx_test::SchemaId;

namespace {

// A context as the reader has it after reading a header: options with a schema folder,
// the header's ids, and whatever type system was there before.
class ReaderSchemas : public ::testing::Test {
protected:
    void SetUp() override
    {
        schema_path_ = folder_.path();
        options_.schema_path = &schema_path_[0];
        context_.options = &options_;
    }
    void TearDown() override { obx_type_system_destroy(context_.type_system); }

    void set_event_id(unsigned slot, const SchemaId& id)
    {
        memcpy(context_.header.event_schema_ids[slot], id.data(), 16);
    }
    void set_counters_id(const SchemaId& id) { memcpy(context_.header.counters_schema_id, id.data(), 16); }
    bool load()
    {
        return obx_reader_load_type_system(&context_, context_.header.event_schema_ids, OBX_EVENT_SCHEMA_SLOTS);
    }
    SchemaId add_event(const std::string& provider)
    {
        return folder_.add(EventSchemaDoc(provider).type("t", {{"v", "uint32_t"}}));
    }

    SchemaFolder folder_;
    std::string schema_path_;
    obx_read_options_t options_{};
    obx_reader_context_t context_{};
};

SchemaId missing_id()
{
    SchemaId id{};
    id.fill(0xab);
    return id;
}

}  // namespace

TEST_F(ReaderSchemas, FileNameIsFolderAndHexId)
{
    SchemaId id{};
    for (int i = 0; i < 16; ++i) id[i] = static_cast<uint8_t>(i * 17);
    char* name = obx_reader_schema_file_name(&context_, id.data());
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name), folder_.path() + "/schema_00112233445566778899aabbccddeeff.json");
    free(name);
    options_.schema_path = nullptr;
    EXPECT_EQ(obx_reader_schema_file_name(&context_, id.data()), nullptr);
}

TEST_F(ReaderSchemas, ZeroSlotsTakeNoPosition)
{
    const struct {
        const char* label;
        std::vector<int> slots;  // header slot of each provider, in provider order
    } cases[] = {
        {"packed", {0, 1, 2}},
        {"gaps move later schemas up", {1, 4, 6}},
        {"only the last slot", {6}},
        {"none", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        memset(context_.header.event_schema_ids, 0, sizeof(context_.header.event_schema_ids));
        for (size_t i = 0; i < c.slots.size(); ++i) set_event_id(c.slots[i], add_event("p" + std::to_string(i)));
        ASSERT_TRUE(load());
        obx_type_system_t* system = context_.type_system;
        ASSERT_NE(system, nullptr);
        ASSERT_EQ(system->num_schemas, c.slots.size());
        for (size_t i = 0; i < c.slots.size(); ++i)
            EXPECT_STREQ(system->schemas[i]->name, ("p" + std::to_string(i)).c_str());
        // No counters schema named: the new system's empty one stays.
        ASSERT_NE(system->counters_schema, nullptr);
        EXPECT_EQ(system->counters_schema->num_groups, 0u);
    }
}

TEST_F(ReaderSchemas, ReloadReplacesEverything)
{
    set_event_id(0, add_event("first"));
    set_event_id(1, add_event("second"));
    ASSERT_TRUE(load());
    ASSERT_EQ(context_.type_system->num_schemas, 2);

    // A schemas block names one schema: the earlier ones are gone.
    uint8_t block_ids[1][16];
    const SchemaId only = add_event("only");
    memcpy(block_ids[0], only.data(), 16);
    ASSERT_TRUE(obx_reader_load_type_system(&context_, block_ids, 1));
    ASSERT_EQ(context_.type_system->num_schemas, 1);
    EXPECT_STREQ(context_.type_system->schemas[0]->name, "only");

    ASSERT_TRUE(obx_reader_load_type_system(&context_, nullptr, 0));
    EXPECT_EQ(context_.type_system->num_schemas, 0);
}

TEST_F(ReaderSchemas, CountersSchemaComesFromTheHeader)
{
    CountersSchemaDoc doc;
    doc.group("NODE", 1, "g").counter("a").counter("s", "STRING", 24);
    set_counters_id(folder_.add(doc.json().get()));
    set_event_id(0, add_event("e"));
    ASSERT_TRUE(load());
    ASSERT_NE(context_.type_system->counters_schema, nullptr);
    EXPECT_EQ(context_.type_system->counters_schema->size_of_counters, 32u);

    // Also when a schemas block triggers the load.
    ASSERT_TRUE(obx_reader_load_type_system(&context_, nullptr, 0));
    ASSERT_NE(context_.type_system->counters_schema, nullptr);
    EXPECT_EQ(context_.type_system->counters_schema->num_groups, 1u);
    EXPECT_EQ(obx_type_system_max_record_size(context_.type_system), 32u);
}

TEST_F(ReaderSchemas, FailuresNameTheirReason)
{
    const std::string missing = folder_.file_of(missing_id());
    {
        SCOPED_TRACE("missing event schema file");
        set_event_id(0, add_event("ok"));
        set_event_id(3, missing_id());
        LogCapture log;
        EXPECT_FALSE(load());
        EXPECT_TRUE(log.has("Failed reading schema JSON from file '" + missing + "'")) << log.all();
        EXPECT_TRUE(log.has("Failed to load schema from file: " + missing)) << log.all();
        memset(context_.header.event_schema_ids, 0, sizeof(context_.header.event_schema_ids));
    }
    {
        SCOPED_TRACE("missing counters schema file");
        set_counters_id(missing_id());
        LogCapture log;
        EXPECT_FALSE(load());
        EXPECT_TRUE(log.has("Failed to load counters schema from file: " + missing)) << log.all();
        ASSERT_NE(context_.type_system, nullptr);
        EXPECT_EQ(context_.type_system->counters_schema, nullptr);  // renderers must accept this
        EXPECT_EQ(obx_type_system_max_record_size(context_.type_system), 0u);
    }
    {
        SCOPED_TRACE("event schema named as counters schema");
        set_counters_id(add_event("not_counters"));
        LogCapture log;
        EXPECT_FALSE(load());
        EXPECT_EQ(context_.type_system->counters_schema, nullptr);
    }
    {
        SCOPED_TRACE("no schema folder");
        options_.schema_path = nullptr;
        set_event_id(0, add_event("x"));
        LogCapture log;
        EXPECT_FALSE(load());
        EXPECT_TRUE(log.has("Failed to build schema file name from the schema id")) << log.all();
        memset(context_.header.event_schema_ids, 0, sizeof(context_.header.event_schema_ids));
        EXPECT_FALSE(load());
        EXPECT_TRUE(log.has("Failed to build schema file name from the counters schema id")) << log.all();
    }
}
