#include "host/source.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fixtures/log_capture.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

using Texts = std::vector<std::string>;

namespace {

// Host "h" and no OBX_SOURCE_ID for the length of a test.
struct HostNamedH {
    HostNamedH() { setenv("OBX_HOST_NAME", "h", 1), unsetenv("OBX_SOURCE_ID"); }
    ~HostNamedH() { unsetenv("OBX_HOST_NAME"), unsetenv("OBX_SOURCE_ID"); }
};

// The ids of a specification's sources, every tag checked empty; {"<none>"}
// when the specification is refused.
Texts ids_of(const std::string& spec) {
    obx_source_array_t* array = obx_source_array_from_spec(spec.c_str());
    if (!array) return {"<none>"};
    Texts ids;
    for (uint16_t i = 0; i < array->count; ++i) {
        ids.push_back(array->sources[i]->source_id);
        EXPECT_STREQ(array->sources[i]->source_tag, "") << spec;
    }
    obx_source_array_destroy(array);
    return ids;
}

std::string write_file(const obx_test::TempDir& dir, const std::string& name, const std::string& content) {
    std::ofstream(dir.file(name), std::ios::binary) << content;
    return dir.file(name);
}

}  // namespace

TEST(Source, RangeForms) {
    HostNamedH host;
    const struct { const char* spec; Texts ids; } rows[] = {
        {"node[3-5]", {"node_3", "node_4", "node_5"}},
        {"2", {"h_1", "h_2"}},
        {"1", {"h_1"}},
        {"3-4", {"h_3", "h_4"}},
        {"5-5", {"h_5"}},
        {"0x2", {"h_1", "h_2"}},            // numbers are read in base 0
        {"rack-1[9-10]", {"rack-1_9", "rack-1_10"}},  // a dash in the name is part of it
        {"[1-2]", {"h_1", "h_2"}},          // no name: the default id
        {"0-1", {"h_0", "h_1"}},
    };
    for (const auto& row : rows) EXPECT_EQ(ids_of(row.spec), row.ids) << row.spec;
}

TEST(Source, MalformedSpecificationsAreRefusedInWords) {
    HostNamedH host;
    const std::string invalid = "[source] Invalid source format: ";
    const std::string many = "[source] Too many sources in ";
    const struct { const char* spec; Texts errors; } rows[] = {
        {"2-1", {invalid + "2-1"}},
        {"-3", {invalid + "-3"}},
        {"3-", {invalid + "3-"}},
        {"1--3", {invalid + "1--3"}},  // -3 is a number, but below the first
        {"node[5-2]", {invalid + "node[5-2]"}},
        {"node[1-2", {invalid + "node[1-2"}},
        {"node1-2]", {invalid + "node1-2]"}},
        {"node[1-2]x", {invalid + "node[1-2]x"}},
        {"node[1]-2", {invalid + "node[1]-2"}},
        {"node[a-2]", {invalid + "node[a-2]"}},
        {"n[-1-1]", {invalid + "n[-1-1]"}},  // the first dash in the brackets splits
        {"0", {invalid + "0"}},
        {"4294967297", {invalid + "4294967297", "[source] '4294967297' is no file, and no count, range a-b or name[a-b] either"}},
        {"1-2147483648", {invalid + "1-2147483648"}},
        {"99999999999999999999", {invalid + "99999999999999999999", "[source] '99999999999999999999' is no file, and no count, range a-b or name[a-b] either"}},
        {"no/such/nodes.txt", {invalid + "no/such/nodes.txt", "[source] 'no/such/nodes.txt' is no file, and no count, range a-b or name[a-b] either"}},
        {"", {invalid, "[source] '' is no file, and no count, range a-b or name[a-b] either"}},
        {"65535", {many + "65535: at most 65534"}},
        {"-2147483647-2147483647", {invalid + "-2147483647-2147483647"}},
        {"0-2147483647", {many + "0-2147483647: at most 65534"}},
    };
    for (const auto& row : rows) {
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        EXPECT_EQ(obx_source_array_from_spec(row.spec), nullptr) << row.spec;
        EXPECT_EQ(capture.at(OBX_LOG_ERROR), row.errors) << row.spec;
    }
}

TEST(Source, TheLimitOfAnArrayIsReachedButNotPassed) {
    HostNamedH host;
    obx_source_array_t* array = obx_source_array_from_spec("65534");
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->count, 65534);
    EXPECT_STREQ(array->sources[65533]->source_id, "h_65534");
    obx_source_t* one_more = obx_source_create("x", "");
    EXPECT_FALSE(obx_source_array_add(array, one_more));
    EXPECT_EQ(array->count, 65534);
    obx_source_destroy(one_more);
    obx_source_array_destroy(array);
}

