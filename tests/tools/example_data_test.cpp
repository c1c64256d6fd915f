// The bundled example set under examples/: it is what its generator writes today, byte
// for byte, and obx_read reads all of it.
#include <gtest/gtest.h>
#include <dirent.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "fixtures/example_data.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

namespace {

using namespace obx_test;

const std::string kExamples = std::string(OBX_TEST_DATA_DIR) + "/../../examples";

// Name to content of every regular file in `folder`.
std::map<std::string, std::string> files_of(const std::string& folder)
{
    std::map<std::string, std::string> files;
    DIR* dir = opendir(folder.c_str());
    if (!dir) return files;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        files[name] = read_file_bytes(folder + "/" + name);
    }
    closedir(dir);
    return files;
}

TEST(ExampleData, CommittedSetIsWhatTheGeneratorWrites)
{
    TempDir temp;
    write_example_data(temp.path());
    for (const char* sub : {"schema", "data"}) {
        SCOPED_TRACE(sub);
        const auto fresh = files_of(temp.path() + "/" + sub);
        const auto committed = files_of(kExamples + "/" + sub);
        ASSERT_FALSE(fresh.empty());
        std::vector<std::string> fresh_names, committed_names;
        for (const auto& f : fresh) fresh_names.push_back(f.first);
        for (const auto& f : committed) committed_names.push_back(f.first);
        ASSERT_EQ(committed_names, fresh_names) << "regenerate with: generate_example_data examples";
        for (const auto& f : fresh) {
            EXPECT_TRUE(committed.at(f.first) == f.second) << f.first << " differs from the generator's output";
            EXPECT_LT(f.second.size(), 8192u) << f.first << " should stay small";
        }
    }
}

TEST(ExampleData, ObxReadReadsEveryFile)
{
    TempDir temp;
    const ExampleDataSet set = write_example_data(temp.path());
    size_t records = 0;
    for (const auto& file : set.records) records += file.second;
    const std::vector<std::string> input = {"-s", kExamples + "/schema", "-d", kExamples + "/data"};

    std::vector<std::string> json_args = input;
    const ProcessResult json = run_obx_read(json_args);
    ASSERT_EQ(json.exit_status, 0) << json.err;
    EXPECT_EQ(json.err, "");
    JsonPtr document = json_parse(json.out);
    ASSERT_TRUE(json_is_object(document.get()));
    EXPECT_EQ(json_object_size(document.get()), set.records.size());
    for (const auto& file : set.records) {
        const std::string key = file.first.substr(0, file.first.find('.'));
        const json_t* array = json_object_get(document.get(), key.c_str());
        ASSERT_TRUE(json_is_array(array)) << key;
        EXPECT_EQ(json_array_size(array), file.second) << key;
    }

    std::vector<std::string> ndjson_args = input;
    ndjson_args.insert(ndjson_args.end(), {"-f", "ndjson"});
    const ProcessResult ndjson = run_obx_read(ndjson_args);
    ASSERT_EQ(ndjson.exit_status, 0) << ndjson.err;
    EXPECT_EQ(static_cast<size_t>(std::count(ndjson.out.begin(), ndjson.out.end(), '\n')), records);
}

TEST(ExampleData, RunScriptPrintsTheDocument)
{
    ProcessOptions options;
    options.working_directory = kExamples + "/..";
    const ProcessResult r = run_process("/bin/sh", {"scripts/run-example.sh", OBX_READ_BINARY}, options);
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("{\"0", 0), 0u) << r.out.substr(0, 200);
    EXPECT_EQ(r.out.back(), '}');
}

}  // namespace
