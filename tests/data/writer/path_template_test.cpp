#include "data/writer/path_template.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "data/writer/data_file.h"
#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

namespace {

using Texts = std::vector<std::string>;

TEST(PathTemplate, Expand) {
    const obx_template_keys_t keys = {{"a", "A"}, {"b", "B"}, {"", "E"}};
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"x{{a}}y{{b}}z", "xAyBz"},
        {"{{a}}{{a}}", "AA"},
        {"{{c}}/{{a}}", "{{c}}/A"},         // unknown keys stay for a later stage
        {"{{year/{{a}}", "{{year/{{a}}"},   // the key runs to the first "}}": "year/{{a"
        {"{{year", "{{year"},                // no closing mark
        {"a}}{{b}}", "a}}B"},
        {"{{}}", "E"},
        {"{{a{{b}}}}", "{{a{{b}}}}"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(obx_template_expand(c.text, keys), c.expected) << c.text;
}

TEST(PathTemplate, Hash) {
    const std::string no_number =
        "path_template expects {{hash[num]}}, '[num]' - a positive integer, actually received {{hash}}";
    const struct {
        const char* source;
        const char* text;
        const char* expected;
        Texts errors;
    } cases[] = {
        {"0x1f", "{{hash16}}/{{source}}.bin", "15/{{source}}.bin", {}},
        {"abc", "{{hash16}}/{{source}}.bin", "6/{{source}}.bin", {}},      // 97 + 98 + 99 = 294
        {"abc", "{{hash8}}{{hash8}}", "6{{hash8}}", {}},                   // the first only
        {"abc", "a/{{hash}}/b", "a/{{hash}}/b", {no_number}},
        {"0xzz", "{{hash16}}", "12", {"Failed to read 0xzz as guid number"}},  // 48+120+122+122 = 412
        {"abc", "{{hash-1}}", "294", {}},           // divides by 2^64 - 1
        {"\xff", "{{hash16}}", "15", {}},          // bytes count signed: -1 wraps
        {"0xffffffffff", "{{hash1000000007}}", "511620082", {}},
        {"abc", "no key", "no key", {}},
    };
    for (const auto& c : cases) {
        obx_test::LogCapture log;
        std::string text = c.text;
        obx_template_apply_hash(c.source, text);
        EXPECT_EQ(text, c.expected) << c.source << " " << c.text;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), c.errors) << c.text;
    }
}

TEST(PathTemplateDeathTest, HashOfZeroFoldersEndsTheProcessWithAWord) {
    std::string text = "x/{{hash0}}/y";
    EXPECT_DEATH(obx_template_apply_hash("abc", text), "the number of hash folders must not be 0");
}

obx_client_id_t client(const char* host) {
    obx_client_id_t id;
    std::memset(&id, 0, sizeof(id));
    std::strcpy(id.host_name, host);
    return id;
}

struct PathCase {
    const char* label;
    std::string path_template;
    std::string source, tag;
    uint64_t first_timestamp;
    std::string base;  // relative to the test's working folder; empty: none
    std::string expected;  // "<cwd>" stands for the working folder
};

TEST(PathTemplate, BuildPathOfWrittenFiles) {
    obx_test::TempDir dir;
    char previous[4096];
    ASSERT_NE(getcwd(previous, sizeof(previous)), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    const std::string cwd = std::filesystem::canonical(dir.path()).string();
    const PathCase cases[] = {
        {"worked example", "", "sw1", "ports", 1600000000123456ull, "output",
         cwd + "/output/2020/0913/sw1/ports_1600000000123456.bin"},
        {"empty tag", "", "sw1", "", 1600000000123456ull, "output", cwd + "/output/2020/0913/sw1/1600000000123456.bin"},
        {"stage one keys and the clock", "{{node}}-{{port}}-{{timestamp}}-{{hour}}{{minute}}{{second}}", "s", "", 1600000000123456ull,
         "", "hostA-0-1600000000123456-122640"},
        {"underscore kept without a base", "{{tag}}/x", "s", "ports", 1600000000000000ull, "", "ports_/x"},
        {"underscore taken with a base", "{{tag}}/x", "s", "ports", 1600000000000000ull, "b", cwd + "/b/ports/x"},
        {"a percent in a source is a facet marker", "{{source}}", "a%Yb", "", 1600000000000000ull, "", "a2020b"},
        {"hash folder", "{{hash16}}/{{source}}.bin", "0x1f", "", 1600000000000000ull, "", "15/0x1f.bin"},
        {"unknown key stays", "{{nope}}/{{source}}", "s", "", 1600000000000000ull, "", "{{nope}}/s"},
        {"past the calendar", "{{year}}/{{id}}", "s", "", UINT64_MAX, "", "{{year}}/18446744073709551615"},
    };
    for (const PathCase& c : cases) {
        obx_test::LogCapture log;
        obx::DataFile file(client("hostA"), c.source, c.tag, true);
        if (!c.path_template.empty()) file.setPathTemplate(c.path_template);
        file.setBasePath(c.base);
        file.write(c.first_timestamp, c.first_timestamp, "x", 1);
        EXPECT_EQ(file.currentPath(), c.expected) << c.label;
        file.closeFile();
    }
    ASSERT_EQ(chdir(previous), 0);
}

TEST(PathTemplate, FirstTimestampZeroLeavesEveryLaterKey) {
    obx::DataFile file(client("h"), "sw1", "ports", true);
    EXPECT_EQ(file.buildPath(OBX_DEFAULT_PATH_TEMPLATE), "{{year}}/{{month}}{{day}}/sw1/ports_{{id}}.bin");
    EXPECT_EQ(file.buildPath("{{hash4}}/{{hour}}"), "{{hash4}}/{{hour}}");
}

}  // namespace
