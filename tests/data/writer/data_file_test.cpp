#include "data/writer/data_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "fixtures/written_files.h"
#include "utils/logger.h"

namespace {

using obx_test::Bytes;
using Texts = std::vector<std::string>;

constexpr uint64_t T0 = 1700000000000000ull;

obx_client_id_t client() {
    obx_client_id_t id;
    std::memset(&id, 0, sizeof(id));
    std::strcpy(id.host_name, "host");
    return id;
}

// A writer below `dir` with one file per first timestamp: "<source>/<id>.bin".
std::unique_ptr<obx::DataFile> writer(const obx_test::TempDir& dir, uint64_t size_limit = 1000,
                                      uint64_t age_limit = 100) {
    auto file = std::make_unique<obx::DataFile>(client(), "src", "tag", true);
    file->setBasePath(dir.path());
    file->setPathTemplate("{{source}}/{{id}}.bin");
    file->setFileSizeLimit(size_limit);
    file->setFileAgeLimit(age_limit);
    return file;
}

TEST(DataFile, HeaderOfANewFileAndAfterLeavingIt) {
    obx_test::TempDir dir;
    {
        auto file = writer(dir);
        file->setBlockSize(100);
        bool created = false;
        EXPECT_EQ(file->write(T0, T0 + 5, "0123456789", 10, &created), 10u);
        EXPECT_TRUE(created);
        EXPECT_EQ(file->write(T0 + 1, T0 + 9, "abcde", 5, &created), 5u);
        EXPECT_FALSE(created);
        // Open for appending: the header still shows its creation values.
        const auto open = obx_test::read_written_file(dir.file("src/1700000000000000.bin"));
        EXPECT_EQ(open.file_size, 256u);
        EXPECT_EQ(open.last_timestamp, 0u);
    }
    const auto files = obx_test::read_written_files(dir.path());
    ASSERT_EQ(files.size(), 1u);
    const auto& f = files.at("src/1700000000000000.bin");
    EXPECT_EQ(f.magic, "OBXF");
    EXPECT_EQ(f.magic_end, "obxf");
    EXPECT_EQ(f.version, 0x00000701u);
    EXPECT_EQ(f.file_size, 271u);
    EXPECT_EQ(f.size_on_disk, 271u);
    EXPECT_EQ(f.source_id, "src");
    EXPECT_EQ(f.source_tag, "tag");
    EXPECT_EQ(f.first_timestamp, T0);
    EXPECT_EQ(f.last_timestamp, T0 + 9);
    EXPECT_EQ(f.block_size, 100u);
    EXPECT_EQ(std::string(f.body.begin(), f.body.end()), "0123456789abcde");
}

TEST(DataFile, WhenANewFileStarts) {
    const std::string back = "first_timestamp 1700000000000050is greater than current timestamp: 1700000000000040";
    struct Step {
        uint64_t first, last;
        size_t size;
        bool new_file;
    };
    const struct {
        const char* label;
        std::vector<Step> steps;
        Texts warnings;
        size_t files;
    } cases[] = {
        {"below both limits", {{T0, T0, 10, true}, {T0 + 1, T0 + 99, 10, false}}, {}, 1},
        {"age reached exactly", {{T0, T0, 10, true}, {T0 + 1, T0 + 100, 10, true}}, {}, 2},
        {"size reached exactly", {{T0, T0, 744, true}, {T0 + 1, T0 + 1, 1, true}}, {}, 2},  // 256 + 744 = 1000
        {"size one below", {{T0, T0, 743, true}, {T0 + 1, T0 + 1, 1, false}}, {}, 1},
        {"time goes back", {{T0 + 50, T0 + 50, 1, true}, {T0 + 40, T0 + 40, 1, true}}, {back}, 2},
    };
    for (const auto& c : cases) {
        obx_test::TempDir dir;
        obx_test::LogCapture log;
        {
            auto file = writer(dir);
            for (const Step& s : c.steps) {
                bool created = false;
                EXPECT_EQ(file->write(s.first, s.last, std::string(s.size, 'x').data(), s.size, &created), s.size);
                EXPECT_EQ(created, s.new_file) << c.label;
            }
        }
        EXPECT_EQ(log.at(OBX_LOG_WARNING), c.warnings) << c.label;
        EXPECT_EQ(obx_test::read_written_files(dir.path()).size(), c.files) << c.label;
    }
}

TEST(DataFile, SettersCloseOnlyOnChange) {
    obx_test::TempDir dir;
    auto file = writer(dir);
    file->write(T0, T0, "x", 1);
    const std::string path = file->currentPath();
    file->setBlockSize(65536);  // unchanged default
    file->setFileSizeLimit(0);   // ignored
    file->setBasePath("");       // ignored
    EXPECT_EQ(file->currentPath(), path);
    uint8_t ids_block[256] = {};
    file->setEventSchemaIds(ids_block);  // all zero: no change
    EXPECT_EQ(file->currentPath(), path);
    ids_block[16 + 6 * 16 + 15] = 1;  // the last of the seven ids differs
    file->setEventSchemaIds(ids_block);
    EXPECT_EQ(file->currentPath(), "");
    // The header was rewritten on leaving the file.
    EXPECT_EQ(obx_test::read_written_file(path).file_size, 257u);
    file->write(T0 + 1, T0 + 1, "y", 1);
    EXPECT_EQ(obx_test::read_written_file(file->currentPath()).event_schema_ids[6 * 16 + 15], 1);
}

TEST(DataFile, AppendingToAnExistingFileKeepsItsFirstTime) {
    obx_test::TempDir dir;
    writer(dir)->write(T0, T0 + 1, "abc", 3);
    {
        obx_test::LogCapture log;
        auto again = writer(dir);
        EXPECT_EQ(again->write(T0, T0 + 2, "de", 2), 2u);
        EXPECT_TRUE(log.has("[data_file] Append data to an existing file " + dir.path() + "/src/1700000000000000.bin"));
    }
    const auto f = obx_test::read_written_file(dir.file("src/1700000000000000.bin"));
    EXPECT_EQ(f.file_size, 261u);
    EXPECT_EQ(f.last_timestamp, T0 + 2);
    EXPECT_EQ(std::string(f.body.begin(), f.body.end()), "abcde");
}

TEST(DataFile, DamagedHeaderOfAnExistingFileIsLeftAlone) {
    obx_test::TempDir dir;
    mkdir(dir.file("src").c_str(), 0755);
    const std::string path = dir.file("src/1700000000000000.bin");
    obx_test::write_file(path, Bytes(256, 'z'));
    obx_test::LogCapture log;
    {
        auto file = writer(dir);
        EXPECT_EQ(file->write(T0, T0, "abc", 3), 3u);
    }
    EXPECT_TRUE(log.has("[data_file] Header of file " + path + " is invalid. Will not update.")) << log.all();
    const auto f = obx_test::read_written_file(path);
    EXPECT_EQ(f.magic, "zzzz");
    EXPECT_EQ(std::string(f.body.end() - 3, f.body.end()), "abc");
}

TEST(DataFile, FailuresAreLoggedOnceUntilAGoodWrite) {
    obx_test::TempDir dir;
    obx_test::write_file(dir.file("src"), Bytes{1});  // a plain file where the folder must go
    obx_test::LogCapture log;
    auto file = writer(dir);
    EXPECT_EQ(file->write(T0, T0, "a", 1), 0u);
    EXPECT_EQ(file->write(T0 + 1, T0 + 1, "b", 1), 0u);
    const Texts errors = log.at(OBX_LOG_ERROR);
    ASSERT_EQ(errors.size(), 1u) << log.all();
    EXPECT_EQ(errors[0].rfind("[data_file] Failed to create data file " + dir.path() + "/src/1700000000000000.bin: ", 0), 0u)
        << errors[0];
    EXPECT_EQ(file->currentPath(), "");
}

TEST(DataFile, FullDiskLosesTheWriteOnceAndSaysSo) {
    obx_test::LogCapture log;
    obx::DataFile file(client(), "src", "", true);
    file.setBasePath("/dev");
    file.setPathTemplate("full");
    EXPECT_EQ(file.write(T0, T0, "abc", 3), 0u);
    EXPECT_EQ(file.write(T0, T0, "abc", 3), 0u);
    const Texts errors = log.at(OBX_LOG_ERROR);
    int appends = 0;
    for (const auto& e : errors) appends += e == "[data_file] Failed appending data file /dev/full: No space left on device";
    EXPECT_EQ(appends, 1) << log.all();
}

TEST(DataFile, WithoutKeepOpenEveryWriteRewritesTheHeader) {
    obx_test::TempDir dir;
    auto file = writer(dir);
    file->setKeepOpen(false);
    file->write(T0, T0 + 3, "abcd", 4);
    const auto f = obx_test::read_written_file(file->currentPath());
    EXPECT_EQ(f.file_size, 260u);
    EXPECT_EQ(f.last_timestamp, T0 + 3);
}

}  // namespace
