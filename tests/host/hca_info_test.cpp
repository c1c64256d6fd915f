#include "host/hca_info.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fixtures/fake_sysfs.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "host/client_id.h"
#include "utils/json.h"
#include "utils/logger.h"

namespace {

using Texts = std::vector<std::string>;

std::string field(const char* bytes, size_t width) { return std::string(bytes, strnlen(bytes, width)); }

TEST(HcaInfo, CollectFromSysfs) {
    obx_test::FakeSysfs sysfs;
    sysfs.adapter("mlx5_0", 2);
    sysfs.adapter("mlx5_1", 1);
    sysfs.file("mlx5_2/node_guid", "0002:c903:0044:55aa\n");  // nothing else there
    obx_adapter_record_t records[6];
    std::memset(records, 0xEE, sizeof(records));
    obx_test::LogCapture log;
    EXPECT_EQ(obx_hca_info_collect(records, 6), 0);
    const struct {
        const char *name, *node, *image, *port1, *port2;
    } expected[] = {
        {"mlx5_0", "0002c90300445566", "0002c90300445569", "0002c90300445567", "0002c90300445568"},
        {"mlx5_1", "0002c90300445566", "0002c90300445569", "0002c90300445567", ""},
        {"mlx5_2", "0002c903004455aa", "", "", ""},
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(field(records[i].name, 20), expected[i].name);
        EXPECT_EQ(field(records[i].node_guid, 16), expected[i].node);
        EXPECT_EQ(field(records[i].system_image_guid, 16), expected[i].image);
        EXPECT_EQ(field(records[i].port_1_guid, 16), expected[i].port1);
        EXPECT_EQ(field(records[i].port_2_guid, 16), expected[i].port2);
    }
    EXPECT_EQ(static_cast<unsigned char>(records[3].name[0]), 0xEE);  // untouched beyond what was found
    EXPECT_EQ(log.all(), "");

    // Fewer places than adapters: the first ones in glob order.
    obx_adapter_record_t two[2];
    log.clear();
    obx_hca_info_collect(two, 2);
    EXPECT_EQ(field(two[1].name, 20), "mlx5_1");
    EXPECT_EQ(log.at(OBX_LOG_WARNING), Texts{"HCA info: 1 of 3 found HCAs will not fit array of 2 elements"});
}

TEST(HcaInfo, NoTreeAndLongNames) {
    obx_test::FakeSysfs sysfs;
    obx_adapter_record_t records[1];
    obx_test::LogCapture log;
    obx_hca_info_collect(records, 1);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Texts{"HCA info: globing read failed: No such file or directory"}) << log.all();
    std::filesystem::create_directories(sysfs.dir.path() + "/class/infiniband");
    log.clear();
    obx_hca_info_collect(records, 1);
    EXPECT_EQ(log.at(OBX_LOG_WARNING),
              Texts{"HCA info: globing found no matches of '" + sysfs.dir.path() + "/class/infiniband/*'"});
    sysfs.file("a_very_long_adapter_name_x/node_guid", "0002:c903:0044:5566\n");
    log.clear();
    obx_hca_info_collect(records, 1);
    EXPECT_EQ(std::string(records[0].name, 20), "a_very_long_adapter_");
    EXPECT_EQ(field(records[0].node_guid, 16), "0002c90300445566");  // read under the whole name
    EXPECT_EQ(log.at(OBX_LOG_WARNING), Texts{"HCA info: name a_very_long_adapter_name_x does not fit 20 buffer"});
}

obx_adapter_record_t record(const char* name, const char* port2) {
    obx_adapter_record_t r;
    std::memset(&r, 0, sizeof(r));
    std::strncpy(r.name, name, sizeof(r.name));
    std::memcpy(r.node_guid, "0000000000000001", 16);
    std::memcpy(r.system_image_guid, "0000000000000002", 16);
    std::memcpy(r.port_1_guid, "0000000000000003", 16);
    if (*port2) std::memcpy(r.port_2_guid, port2, 16);
    return r;
}

