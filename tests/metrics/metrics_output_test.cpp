#include "metrics/metrics_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <ctime>
#include <set>

#include "data/reader_context.h"
#include "fixtures/cntx_builder.h"
#include "fixtures/exact_buffer.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"
#include "tools/read_options.h"

using namespace obx_test;

namespace {

class MetricsOutput : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        context_.options = &options_;
        context_.path = "m.bin";
    }

    struct Result {
        int status;
        std::string out;
        std::string err;
    };

    Result process(const Bytes& buffer, obx_output_format_t format, uint64_t records_printed = 0) {
        options_.format = format;
        context_.records_printed = records_printed;
        ExactBuffer copy(buffer);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Result result;
        result.status = obx_metrics_block_process(&context_, copy.begin(), copy.size());
        result.err = testing::internal::GetCapturedStderr();
        result.out = testing::internal::GetCapturedStdout();
        return result;
    }

    obx_read_options_t options_{};
    obx_reader_context_t context_{};
};

struct Tables {
    ObxLabelNames label_names;
    ObxConstantLabels constant_labels;
    std::vector<std::string> label_values;
    std::vector<std::string> metric_names;
    std::vector<MetricsBatchRecord> batches;
};

Tables parse_block(const Bytes& block) {
    Tables t;
    ObxMetricsParser::parse_full_block(block.data(), block.data() + block.size(), t.label_names, t.label_values,
                                       t.metric_names, t.batches);
    t.constant_labels = ObxMetricsParser::parse_constant_labels(block.data(), block.data() + block.size());
    return t;
}

JsonPtr to_json(const Tables& t) {
    return JsonPtr(
        obx_metrics_block_to_json(t.label_names, t.constant_labels, t.label_values, t.metric_names, t.batches));
}

std::vector<std::string> keys_of(const json_t* object) {
    std::vector<std::string> keys;
    for (void* it = json_object_iter(const_cast<json_t*>(object)); it;
         it = json_object_iter_next(const_cast<json_t*>(object), it))
        keys.push_back(json_object_iter_key(it));
    return keys;
}

// The "labels" array as "name=value" entries, order left out.
std::set<std::string> labels_of(const json_t* root) {
    std::set<std::string> labels;
    json_t* array = json_object_get(root, "labels");
    for (size_t i = 0; i < json_array_size(array); ++i) {
        json_t* entry = json_array_get(array, i);
        EXPECT_EQ(json_object_size(entry), 1u);
        void* it = json_object_iter(entry);
        labels.insert(std::string(json_object_iter_key(it)) + "=" + json_string_value(json_object_iter_value(it)));
    }
    return labels;
}

BatchRecordSpec record_at(uint64_t timestamp, std::vector<SampleSpec> samples, LabelsBlockSpec labels) {
    BatchRecordSpec spec;
    spec.timestamp = timestamp;
    spec.samples = std::move(samples);
    spec.labels = std::move(labels);
    return spec;
}

CntxBuilder base_block() {
    CntxBuilder builder;
    builder.label_set({"device", "port"}).label_values({"hca0", "1"}).metric_names({"rx", "tx"});
    return builder;
}

const char* kExampleLine =
    R"({"timestamp":1700000001000000,"@timestamp":"2023-11-14 22:13:21.000","labels":[LABELS],"metrics":[{"tx_bytes":250}]})";

}  // namespace

TEST_F(MetricsOutput, ExampleBlockShowsItsLastRecordOnly) {
    JsonPtr root = to_json(parse_block(example_block()));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(keys_of(root.get()), (std::vector<std::string>{"timestamp", "@timestamp", "labels", "metrics"}));
    EXPECT_EQ(json_text(json_object_get(root.get(), "timestamp")), "1700000001000000");
    EXPECT_EQ(json_string_value(json_object_get(root.get(), "@timestamp")), std::string("2023-11-14 22:13:21.000"));
    EXPECT_EQ(labels_of(root.get()), (std::set<std::string>{"site=lab", "device=hca0", "port=p2"}));
    EXPECT_EQ(json_text(json_object_get(root.get(), "metrics")), R"([{"tx_bytes":250}])");
}

