#include "serializers/json_output.h"

#include <gtest/gtest.h>

#include <set>

#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "utils/logger.h"

using namespace obx_test;

TEST(JsonOutput, RecordsAndLines) {
    JsonPtr value = json_parse(R"({"a": 1, "b": [true, "x/y"]})");
    const std::string pretty = json_text(value.get(), true), plain = json_text(value.get(), false);
    // A separator only before records that are not first, and no newline after a record.
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(value.get(), s, true); }), pretty);
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(value.get(), s, false); }), ",\n" + pretty);
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_line(value.get(), s); }), plain + "\n");

    // A value without text writes nothing, not even a separator.
    LogCapture log;
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(nullptr, s, false), obx_json_print_line(nullptr, s); }), "");
    EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>(2, "Failed to serialize json."));
}

TEST(JsonOutput, LabelsBecomeOneMemberObjects) {
    const struct { std::unordered_map<std::string, std::string> labels; std::set<std::string> entries; } cases[] = {
        {{}, {}},
        {{{"a", "1"}, {"b", ""}}, {R"({"a":"1"})", R"({"b":""})"}},
        {{{"p", "x\"y"}, {"", "e"}, {"k", std::string("a\0b", 3)}}, {R"({"p":"x\"y"})", R"({"":"e"})", R"({"k":"a\u0000b"})"}},
    };
    for (const auto& c : cases) {
        JsonPtr array(obx_labels_to_json_array(c.labels));
        ASSERT_TRUE(json_is_array(array.get()));
        std::set<std::string> entries;
        for (size_t i = 0; i < json_array_size(array.get()); ++i) entries.insert(json_text(json_array_get(array.get(), i)));
        EXPECT_TRUE(json_array_size(array.get()) == c.labels.size() && entries == c.entries) << json_text(array.get());
    }
    // Text that cannot become JSON fails the whole array.
    for (const auto& labels : std::vector<std::unordered_map<std::string, std::string>>{
             {{"ok", "fine"}, {"bad", "\xff\xfe"}}, {{"\xc3", "v"}}, {{std::string("a\0b", 3), "v"}}}) {
        LogCapture log;
        EXPECT_EQ(obx_labels_to_json_array(labels), nullptr);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed allocating JSON object"});
    }
    // The value is taken in every case: under the sanitizers a leak of a refused one shows.
    EXPECT_EQ(obx_json_one_member_object("k", static_cast<json_t*>(nullptr)), nullptr);
    EXPECT_EQ(obx_json_one_member_object(std::string("k\0", 2), json_true()), nullptr);
    EXPECT_EQ(obx_json_one_member_object("\xff", json_true()), nullptr);
    EXPECT_EQ(json_text(JsonPtr(obx_json_one_member_object("k", json_true())).get()), R"({"k":true})");
}
