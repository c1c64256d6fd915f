// The bundled example set under examples/: it is what its generator writes today, byte
// for byte, and obx_read reads all of it.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "fixtures/example_data.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using namespace obx_test;

TEST(ExampleData, CommittedSetIsWhatTheGeneratorWritesAndObxReadReadsIt)
{
    const std::string examples = std::string(OBX_TEST_DATA_DIR) + "/../../examples";
    TempDir temp;
    const ExampleDataSet set = write_example_data(temp.path());
    std::map<std::string, std::string> files[2];  // path below the root to content: generated, committed
    for (int i = 0; i < 2; ++i)
        for (const std::string sub : {"/schema/", "/data/"})
            for (const auto& entry : std::filesystem::directory_iterator((i ? examples : temp.path()) + sub))
                files[i][sub + entry.path().filename().string()] = read_file_bytes(entry.path());
    EXPECT_TRUE(!files[0].empty() && files[0] == files[1]) << "regenerate with: generate_example_data examples";
    const ProcessResult r = run_obx_read({"-s", examples + "/schema", "-d", examples + "/data"});
    ASSERT_EQ(std::to_string(r.exit_status) + r.err, "0");
    JsonPtr document = json_parse(r.out);
    EXPECT_EQ(json_object_size(document.get()), set.records.size());
    for (const auto& file : set.records) {
        const std::string key = file.first.substr(0, file.first.find('.'));
        EXPECT_EQ(json_array_size(json_object_get(document.get(), key.c_str())), file.second) << key;
    }
}
