#include "serializers/json_output.h"

#include <gtest/gtest.h>

#include <set>

#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "utils/logger.h"

using namespace obx_test;

// The framing of good records shows in the metrics and counters outputs; a value without
// text writes nothing, not even a separator.
TEST(JsonOutput, ValueWithoutTextWritesNothing) {
    LogCapture log;
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(nullptr, s, false), obx_json_print_line(nullptr, s); }), "");
    EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>(2, "Failed to serialize json."));
}

TEST(JsonOutput, LabelsBecomeOneMemberObjects) {
    JsonPtr array(obx_labels_to_json_array({{"p", "x\"y"}, {"", "e"}, {"k", std::string("a\0b", 3)}}));
    std::set<std::string> entries;
    for (size_t i = 0; i < json_array_size(array.get()); ++i) entries.insert(json_text(json_array_get(array.get(), i)));
    EXPECT_EQ(entries, (std::set<std::string>{R"({"p":"x\"y"})", R"({"":"e"})", R"({"k":"a\u0000b"})"}));
    EXPECT_EQ(json_text(JsonPtr(obx_labels_to_json_array({})).get()), "[]");
    // Text that cannot become JSON fails the whole array.
    LogCapture log;
    EXPECT_EQ(obx_labels_to_json_array({{"ok", "fine"}, {"bad", "\xff\xfe"}}), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed allocating JSON object"});
}