TEST_F(MetricsOutput, ExampleBlockPrintsOneLineInNdjson) {
    const Result result = process(example_block(), OBX_OUTPUT_FORMAT_NDJSON);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "");
    ASSERT_FALSE(result.out.empty());
    EXPECT_EQ(result.out.find('\n'), result.out.size() - 1) << result.out;
    // The labels come in the map's order; the rest of the line is fixed.
    JsonPtr printed = json_parse(result.out);
    ASSERT_NE(printed, nullptr);
    EXPECT_EQ(labels_of(printed.get()), (std::set<std::string>{"site=lab", "device=hca0", "port=p2"}));
    const std::string labels = json_text(json_object_get(printed.get(), "labels"));
    std::string expected = kExampleLine;
    expected.replace(expected.find("[LABELS]"), 8, labels);
    EXPECT_EQ(result.out, expected + "\n");
}

TEST_F(MetricsOutput, JsonFramingFollowsRecordsPrinted) {
    const Bytes block = example_block();
    JsonPtr value = to_json(parse_block(block));
    const std::string pretty = json_text(value.get(), true);
    struct Case {
        uint64_t records_printed;
        std::string expected;
    } cases[] = {{0, pretty}, {1, ",\n" + pretty}, {7, ",\n" + pretty}};
    for (const auto& c : cases) {
        const Result result = process(block, OBX_OUTPUT_FORMAT_JSON, c.records_printed);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, c.expected) << c.records_printed;
    }
}

TEST_F(MetricsOutput, FormatsWithoutMetricsOutputComplainAndGoOn) {
    struct Case {
        uint32_t format;
        std::string report;
    } cases[] = {
        {OBX_OUTPUT_FORMAT_CSV, "CSV output is not supported yet"},
        {OBX_OUTPUT_FORMAT_INFLUX, "Influx line API output is not yet supported for metrics data"},
        {OBX_OUTPUT_FORMAT_TXT, "Unsupported output format"},
        {OBX_OUTPUT_FORMAT_BIN, "Unsupported output format"},
        {77, "Unsupported output format"},
    };
    for (const auto& c : cases) {
        const Result result = process(example_block(), static_cast<obx_output_format_t>(c.format));
        EXPECT_EQ(result.status, 1) << c.format;
        EXPECT_EQ(result.out, "") << c.format;
        EXPECT_EQ(result.err, "Failed processing file m.bin: " + c.report + "\n") << c.format;
    }
}

TEST_F(MetricsOutput, BadBlocksFailBeforeAnyFormatIsConsidered) {
    Bytes with_tail = example_block();
    with_tail.resize(4096, 0);  // a block at the head of a zero-filled chunk
    struct Case {
        const char* name;
        Bytes buffer;
        std::string log;  // empty: the block is good
    } cases[] = {
        {"block followed by a zero tail", with_tail, ""},
        {"no CNTX", Bytes(64, 0), "failed to parse full block: Missing 'CNTD' magic number in the binary data"},
        {"empty buffer", Bytes{}, "failed to parse full block: Missing 'CNTD' magic number in the binary data"},
        {"total_size above the buffer", example_block_builder().total_size(182).build(),
         "failed to parse full block: CNTX block size 182 exceeds the 181 bytes of the buffer"},
        {"total_size below the head and end marks", example_block_builder().total_size(15).build(),
         "failed to parse full block: CNTX block size 15 is below the 16 bytes of its head and end marks"},
        {"total_size short of the end marks", example_block_builder().total_size(177).build(),
         "failed to parse full block: Invalid magic numbers in the binary data"},
        {"cut block", truncated(example_block(), 120),
         "failed to parse full block: CNTX block size 181 exceeds the 120 bytes of the buffer"},
    };
    for (const auto& c : cases) {
        for (uint32_t format : {OBX_OUTPUT_FORMAT_NDJSON, OBX_OUTPUT_FORMAT_INFLUX}) {
            LogCapture log;
            const Result result = process(c.buffer, static_cast<obx_output_format_t>(format));
            if (c.log.empty()) {
                EXPECT_EQ(result.status, 1) << c.name;
                EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << c.name << "\n" << log.all();
                continue;
            }
            EXPECT_EQ(result.status, 0) << c.name;
            EXPECT_EQ(result.out, "") << c.name;
            EXPECT_EQ(result.err, "") << c.name << ": no format complaint for a bad block";
            EXPECT_TRUE(log.has(c.log)) << c.name << "\n" << log.all();
        }
    }
}

