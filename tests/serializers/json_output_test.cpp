#include "serializers/json_output.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using obx_test::json_parse;
using obx_test::json_text;
using obx_test::JsonPtr;
using obx_test::LogCapture;

namespace {

// Everything a call writes to a stream, through a memory stream.
template <class Write>
std::string written(Write&& write) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&buffer, &size);
    write(stream);
    std::fclose(stream);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}

// {"a": 1, "b": [true, "x"]}: nested enough that pretty and plain texts differ.
JsonPtr sample_value() { return json_parse(R"({"a": 1, "b": [true, "x/y"]})"); }

}  // namespace

TEST(JsonPrintRecord, SeparatorOnlyBeforeRecordsThatAreNotFirst) {
    JsonPtr value = sample_value();
    const std::string pretty = json_text(value.get(), true);
    ASSERT_NE(pretty.find('\n'), std::string::npos) << "pretty text expected";

    struct Case {
        bool is_first;
        std::string expected;
    } cases[] = {
        {true, pretty},
        {false, ",\n" + pretty},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(value.get(), s, c.is_first); }), c.expected)
            << "is_first=" << c.is_first;
    }
}

TEST(JsonPrintRecord, ConsecutiveRecordsJoinWithoutTrailingNewline) {
    JsonPtr first = json_parse(R"({"n": 1})");
    JsonPtr second = json_parse(R"({"n": 2})");
    const std::string text = written([&](FILE* s) {
        obx_json_print_record(first.get(), s, true);
        obx_json_print_record(second.get(), s, false);
    });
    EXPECT_EQ(text, json_text(first.get(), true) + ",\n" + json_text(second.get(), true));
    EXPECT_NE(text.back(), '\n');
}

TEST(JsonPrintLine, PlainTextAndOneNewline) {
    JsonPtr value = sample_value();
    const std::string text = written([&](FILE* s) { obx_json_print_line(value.get(), s); });
    EXPECT_EQ(text, json_text(value.get(), false) + "\n");
    EXPECT_EQ(text.find('\n'), text.size() - 1) << "exactly one line";
}

TEST(JsonPrint, ValueWithoutTextWritesNothingAndWarns) {
    struct Case {
        const char* name;
        void (*print)(FILE*);
    } cases[] = {
        {"record, not first", [](FILE* s) { obx_json_print_record(nullptr, s, false); }},
        {"record, first", [](FILE* s) { obx_json_print_record(nullptr, s, true); }},
        {"line", [](FILE* s) { obx_json_print_line(nullptr, s); }},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(written(c.print), "") << c.name << ": not even a separator";
        EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>{"Failed to serialize json."}) << c.name;
    }
}

TEST(LabelsToJsonArray, OneSingleMemberObjectPerLabel) {
    struct Case {
        std::unordered_map<std::string, std::string> labels;
    } cases[] = {
        {{}},
        {{{"device", "hca0"}}},
        {{{"a", "1"}, {"b", "2"}, {"c", ""}}},
        {{{"path", "/x/\"y\""}, {"", "empty key"}}},
    };
    for (const auto& c : cases) {
        JsonPtr array(obx_labels_to_json_array(c.labels));
        ASSERT_TRUE(json_is_array(array.get()));
        ASSERT_EQ(json_array_size(array.get()), c.labels.size());
        std::set<std::string> seen;
        for (size_t i = 0; i < json_array_size(array.get()); ++i) {
            json_t* entry = json_array_get(array.get(), i);
            ASSERT_TRUE(json_is_object(entry));
            ASSERT_EQ(json_object_size(entry), 1u) << "one member per object";
            const char* key = json_object_iter_key(json_object_iter(entry));
            json_t* value = json_object_iter_value(json_object_iter(entry));
            ASSERT_TRUE(json_is_string(value)) << "values stay strings";
            EXPECT_EQ(json_string_value(value), c.labels.at(key));
            seen.insert(key);
        }
        EXPECT_EQ(seen.size(), c.labels.size()) << "every label once";
    }
}

TEST(LabelsToJsonArray, PlainTextIsAListOfObjects) {
    JsonPtr array(obx_labels_to_json_array({{"a", "1"}}));
    EXPECT_EQ(json_text(array.get()), R"([{"a":"1"}])");
}

TEST(LabelsToJsonArray, TextThatCannotBecomeJsonFailsTheWholeArray) {
    struct Case {
        const char* name;
        std::unordered_map<std::string, std::string> labels;
    } cases[] = {
        {"value not UTF-8", {{"ok", "fine"}, {"bad", "\xff\xfe"}}},
        {"key not UTF-8", {{"\xc3", "v"}}},
        {"key with a zero byte", {{std::string("a\0b", 3), "v"}}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(obx_labels_to_json_array(c.labels), nullptr) << c.name;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Failed allocating JSON object"}) << c.name;
    }
}

TEST(LabelsToJsonArray, ValueWithZeroByteKeepsItsLength) {
    JsonPtr array(obx_labels_to_json_array({{"k", std::string("a\0b", 3)}}));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(json_text(array.get()), R"([{"k":"a\u0000b"}])");
}

TEST(OneMemberObject, TakesTheValueInEveryCase) {
    // Under the sanitizers a leak of the refused value shows up here.
    EXPECT_EQ(obx_json_one_member_object("k", static_cast<json_t*>(nullptr)), nullptr);
    EXPECT_EQ(obx_json_one_member_object(std::string("k\0", 2), json_true()), nullptr);
    EXPECT_EQ(obx_json_one_member_object("\xff", json_true()), nullptr);
    JsonPtr object(obx_json_one_member_object("k", json_true()));
    EXPECT_EQ(json_text(object.get()), R"({"k":true})");
}
