#include "data/writer/data_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "fixtures/written_files.h"
#include "host/source.h"
#include "utils/logger.h"

namespace {

using obx_test::Bytes;
using obx_test::ByteWriter;
using obx_test::make_page;
using obx_test::PageFields;
using Texts = std::vector<std::string>;

constexpr uint64_t T0 = 1700000000000000ull;
const char* kId1 = "00112233445566778899aabbccddeeff";
const char* kId2 = "ffeeddccbbaa99887766554433221100";

struct Writer {
    obx_test::TempDir dir;
    obx::DataWriter* writer;
    Writer() {
        obx_client_id_t id;
        std::memset(&id, 0, sizeof(id));
        std::strcpy(id.host_name, "host");
        writer = obx_data_writer_create(&id);
        obx_data_writer_set_base_path(writer, dir.path().c_str());
        obx_data_writer_set_path_template(writer, "{{source}}/{{tag}}{{id}}.bin");
    }
    ~Writer() { obx_data_writer_destroy(writer); }
    bool write(const obx_test::PagePtr& page) { return obx_data_writer_write_page(writer, page.get(), nullptr); }
    std::map<std::string, obx_test::WrittenFile> files() {
        obx_data_writer_destroy(writer);  // finishes the headers
        writer = nullptr;
        return obx_test::read_written_files(dir.path());
    }
};

Bytes schemas_of(const char* id) {
    obx_test::SchemasBlockFields fields;
    fields.ids = {id};
    return obx_test::schemas_block(fields);
}

Bytes events() { return obx_test::event_block(0, 1, 1, Bytes(8, 7)); }

TEST(DataWriter, PageVersionsAndEmptyPages) {
    const struct {
        uint32_t version;
        size_t files;
        Texts warnings;
    } cases[] = {
        {0x00000601u, 0, {"[data_writer] Received incompatible data page. Skipping."}},
        {0x00000701u, 1, {"[data_writer] First data block is OBXE. No schema ids could be extracted."}},
        {0x00011601u, 1, {"[data_writer] First data block is OBXE. No schema ids could be extracted."}},
        {0x00001602u, 0, {"[data_writer] Received incompatible data page. Skipping."}},
    };
    for (const auto& c : cases) {
        Writer w;
        obx_test::LogCapture log;
        PageFields fields;
        fields.version = c.version;
        EXPECT_TRUE(w.write(make_page(events(), fields)));
        EXPECT_EQ(log.at(OBX_LOG_WARNING), c.warnings) << std::hex << c.version;
        EXPECT_EQ(w.files().size(), c.files);
    }
    Writer w;
    obx_test::LogCapture log;
    EXPECT_TRUE(w.write(make_page({})));
    EXPECT_EQ(log.at(OBX_LOG_DEBUG), Texts{"[data_writer] Received empty data page. Skipping."});
    obx_source_t source;
    std::memset(&source, 0, sizeof(source));
    obx_data_page_t* blob = obx_data_page_create_blob(&source, "data", 4);
    EXPECT_TRUE(obx_data_writer_write_page(w.writer, blob, nullptr));  // a blob page counts as empty
    obx_data_page_destroy(blob);
    EXPECT_TRUE(w.files().empty());
}

TEST(DataWriter, UnknownFirstBlockIsDumped) {
    Writer w;
    obx_test::LogCapture log;
    testing::internal::CaptureStdout();
    PageFields fields;
    fields.page_size = 760;
    w.write(make_page(obx_test::blob_block(T0, Bytes{'h', 'i'}), fields));
    const std::string dump = testing::internal::GetCapturedStdout();
    EXPECT_EQ(log.at(OBX_LOG_WARNING), (Texts{"[data_writer] Unrecognized type of data page. Cannot save to file.",
                                              "[data_writer] type: 3 "}));
    // 760 bytes: 47 full lines and a short one of 8, padded in its hexadecimal part.
    const std::string first = "01 16 01 00 00 00 00 00  F8 02 00 00 00 00 00 00  |  ................ \n";
    const std::string last = "00 00 00 00 00 00 00 00  " + std::string(25, ' ') + "|  ........ \n";
    ASSERT_EQ(dump.size(), 47 * first.size() + last.size());
    EXPECT_EQ(dump.substr(0, first.size()), first);
    EXPECT_EQ(dump.substr(720 / 16 * first.size(), first.size()),
              "4F 42 58 42 00 40 1E 18  24 0A 06 00 02 00 00 00  |  OBXB.@..$....... \n");
    EXPECT_EQ(dump.substr(dump.size() - last.size()), last);
    EXPECT_TRUE(w.files().empty());
}

TEST(DataWriter, BlocksAreRoundedUpToWholeBlocks) {
    const struct {
        size_t filled;  // data bytes behind the header
        size_t written;
    } cases[] = {{1, 100}, {100, 100}, {101, 200}, {200, 200}};
    for (const auto& c : cases) {
        Writer w;
        Bytes blocks = events();
        blocks.resize(300);
        PageFields fields;
        fields.block_size = 100;
        auto page = make_page(blocks, fields);
        page->filled_bytes = 720 + c.filled;
        w.write(page);
        const auto files = w.files();
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(files.begin()->second.body.size(), c.written) << c.filled;
        EXPECT_EQ(files.begin()->second.block_size, 100u);
    }
}

TEST(DataWriter, FirstBlockDecidesIdsAndTemplate) {
    Writer w;
    obx_data_writer_set_events_path_template(w.writer, "events/{{source}}/{{id}}.bin");
    obx_data_writer_set_path_template(w.writer, "counters/{{source}}/{{id}}.bin");
    obx_test::LogCapture log;
    PageFields counters;
    counters.source_id = "c";
    counters.schema_id = Bytes(16, 0xAB);
    w.write(make_page(obx_test::counters_block(T0, Bytes(8, 1)), counters));

    PageFields schemas;
    schemas.source_id = "s";
    w.write(make_page(schemas_of(kId1), schemas));
    schemas.first_timestamp = T0 + 5;
    schemas.last_timestamp = T0 + 6;
    w.write(make_page(schemas_of(kId1), schemas));  // same ids: same file
    schemas.first_timestamp = T0 + 7;
    w.write(make_page(schemas_of(kId2), schemas));  // new ids: new file

    const auto files = w.files();
    Texts names;
    for (const auto& f : files) names.push_back(f.first);
    EXPECT_EQ(names, (Texts{"counters/c/1700000000000000.bin", "events/s/1700000000000000.bin",
                            "events/s/1700000000000007.bin"}));
    EXPECT_EQ(files.at("counters/c/1700000000000000.bin").counters_schema_id, Bytes(16, 0xAB));
    const auto& first = files.at("events/s/1700000000000000.bin");
    EXPECT_EQ(first.event_schema_ids[0], 0x00);
    EXPECT_EQ(first.event_schema_ids[15], 0xff);
    EXPECT_EQ(first.last_timestamp, T0 + 6);
    EXPECT_EQ(first.body.size(), 2 * 256u);
    EXPECT_EQ(files.at("events/s/1700000000000007.bin").event_schema_ids[0], 0xff);
    EXPECT_TRUE(log.at(OBX_LOG_WARNING).empty()) << log.all();
}

TEST(DataWriter, DataSizeLimitDeletesOldestFirst) {
    Writer w;
    obx_data_writer_set_file_size_limit(w.writer, 100);
    obx_test::LogCapture log;
    EXPECT_FALSE(obx_data_writer_set_data_size_limit(w.writer, 100));
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Texts{"[data_writer] data size limit must be larger than file size limit"});
    EXPECT_TRUE(obx_data_writer_set_data_size_limit(w.writer, 1000));
    Bytes blocks = events();
    blocks.resize(200);
    // Each page passes the file size limit, so each goes to a file of its own; each file
    // counts its first write twice in the list and once in the total.
    for (int i = 0; i < 6; ++i) {
        PageFields fields;
        fields.first_timestamp = fields.last_timestamp = T0 + static_cast<uint64_t>(i);
        w.write(make_page(blocks, fields));
    }
    EXPECT_EQ(w.writer->totalDataSize(), 800u);
    ASSERT_EQ(w.writer->managedFiles().size(), 5u);
    EXPECT_EQ(w.writer->managedFiles().front().size, 400u);
    const auto files = w.files();
    Texts names;
    for (const auto& f : files) names.push_back(f.first);
    EXPECT_EQ(names, (Texts{"node01/tag_1700000000000001.bin", "node01/tag_1700000000000002.bin",
                            "node01/tag_1700000000000003.bin", "node01/tag_1700000000000004.bin",
                            "node01/tag_1700000000000005.bin"}));
}