TEST_F(MetricsOutput, BlockThatCannotBeJsonifiedFailsWithAReport) {
    struct Case {
        const char* name;
        CntxBuilder builder;
        std::string log;
    } cases[] = {
        {"metric id past the names", base_block().record(record_at(1, {{2, 5}}, labels_by_id(0, {0, 1}))),
         "failed to JSONify metrics: metric id 2 is past the 2 metric names"},
        {"more values than names", base_block().record(record_at(1, {}, labels_by_id(0, {0, 1, 0}))),
         "failed to JSONify metrics: record has 3 label values but label set 0 has 2 names"},
        {"label id equal to the table size", base_block().record(record_at(1, {}, labels_by_id(0, {2}))),
         "failed to JSONify metrics: Failed to decode label value at index 0: invalid label id format"},
        {"metric name not UTF-8",
         CntxBuilder().label_values({"v"}).metric_names({"\xff"}).record(record_at(1, {{0, 1}}, labels_by_id(0, {}))),
         "Failed allocating JSON object"},
        {"inline label not UTF-8",
         base_block().record(record_at(1, {}, labels_inline(0, {"\xc3"}))), "Failed allocating JSON object"},
    };
    for (auto& c : cases) {
        // Below debug level: there the parse itself would already decode the labels.
        LogCapture log(OBX_LOG_INFO);
        const Result result = process(c.builder.build(), OBX_OUTPUT_FORMAT_NDJSON);
        EXPECT_EQ(result.status, 0) << c.name;
        EXPECT_EQ(result.out, "") << c.name;
        EXPECT_EQ(result.err, "Failed processing file m.bin: Failed to JSONify metric values\n") << c.name;
        // Inner failures log their own detail first; the last line is the block's.
        const std::vector<std::string> errors = log.at(OBX_LOG_ERROR);
        ASSERT_FALSE(errors.empty()) << c.name;
        EXPECT_EQ(errors.back(), c.log) << c.name;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), "Failed allocating JSON object"),
                  c.log == "Failed allocating JSON object" ? 1 : 0)
            << c.name << ": said once";
    }
}

TEST_F(MetricsOutput, BlockWithoutRecordsPrintsAnEmptyObject) {
    struct Case {
        obx_output_format_t format;
        std::string expected;
    } cases[] = {{OBX_OUTPUT_FORMAT_JSON, "{}"}, {OBX_OUTPUT_FORMAT_NDJSON, "{}\n"}};
    for (const auto& c : cases) {
        const Result result = process(base_block().constant_labels({"site", "lab"}).build(), c.format);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, c.expected);
    }
}

TEST_F(MetricsOutput, RecordsOverwriteOneRootObject) {
    struct Case {
        const char* name;
        CntxBuilder builder;
        std::string timestamp;
        std::set<std::string> labels;
        bool has_labels;
        std::string metrics;
    } cases[] = {
        {"one record keeps its own labels",
         base_block().record(record_at(10, {{0, 1}}, labels_by_id(0, {1, 0}))), "10", {"device=1", "port=hca0"},
         true, R"([{"rx":1}])"},
        {"three records show the third",
         base_block()
             .record(record_at(1, {{0, 1}}, labels_by_id(0, {0, 0})))
             .record(record_at(2, {{1, 2}}, labels_by_id(0, {1, 1})))
             .record(record_at(3, {{0, 3}, {1, 4}}, labels_inline(0, {"x", "y"}))),
         "3", {"device=x", "port=y"}, true, R"([{"rx":3},{"tx":4}])"},
        {"unknown label set has no labels, constant labels or not",
         base_block().constant_labels({"site", "lab"}).record(record_at(4, {{1, 9}}, labels_by_id(5, {0}))), "4", {},
         false, R"([{"tx":9}])"},
        {"an earlier record's labels stay when a later set is unknown",
         base_block()
             .record(record_at(1, {}, labels_by_id(0, {0, 1})))
             .record(record_at(2, {{0, 5}}, labels_by_id(9, {}))),
         "2", {"device=hca0", "port=1"}, true, R"([{"rx":5}])"},
        {"set label wins over a constant label",
         base_block().constant_labels({"port", "const", "site", "lab"}).record(record_at(1, {}, labels_by_id(0, {0, 1}))),
         "1", {"device=hca0", "port=1", "site=lab"}, true, "[]"},
        {"fewer values than names",
         base_block().record(record_at(1, {}, labels_inline(0, {"only"}))), "1", {"device=only"}, true, "[]"},
        {"same metric twice stays twice",
         base_block().record(record_at(1, {{0, 1}, {0, 2}}, labels_by_id(0, {}))), "1", {}, true,
         R"([{"rx":1},{"rx":2}])"},
    };
    for (auto& c : cases) {
        JsonPtr root = to_json(parse_block(c.builder.build()));
        ASSERT_NE(root, nullptr) << c.name;
        EXPECT_EQ(json_text(json_object_get(root.get(), "timestamp")), c.timestamp) << c.name;
        EXPECT_EQ(json_object_get(root.get(), "labels") != nullptr, c.has_labels) << c.name;
        EXPECT_EQ(labels_of(root.get()), c.labels) << c.name;
        EXPECT_EQ(json_text(json_object_get(root.get(), "metrics")), c.metrics) << c.name;
    }
}

