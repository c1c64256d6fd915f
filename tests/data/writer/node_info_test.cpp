#include "data/writer/node_info.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fixtures/temp_dir.h"
#include "fixtures/written_files.h"

namespace {

using Texts = std::vector<std::string>;

Texts names_in(const std::string& folder) {
    Texts names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string read(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

obx_test::PagePtr page_with(const char* adapter, uint64_t first) {
    obx_test::PageFields fields;
    fields.first_timestamp = first;
    auto page = obx_test::make_page({}, fields);
    if (*adapter) std::memcpy(page->adapters[0].name, adapter, std::strlen(adapter));
    std::memcpy(page->adapters[0].node_guid, "0000000000000001", 16);
    return page;
}

TEST(NodeInfo, WrittenOnlyWhenAdaptersOrFolderChange) {
    obx_test::TempDir a, b;
    obx_node_info_t info;
    obx_node_info_init(&info);
    obx_node_info_update(&info, a.path(), page_with("m0", 10).get());
    EXPECT_EQ(read(a.file("nodeinfo.json")), "{\n    \"timestamp\": 10,\n    \"m0\": {\n"
                                             "        \"node_guid\": \"0000000000000001\",\n"
                                             "        \"system_image_guid\": \"\",\n        \"port_1_guid\": \"\"\n    }\n}");
    std::filesystem::remove(a.file("nodeinfo.json"));
    obx_node_info_update(&info, a.path(), page_with("m0", 20).get());  // same adapters, same folder
    EXPECT_EQ(names_in(a.path()), Texts{});
    obx_node_info_update(&info, b.path(), page_with("m0", 30).get());  // known text, new folder
    EXPECT_EQ(read(b.file("nodeinfo.json")).substr(0, 25), "{\n    \"timestamp\": 10,\n  ");
    obx_node_info_update(&info, b.path(), page_with("m1", 40).get());  // new adapters beside a file
    EXPECT_EQ(names_in(b.path()), (Texts{"nodeinfo.40.json", "nodeinfo.json"}));
    obx_node_info_destroy(&info);

    obx_node_info_t empty;
    obx_node_info_init(&empty);
    obx_test::TempDir c;
    obx_node_info_update(&empty, c.path(), page_with("", 50).get());
    EXPECT_EQ(read(c.file("nodeinfo.json")), "{\n    \"timestamp\": 50\n}");
    obx_node_info_destroy(&empty);
}

TEST(NodeInfo, SettingForASecondFile) {
    const struct {
        const char* name;  // which of the two names carries the value; nullptr: unset
        const char* value;
        bool second_file;
    } cases[] = {
        {nullptr, "", true}, {"OBX_ALLOW_MULTIPLE_NODEINFO", "", true},
        {"OBX_ALLOW_MULTIPLE_NODEINFO", "0", false}, {"OBX_ALLOW_MULTIPLE_NODEINFO", "false", false},
        {"ALLOW_MULTIPLE_NODEINFO", "no", false}, {"OBX_ALLOW_MULTIPLE_NODEINFO", "1", true},
        {"ALLOW_MULTIPLE_NODEINFO", "True", true}, {"OBX_ALLOW_MULTIPLE_NODEINFO", "yes", true},
    };
    for (const auto& c : cases) {
        obx_test::TempDir dir;
        std::ofstream(dir.file("nodeinfo.json")) << "earlier run";
        if (c.name) setenv(c.name, c.value, 1);
        obx_node_info_t info;
        obx_node_info_init(&info);
        obx_node_info_update(&info, dir.path(), page_with("m0", 77).get());
        obx_node_info_destroy(&info);
        if (c.name) unsetenv(c.name);
        const Texts expected = c.second_file ? Texts{"nodeinfo.77.json", "nodeinfo.json"} : Texts{"nodeinfo.json"};
        EXPECT_EQ(names_in(dir.path()), expected)
            << (c.name ? c.name : "unset") << "=" << c.value;
        EXPECT_EQ(read(dir.file("nodeinfo.json")), "earlier run");
    }
}

}  // namespace