TEST(DataWriter, MissingFileOfTheListIsReported) {
    Writer w;
    obx_data_writer_set_file_size_limit(w.writer, 100);
    obx_data_writer_set_data_size_limit(w.writer, 500);
    Bytes blocks = events();
    blocks.resize(200);
    PageFields fields;
    w.write(make_page(blocks, fields));
    std::filesystem::remove(w.dir.file("node01/tag_1700000000000000.bin"));
    obx_test::LogCapture log;
    fields.first_timestamp = fields.last_timestamp = T0 + 1;
    w.write(make_page(blocks, fields));  // total 400, then 600 > 500
    fields.first_timestamp = fields.last_timestamp = T0 + 2;
    w.write(make_page(blocks, fields));
    EXPECT_TRUE(log.has("[data_writer] File doesn't exist: " + w.dir.path() + "/node01/tag_1700000000000000.bin"))
        << log.all();
}

TEST(DataWriter, FirstTimestampByTheSourceOfAPage) {
    Writer w;
    PageFields fields;
    w.write(make_page(events(), fields));
    EXPECT_EQ(obx_data_writer_get_first_timestamp(w.writer, make_page(events(), fields).get()), T0);
    fields.source_tag = "other";
    obx_test::LogCapture log;
    EXPECT_EQ(obx_data_writer_get_first_timestamp(w.writer, make_page(events(), fields).get()), 0u);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Texts{"could not find the source of the page!\n"});
    EXPECT_FALSE(obx_data_writer_set_base_path(w.writer, nullptr));
    EXPECT_FALSE(obx_data_writer_write_page(nullptr, make_page(events(), fields).get(), nullptr));
}

}  // namespace
