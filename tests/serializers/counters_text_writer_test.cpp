#include "serializers/counters_text_writer.h"

#include <gtest/gtest.h>

#include <cmath>

#include "counters/counter_data/counters_data.h"
#include "fixtures/event_types.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_objects.h"

namespace {

using namespace obx_test;

// The pretty and plain texts of a block by the value path and by `writer`, and the log
// lines they gave, with and without debug lines, compared byte for byte; `value` gets
// the value path's texts and lines without debug lines.
::testing::AssertionResult same_texts(obx_counters_text_writer_t* writer, const Bytes& bytes,
                                      const obx_counters_schema_t* schema, std::string* value = nullptr)
{
    const obx_counters_data_t block = {bytes.data(), bytes.size()};
    for (uint32_t level : {6u, 7u}) {
        std::string texts[2];  // value path, direct
        for (int direct = 0; direct < 2; ++direct) {
            LogCapture log(level);
            for (bool pretty : {true, false}) {
                obx_counters_text_writer_clear(writer);
                const bool ok = direct && obx_counters_text_writer_append(writer, pretty, &block, schema);
                const std::string text(obx_counters_text_writer_data(writer), obx_counters_text_writer_size(writer));
                texts[direct] += (!direct ? take_json_text(obx_counters_data_to_json(&block, schema), pretty)
                                  : ok    ? text
                                          : text.empty() ? "<none>" : "<failure left bytes>") + "\n";
            }
            texts[direct] += log.all();
        }
        if (value && level == 6) *value = texts[0];
        if (texts[0] != texts[1])
            return ::testing::AssertionFailure() << "level " << level << ":\n" << texts[0] << "vs direct:\n" << texts[1];
    }
    return ::testing::AssertionSuccess();
}

// Every data type, text values of every shape, groups of every kind, names that come
// again (the key stays where it was first set, which depends on the values), blocks cut
// short, both slash settings; also a name JSON cannot hold, and a block without a schema.
TEST(CountersTextWriter, BlocksAsTheValuePathGivesThem)
{
    CountersSchemaDoc doc = counters_layout("u i:INT64 f:FP64 b:BIT64 x:Undefined s:STRING:8 a/b | *3 c1 c2:FP64 | *0 p"
                                            " | *2 q:INT64 | f:FP64 u f v i:FP64");
    doc.groups[0].name = "node";  // the others have none
    doc.groups[1].granularity = "CPU";
    doc.groups[3].granularity = "BOGUS";
    CountersSchemaPtr schema(obx_counters_schema_from_string(doc.text().c_str()));
    ASSERT_TRUE(schema);
    auto block = [&](uint64_t time, double f, const std::string& text, double c2, size_t size = 200) {
        Bytes bytes = ByteWriter().text("OBXD").u32(0).u64(time).u64(~0ull).i64(-5).f64(f).u64(0xff00ff).u64(1ull << 63)
                          .text(text).u64(42).u64(7).f64(c2).u64(9).i64(-1).f64(f).u64(1).u64(2).u64(3).f64(c2).take();
        bytes.resize(std::min(size, bytes.size()));
        return bytes;
    };
    const Bytes cases[] = {
        block(1700000000123456ull, 0.1, std::string("host\0\0\0\0", 8), 1e17), block(0, NAN, "abcdefgh", -0.0),
        block(1, 1.5, std::string("\x01\t\"\\/z\0\0", 8), HUGE_VAL), block(~0ull, NAN, "zzzzzzzz", NAN),
        block(2, 2.5, std::string("ab\xff\0\0\0\0\0", 8), 3.25), block(3, 2.5, "\xC3\xA9t\xC3\xA9\0\0", 3.25),
        block(4, 0, "abcdefgh", 0, 64), block(5, 0, "", 0, 16), block(6, 0, "", 0, 12)};  // cut after the text, short
    std::unique_ptr<obx_counters_text_writer_t, decltype(&obx_counters_text_writer_destroy)> writer(
        obx_counters_text_writer_create(), obx_counters_text_writer_destroy);
    for (bool slashes : {true, false}) {
        SlashEscaping escaping(slashes);
        for (const Bytes& bytes : cases) EXPECT_TRUE(same_texts(writer.get(), bytes, schema.get()));
        EXPECT_TRUE(same_texts(writer.get(), cases[0], nullptr));
    }
    std::string first, fourth;  // where the repeated names of the last group stand
    EXPECT_TRUE(same_texts(writer.get(), cases[0], schema.get(), &first));
    EXPECT_TRUE(same_texts(writer.get(), cases[3], schema.get(), &fourth));
    EXPECT_NE(first.find(R"([{"f":2,"u":1,"v":3,"i":1e+17}])"), std::string::npos) << first;
    EXPECT_NE(fourth.find(R"([{"u":1,"f":2,"v":3}])"), std::string::npos) << fourth;
    obx_counter_group_t* group = schema->groups[1];
    char bad[] = "\xC3(";
    char* const names[] = {group->counters[0]->name, group->name};
    for (char* name : {bad, static_cast<char*>(nullptr)}) {
        group->counters[0]->name = name;
        group->name = name ? name : names[1];
        obx_counters_text_writer_forget_schemas(writer.get());
        EXPECT_TRUE(same_texts(writer.get(), cases[0], schema.get()));
    }
    group->counters[0]->name = names[0];
    EXPECT_FALSE(obx_counters_text_writer_append(writer.get(), true, nullptr, schema.get()));
    EXPECT_FALSE(obx_counters_text_writer_append(nullptr, true, nullptr, schema.get()));
}

}  // namespace