TEST_F(MetricsOutput, ValuesAreUnsignedIntegersTurnedIntoDoubles) {
    struct Case {
        const char* name;
        uint64_t timestamp;
        uint64_t value;
        std::string timestamp_text;
        std::string at_timestamp;
        std::string value_text;
    } cases[] = {
        {"zero time", 0, 0, "0", "1970-01-01 00:00:00.000", "0"},
        {"above 2^53 loses low bits", 1, (1ull << 53) + 1, "1", "1970-01-01 00:00:00.000", "9007199254740992"},
        {"int64 -1 reads as 2^64", 1500, ~0ull, "1500", "1970-01-01 00:00:00.001", "1.8446744073709552e+19"},
        {"a double's bits read as an integer", 1700000000123456ull, 0x3ff0000000000000ull, "1700000000123456",
         "2023-11-14 22:13:20.123", "4.6071824188000174e+18"},
    };
    for (const auto& c : cases) {
        BatchRecordSpec record = record_at(c.timestamp, {{0, c.value}}, labels_by_id(0, {}));
        record.value_type = 2;
        JsonPtr root = to_json(parse_block(base_block().record(record).build()));
        ASSERT_NE(root, nullptr) << c.name;
        EXPECT_EQ(json_text(json_object_get(root.get(), "timestamp")), c.timestamp_text) << c.name;
        EXPECT_EQ(json_string_value(json_object_get(root.get(), "@timestamp")), c.at_timestamp) << c.name;
        EXPECT_EQ(json_text(json_object_get(root.get(), "metrics")), "[{\"rx\":" + c.value_text + "}]") << c.name;
    }
}

TEST_F(MetricsOutput, CutAndCorruptedBlocksNeverReadOutside) {
    // Every prefix of the reference block, then random flips of one to three bytes; every
    // other input at debug level, where the parse also dumps and decodes the records.
    const Bytes block = example_block();
    std::vector<Bytes> inputs;
    for (size_t size = 0; size < block.size(); ++size) inputs.push_back(truncated(block, size));
    std::mt19937 random(20240301);
    for (int round = 0; round < 2000; ++round) {
        Bytes flipped = block;
        for (int i = 0, flips = 1 + static_cast<int>(random() % 3); i < flips; ++i)
            flipped[random() % flipped.size()] = static_cast<uint8_t>(random());
        inputs.push_back(flipped);
    }
    size_t printed = 0;
    for (size_t i = 0; i < inputs.size(); ++i) {
        LogCapture log(i % 2 ? OBX_LOG_DEBUG : OBX_LOG_ERROR);
        const Result result = process(inputs[i], OBX_OUTPUT_FORMAT_NDJSON);
        if (i < block.size()) {
            EXPECT_EQ(result.status, 0) << "prefix of " << i << " bytes";
        }
        // Whatever happens, the output is either nothing or one whole JSON line.
        if (result.out.empty()) continue;
        ++printed;
        EXPECT_EQ(result.status, 1) << i;
        EXPECT_EQ(result.out.find('\n'), result.out.size() - 1) << i;
        EXPECT_NE(json_parse(result.out), nullptr) << i;
    }
    // Many flips land in values and names: the good path must be exercised too.
    EXPECT_GT(printed, 100u);
}
