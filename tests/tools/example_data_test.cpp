// The bundled example set under examples/ is what obx gen writes with the options of
// scripts/make-examples.sh, byte for byte, and obx_read reads all of it.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

namespace {

std::map<std::string, std::string> tree(const std::string& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        if (entry.is_regular_file() && entry.path().filename() != "README.md" && entry.path().parent_path().filename() != "collector")
            files[std::filesystem::relative(entry.path(), root).string()] = read_file_bytes(entry.path().string());
    return files;
}

}  // namespace

TEST(ExampleData, CommittedSetIsWhatObxGenWritesAndObxReadReadsIt)
{
    const std::string examples = std::string(OBX_SOURCE_DIR) + "/examples";
    TempDir temp;
    const ProcessResult made = run_program("/bin/sh", {std::string(OBX_SOURCE_DIR) + "/scripts/make-examples.sh", OBX_BINARY, temp.path()});
    ASSERT_EQ(std::to_string(made.exit_status) + made.err, "0");
    const auto written = tree(temp.path()), committed = tree(examples);
    EXPECT_EQ(written.size(), 14u);  // two schema files, three tags of four sources
    EXPECT_TRUE(written == committed) << "rewrite with: make examples";

    const ProcessResult r = run_obx_read({"-s", examples + "/schema", "-d", examples + "/data"});
    ASSERT_EQ(std::to_string(r.exit_status) + r.err, "0");
    JsonPtr document = json_parse(r.out);
    ASSERT_NE(document, nullptr);
    // Per source: 3 seconds of 10 events, a counters block a second, one CNTX block.
    EXPECT_EQ(json_object_size(document.get()), 12u);
    const char* key;
    json_t* records;
    json_object_foreach(document.get(), key, records) {
        const std::string name = key;
        EXPECT_EQ(json_array_size(records), name.rfind("events_", 0) == 0 ? 30u : name.rfind("counters_", 0) == 0 ? 3u : 1u) << name;
    }
}
