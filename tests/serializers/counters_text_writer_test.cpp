// The counters writer that obx_read uses against printing obx_counters_data_to_json's value.
#include "serializers/counters_text_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <tuple>

#include "counters/counter_data/counters_data.h"
#include "fixtures/byte_writer.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/schema_objects.h"
#include "utils/json.h"

namespace {

using namespace obx_test;

// The pretty and plain texts of a block and the log lines they gave, by the value path;
// the direct writer must give the same bytes.
std::string same_texts(obx_counters_text_writer_t* writer, const Bytes& bytes, const obx_counters_schema_t* schema)
{
    const obx_counters_data_t block = {bytes.data(), bytes.size()};
    std::string texts[2];  // value path, direct
    for (int direct = 0; direct < 2; ++direct) {
        LogCapture log(6);
        for (bool pretty : {true, false}) {
            std::string text = "<none>";
            if (direct) {
                obx_counters_text_writer_clear(writer);
                const bool ok = obx_counters_text_writer_append(writer, pretty, &block, schema);
                const std::string all(obx_counters_text_writer_data(writer), obx_counters_text_writer_size(writer));
                text = ok ? all : all.empty() ? "<none>" : "<failure left bytes>";
            } else if (const JsonPtr value{obx_counters_data_to_json(&block, schema)}) {
                text = json_text(value.get(), pretty);
            }
            texts[direct] += text + "\n";
        }
        texts[direct] += log.all();
    }
    EXPECT_EQ(texts[1], texts[0]);
    return texts[0];
}

// Every data type, text values of every shape, groups of every kind, names that come again
// (the key stays where it was first set, which depends on the values), blocks cut short,
// both slash settings.
TEST(CountersTextWriter, BlocksAsTheValuePathGivesThem)
{
    CountersSchemaDoc doc = counters_layout("u i:INT64 f:FP64 b:BIT64 x:Undefined s:STRING:8 a/b | *3 c1 c2:FP64 | *0 p | *2 q:INT64 | f:FP64 u f v i:FP64");
    // Only the first group has a name.
    std::tie(doc.groups[0].name, doc.groups[1].granularity, doc.groups[3].granularity) = std::make_tuple("node", "CPU", "BOGUS");
    CountersSchemaPtr schema(obx_counters_schema_from_string(doc.text().c_str()));
    ASSERT_TRUE(schema);
    auto block = [&](uint64_t time, double f, const std::string& text, double c2, size_t size = 200) {
        Bytes bytes = ByteWriter().text("OBXD").u32(0).u64(time).u64(~0ull).i64(-5).f64(f).u64(0xff00ff).u64(1ull << 63)
                          .text(text).u64(42).u64(7).f64(c2).u64(9).i64(-1).f64(f).u64(1).u64(2).u64(3).f64(c2).take();
        bytes.resize(std::min(size, bytes.size()));
        return bytes;
    };
    const Bytes cases[] = {
        block(1700000000123456ull, 0.1, std::string("host\0\0\0\0", 8), 1e17), block(~0ull, NAN, "zzzzzzzz", NAN),
        block(1, 1.5, std::string("\x01\t\"\\/z\0\0", 8), HUGE_VAL), block(0, NAN, "abcdefgh", -0.0),
        block(2, 2.5, std::string("ab\xff\0\0\0\0\0", 8), 3.25), block(3, 2.5, "\xC3\xA9t\xC3\xA9\0\0", 3.25),
        block(4, 0, "abcdefgh", 0, 64), block(5, 0, "", 0, 16), block(6, 0, "", 0, 12)};  // cut after the text, short
    std::unique_ptr<obx_counters_text_writer_t, decltype(&obx_counters_text_writer_destroy)> writer(obx_counters_text_writer_create(), obx_counters_text_writer_destroy);
    for (bool slashes : {true, false}) {
        SlashEscaping escaping(slashes);
        for (const Bytes& bytes : cases) same_texts(writer.get(), bytes, schema.get());
    }
    // Where the repeated names of the last group stand: a NaN leaves the first "f" out.
    EXPECT_NE(same_texts(writer.get(), cases[0], schema.get()).find(R"([{"f":2,"u":1,"v":3,"i":1e+17}])"), std::string::npos);
    EXPECT_NE(same_texts(writer.get(), cases[1], schema.get()).find(R"([{"u":1,"f":2,"v":3}])"), std::string::npos);
}

}  // namespace