TEST(Source, DefaultIdTakesTheGivenIdThenTheEnvironmentThenTheHost) {
    HostNamedH host;
    const std::string seventy(70, 'i');
    const struct { const char* env; const char* given; std::string id; } rows[] = {
        {nullptr, nullptr, "h"}, {nullptr, "", "h"}, {"env", nullptr, "env"}, {"env", "given", "given"},
        {nullptr, seventy.c_str(), std::string(63, 'i')}, {seventy.c_str(), nullptr, std::string(63, 'i')},
    };
    for (const auto& row : rows) {
        row.env ? setenv("OBX_SOURCE_ID", row.env, 1) : unsetenv("OBX_SOURCE_ID");
        char buffer[OBX_SOURCE_ID_SIZE];
        std::memset(buffer, 'x', sizeof(buffer));
        ASSERT_TRUE(obx_source_default_id(buffer, row.given));
        EXPECT_EQ(std::string(buffer), row.id);
        EXPECT_EQ(buffer[OBX_SOURCE_ID_SIZE - 1], '\0');
    }
    setenv("OBX_SOURCE_ID", "env", 1);
    EXPECT_EQ(ids_of("2"), (Texts{"env_1", "env_2"}));
    EXPECT_EQ(ids_of("node[1-1]"), (Texts{"node_1"}));
    obx_source_t* local = obx_source_create_local("tag");
    EXPECT_STREQ(local->source_id, "env");
    EXPECT_STREQ(local->source_tag, "tag");
    obx_source_destroy(local);
}

TEST(Source, FilesOfNodeListsAndOfIds) {
    HostNamedH host;
    obx_test::TempDir dir;
    const std::string long_line = std::string(2000, 'L') + "\n";
    const struct { const char* name; std::string content; Texts ids; } rows[] = {
        {"fabprobe", "H-0002c9030001 (node01) port 1\nS-0002c9030002 \"switch\" lid 3\n\nH-0002c9030003 (node02)\n",
         {"node01", "node02"}},
        {"fabprobe_brackets", "S-1 a ) b (sw-a) c (x)\n(no close\n", {"sw-a"}},  // the first ")" behind the "("
        {"fabprobe_late", "(early)\n" + long_line + "H-\n", {"early"}},  // one marker anywhere makes it a node list
        {"ids", "alpha\n\nbeta\r\ngamma", {"alpha", "beta", "gamma"}},
        {"ids_words", "(node01)\n", {"(node01)"}},  // brackets alone do not make a node list
        {"ids_long", long_line + "z\n", {std::string(63, 'L'), "z"}},  // a long line gives one id, cut
        {"ids_nul", std::string("a\0b\n\0c\nd", 9), {"a", "d"}},  // a NUL ends the id; the line goes on
        {"fabprobe_piece", std::string(1021, 'x') + "H-\n(n1)\n", {"n1"}},
        {"ids_piece", std::string(1022, 'x') + "H-\n(n1)\n", {std::string(63, 'x'), "(n1)"}},  // "H-" across two pieces
        {"empty", "", {}},
    };
    for (const auto& row : rows) EXPECT_EQ(ids_of(write_file(dir, row.name, row.content)), row.ids) << row.name;

    obx_test::LogCapture capture(OBX_LOG_DEBUG);
    EXPECT_EQ(ids_of(dir.path()), (Texts{"<none>"}));
    EXPECT_EQ(capture.at(OBX_LOG_ERROR), (Texts{"[source] Failed to open file: " + dir.path() + " (not a regular file)"}));
}

TEST(Source, RecordsArraysAndText) {
    obx_source_t* a = obx_source_create(std::string(70, 'a').c_str(), "a-tag-longer-than-15");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(std::string(a->source_id), std::string(63, 'a'));
    EXPECT_STREQ(a->source_tag, "a-tag-longer-th");
    obx_source_t* b = obx_source_create("b", nullptr);
    EXPECT_STREQ(b->source_tag, "");

    obx_source_t copy;
    obx_source_copy(&copy, b);
    EXPECT_EQ(obx_source_compare(&copy, b), 0);
    EXPECT_LT(obx_source_compare(a, b), 0);
    std::strcpy(copy.source_tag, "t");
    EXPECT_GT(obx_source_compare(&copy, b), 0);  // same id: the tag decides

    obx_source_array_t* array = obx_source_array_create();
    EXPECT_FALSE(obx_source_array_add(array, nullptr));
    EXPECT_TRUE(obx_source_array_add(array, a));
    EXPECT_TRUE(obx_source_array_add(array, b));
    EXPECT_EQ(obx_source_array_find(array, b), 1);
    EXPECT_EQ(obx_source_array_find(array, &copy), -1);  // equal texts, another record
    {
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        obx_source_array_log(array, "src");
        EXPECT_EQ(capture.at(OBX_LOG_DEBUG), (Texts{"src[0] = " + std::string(63, 'a'), "src[1] = b"}));
    }
    obx_source_array_destroy(array);
    obx_source_array_destroy(nullptr);

    obx_source_t* small = obx_source_create("node7", "ib");
    char text[9];
    obx_test::LogCapture capture(OBX_LOG_DEBUG);
    ASSERT_TRUE(obx_source_to_text(small, text, sizeof(text)));  // 5 + 2 + colon and zero
    EXPECT_STREQ(text, "node7:ib");
    EXPECT_TRUE(capture.at(OBX_LOG_DEBUG).empty());
    EXPECT_FALSE(obx_source_to_text(small, text, sizeof(text) - 1));
    EXPECT_EQ(capture.at(OBX_LOG_DEBUG), (Texts{"[source] buffer too small for source node7:ib (got 8)"}));
    obx_source_destroy(small);

    HostNamedH host;
    obx_source_array_t* local = obx_source_array_local("x");
    ASSERT_EQ(local->count, 1);
    EXPECT_STREQ(local->sources[0]->source_id, "h");
    EXPECT_STREQ(local->sources[0]->source_tag, "x");
    obx_source_array_destroy(local);
}
