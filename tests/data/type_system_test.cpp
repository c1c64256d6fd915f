#include <gtest/gtest.h>

#include <cstring>

#include "data/reader_context.h"
#include "data/reader_type_system.h"
#include "data/type_system.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_builder.h"
#include "fixtures/schema_objects.h"
#include "tools/read_options.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

std::string sample(const std::string& provider) { return EventSchemaDoc(provider).type("sample", {{"a", "uint8_t"}, {"b", "uint64_t"}}).pretty(); }

// "<provider of each schema, in position order>; <size of counters, or none>".
std::string summary(const obx_type_system_t* system) {
    std::string out;
    for (unsigned i = 0; i < system->num_schemas; ++i) out += std::string(i ? " " : "") + system->schemas[i]->name;
    return out + "; " + (system->counters_schema ? std::to_string(system->counters_schema->size_of_counters) : "none");
}

// A context as the reader has it after reading a header: options with a schema folder and
// the header's ids. load() gives "<result>: <summary of the type system loaded>".
class ReaderSchemas : public ::testing::Test {
protected:
    void SetUp() override { options_.schema_path = &path_[0], context_.options = &options_; }
    void TearDown() override { obx_type_system_destroy(context_.type_system); }

    void name(uint8_t* slot, const std::string& provider) { memcpy(slot, folder_.add_text(sample(provider)).data(), 16); }
    std::string load(uint8_t (*ids)[16] = nullptr, unsigned count = 0) {
        const bool ok = obx_reader_load_type_system(&context_, ids ? ids : header_.event_schema_ids, ids ? count : OBX_EVENT_SCHEMA_SLOTS);
        return (ok ? "ok: " : "failed: ") + summary(context_.type_system);
    }

    SchemaFolder folder_;
    std::string path_ = folder_.path();
    obx_read_options_t options_{};
    obx_reader_context_t context_{};
    obx_data_file_header_t& header_ = context_.header;
};

}  // namespace

TEST_F(ReaderSchemas, ZeroSlotsTakeNoPositionAndTheCountersSchemaComesFromTheHeader) {
    name(header_.event_schema_ids[1], "a"), name(header_.event_schema_ids[4], "b"), name(header_.event_schema_ids[6], "c");
    EXPECT_EQ(load(), "ok: a b c; 0");  // no counters schema named: the new system's empty one stays
    memcpy(header_.counters_schema_id, folder_.add(counters_layout("a s:STRING:24").json().get()).data(), 16);
    EXPECT_EQ(load(), "ok: a b c; 32");
    // A schemas block replaces all earlier schemas; the counters schema still comes from the header.
    uint8_t block_ids[2][16] = {};
    name(block_ids[1], "only");
    EXPECT_EQ(load(block_ids, 2), "ok: only; 32");
}

TEST_F(ReaderSchemas, SchemasTakePositionsUpToTheLimit) {
    uint8_t ids[256][16];
    for (auto& id : ids) name(id, "p");
    LogCapture log;
    EXPECT_EQ(load(ids, 255).substr(0, 8) + load(ids, 256).substr(0, 8), "ok: p p failed: ");
    EXPECT_EQ(context_.type_system->num_schemas, 255);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), (std::vector<std::string>{"Failed to load schema: schema limit exceeded '255'", "Failed to load schema from file: " + folder_.file_of(folder_.add_text(sample("p")))}));
}

TEST_F(ReaderSchemas, FailuresNameTheirReason) {
    SchemaId missing_id;
    missing_id.fill(0xab);
    const std::string missing = folder_.file_of(missing_id);  // the folder and the id in hexadecimal
    const struct { uint8_t* slot; std::string expected, read_error, load_error; } cases[] = {
        {header_.event_schema_ids[3], "failed: ; 0", "Failed reading schema JSON from file '" + missing + "'", "Failed to load schema from file: " + missing},
        {header_.counters_schema_id, "failed: ; none",  // readers of the counters schema must accept none
         "Failed reading counters schema JSON from file '" + missing + "': No such file or directory", "Failed to load counters schema from file: " + missing},
    };
    for (const auto& c : cases) {
        LogCapture log;
        memcpy(c.slot, missing_id.data(), 16);
        EXPECT_EQ(load(), c.expected);
        EXPECT_TRUE(log.has(c.read_error) && log.has(c.load_error)) << log.all();
        memset(c.slot, 0, 16);
    }
    name(header_.counters_schema_id, "not_counters");
    EXPECT_EQ(load(), "failed: ; none");
    options_.schema_path = nullptr;
    LogCapture log;
    EXPECT_EQ(load(), "failed: ; 0");
    EXPECT_TRUE(log.has("Failed to build schema file name from the counters schema id")) << log.all();
}