TEST(HcaInfo, JsonTextPrintAndDigest) {
    obx_adapter_record_t records[3] = {record("a", "0000000000000004"), record("b", ""), record("", "")};
    char* text = nullptr;
    size_t length = 0;
    ASSERT_TRUE(obx_hca_info_to_json_text(5, records, 3, &text, &length));
    const std::string expected =
        "{\n    \"timestamp\": 5,\n    \"a\": {\n        \"node_guid\": \"0000000000000001\",\n"
        "        \"system_image_guid\": \"0000000000000002\",\n        \"port_1_guid\": \"0000000000000003\",\n"
        "        \"port_2_guid\": \"0000000000000004\"\n    },\n    \"b\": {\n"
        "        \"node_guid\": \"0000000000000001\",\n        \"system_image_guid\": \"0000000000000002\",\n"
        "        \"port_1_guid\": \"0000000000000003\"\n    }\n}";
    EXPECT_EQ(std::string(text), expected);
    EXPECT_EQ(length, expected.size());
    obx_json_free_serialized_string(text);
    ASSERT_TRUE(obx_hca_info_to_json_text(0, records + 2, 1, &text, &length));
    EXPECT_EQ(std::string(text), "{}");
    obx_json_free_serialized_string(text);

    char* printed = nullptr;
    size_t printed_size = 0;
    FILE* stream = open_memstream(&printed, &printed_size);
    obx_hca_info_print(stream, records + 1, 2);
    std::fclose(stream);
    EXPECT_EQ(std::string(printed), "info[0].hca_name          = b\n"
                                    "info[0].node_guid         = 0000000000000001\n"
                                    "info[0].system_image_guid = 0000000000000002\n"
                                    "info[0].port_1_guid       = 0000000000000003\n"
                                    "info[0].port_2_guid       = \n");
    free(printed);

    // Digest of the records up to the first empty name; nothing in use is MD5 of nothing.
    uint8_t all[16], first[16], none[16];
    records[1].name[0] = '\0';  // a hole hides what follows it
    records[2] = record("hidden", "");
    obx_hca_info_md5(records, 3, all);
    records[2] = record("changed", "");
    obx_hca_info_md5(records, 3, first);
    EXPECT_EQ(std::memcmp(all, first, 16), 0);
    obx_hca_info_md5(records, 1, first);
    EXPECT_EQ(std::memcmp(all, first, 16), 0);
    records[0].name[0] = '\0';
    obx_hca_info_md5(records, 3, none);
    const uint8_t empty_md5[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                   0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
    EXPECT_EQ(std::memcmp(none, empty_md5, 16), 0);
}

TEST(HcaInfo, PortWithoutSmi) {
    obx_test::FakeSysfs sysfs;
    sysfs.file("m/ports/1/has_smi", "0\n");
    sysfs.file("m/ports/2/has_smi", "1\n");
    sysfs.file("m/ports/3/has_smi", "");
    sysfs.file("vzn4_0/ports/1/has_smi", "0\n");
    obx_test::LogCapture log;
    EXPECT_EQ(obx_hca_port_without_smi("m", 1), 1);
    EXPECT_EQ(obx_hca_port_without_smi("m", 2), 0);
    EXPECT_EQ(obx_hca_port_without_smi("m", 4), 0);
    EXPECT_EQ(obx_hca_port_without_smi("vzn4_0", 1), 0);
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty());
    EXPECT_EQ(obx_hca_port_without_smi("m", 3), -1);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), Texts{"Failed to read has_smi file: " + sysfs.dir.path() +
                                           "/class/infiniband/m/ports/3/has_smi with m:3"});
}

TEST(HostName, EnvironmentAndSystem) {
    char buffer[64];
    setenv("OBX_HOST_NAME", "node.example.org", 1);
    EXPECT_STREQ(obx_get_host_name(buffer, sizeof(buffer)), "node.example.org");  // dots kept
    EXPECT_STREQ(obx_get_host_name(buffer, 5), "node");
    unsetenv("OBX_HOST_NAME");
    char system[256] = {};
    gethostname(system, sizeof(system) - 1);
    const std::string expected = std::string(system).substr(0, std::string(system).find('.'));
    EXPECT_EQ(std::string(obx_get_host_name(buffer, sizeof(buffer))), expected.substr(0, 63));

    setenv("OBX_HOST_NAME", "h1", 1);
    obx_client_id_t* id = obx_client_id_create();
    ASSERT_NE(id, nullptr);
    EXPECT_STREQ(id->host_name, "h1");
    EXPECT_EQ(id->port, 0);
    obx_client_id_t copy;
    obx_client_id_copy(&copy, id);
    EXPECT_EQ(std::memcmp(&copy, id, sizeof(copy)), 0);
    free(id);
    unsetenv("OBX_HOST_NAME");

    testing::internal::CaptureStdout();
    obx_client_id_print_layout();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Client identifier obx_client_id_t\nField                 Offset    Size\n"
              " host_name                  0         64\n port                       64        2\n");
}

}  // namespace
