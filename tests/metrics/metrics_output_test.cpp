#include "metrics/metrics_output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>

#include "data/reader_context.h"
#include "fixtures/cntx_tables.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"
#include "tools/read_options.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

// Every time below is printed as UTC, in this process and in the children it starts.
[[maybe_unused]] const bool kUtc = (setenv("TZ", "UTC", 1), tzset(), true);

// "<result>|<standard output>|<standard error>" of one call.
std::string process(const Bytes& buffer, uint32_t format, uint64_t records_printed = 0) {
    obx_read_options_t options{};
    options.format = static_cast<obx_output_format_t>(format);
    obx_reader_context_t context{};
    context.options = &options, context.path = "m.bin", context.records_printed = records_printed;
    ExactBuffer copy(buffer);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = obx_metrics_block_process(&context, copy.begin(), copy.size());
    const std::string err = testing::internal::GetCapturedStderr();
    return std::to_string(status) + "|" + testing::internal::GetCapturedStdout() + "|" + err;
}

JsonPtr to_json(const Bytes& block) {
    const CntxTables t = parse_cntx(block);
    EXPECT_EQ(t.error, "");
    return JsonPtr(obx_metrics_block_to_json(t.label_names, t.constant_labels, t.label_values, t.metric_names, t.batches));
}

CntxBuilder base_block() {
    CntxBuilder builder;
    builder.label_set({"port"}).label_values({"1", "hca0"}).metric_names({"rx", "tx"});
    return builder;
}

const std::string kReport = "Failed processing file m.bin: ";

}  // namespace

TEST(MetricsOutput, ReferenceBlockPrintsItsLastRecordOnOneLine) {
    const std::string result = process(example_block(), OBX_OUTPUT_FORMAT_NDJSON);
    ASSERT_EQ(result.substr(0, 2) + result.substr(result.size() - 2), "1|\n|");
    JsonPtr printed = json_parse(result.substr(2, result.size() - 4));
    // The labels come in the map's order; the rest of the line is fixed.
    const json_t* labels = json_object_get(printed.get(), "labels");
    std::set<std::string> entries;
    for (size_t i = 0; i < json_array_size(labels); ++i) entries.insert(json_text(json_array_get(labels, i)));
    EXPECT_EQ(entries, (std::set<std::string>{R"({"site":"lab"})", R"({"device":"hca0"})", R"({"port":"p2"})"}));
    EXPECT_EQ(result, R"(1|{"timestamp":1700000001000000,"@timestamp":"2023-11-14 22:13:21.000","labels":)" +
                          json_text(labels) + R"(,"metrics":[{"tx_bytes":250}]})" + "\n|");

    const std::string pretty = json_text(printed.get(), true);
    for (const uint64_t records_printed : {0, 1, 7})
        EXPECT_EQ(process(example_block(), OBX_OUTPUT_FORMAT_JSON, records_printed),
                  "1|" + std::string(records_printed ? ",\n" : "") + pretty + "|");
    const Bytes no_records = base_block().constant_labels({"site", "lab"}).build();
    EXPECT_EQ(process(no_records, OBX_OUTPUT_FORMAT_JSON), "1|{}|");
    EXPECT_EQ(process(no_records, OBX_OUTPUT_FORMAT_NDJSON), "1|{}\n|");
}

TEST(MetricsOutput, FormatsWithoutMetricsOutputComplainAndGoOn) {
    const std::string unsupported = "Unsupported output format";
    const struct { uint32_t format; std::string report; } cases[] = {
        {OBX_OUTPUT_FORMAT_CSV, "CSV output is not supported yet"},
        {OBX_OUTPUT_FORMAT_INFLUX, "Influx line API output is not yet supported for metrics data"},
        {OBX_OUTPUT_FORMAT_TXT, unsupported}, {OBX_OUTPUT_FORMAT_BIN, unsupported}, {77, unsupported}};
    for (const auto& c : cases) EXPECT_EQ(process(example_block(), c.format), "1||" + kReport + c.report + "\n");
}

TEST(MetricsOutput, BadBlocksFailBeforeAnyFormatIsConsidered) {
    const std::string no_cntd = "Missing 'CNTD' magic number in the binary data";
    const struct { Bytes buffer; std::string log; } cases[] = {
        {Bytes(64, 0), no_cntd},
        {example_block_builder().total_size(182).build(), "CNTX block size 182 exceeds the 181 bytes of the buffer"},
        {example_block_builder().total_size(15).build(), "CNTX block size 15 is below the 16 bytes of its head and end marks"},
        {example_block_builder().total_size(177).build(), "Invalid magic numbers in the binary data"},
        {truncated(example_block(), 120), "CNTX block size 181 exceeds the 120 bytes of the buffer"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(process(c.buffer, OBX_OUTPUT_FORMAT_INFLUX), "0||") << c.log;  // no format complaint for a bad block
        EXPECT_TRUE(log.has("failed to parse full block: " + c.log)) << log.all();
    }
    Bytes with_tail = example_block();
    with_tail.resize(4096, 0);  // a block at the head of a zero-filled chunk is good
    EXPECT_EQ(process(with_tail, OBX_OUTPUT_FORMAT_INFLUX).substr(0, 2), "1|");
}

TEST(MetricsOutput, BlockThatCannotBeJsonifiedFailsWithAReport) {
    const std::string allocating = "Failed allocating JSON object", jsonify = "failed to JSONify metrics: ";
    const struct { CntxBuilder builder; std::string log; } cases[] = {
        {base_block().record(record_at(1, {{2, 5}}, labels_by_id(0, {0}))), jsonify + "metric id 2 is past the 2 metric names"},
        {base_block().record(record_at(1, {}, labels_by_id(0, {0, 1}))),
         jsonify + "record has 2 label values but label set 0 has 1 names"},
        {base_block().record(record_at(1, {}, labels_by_id(0, {2}))),
         jsonify + "Failed to decode label value at index 0: invalid label id format"},
        {base_block().metric_names({"\xff"}).record(record_at(1, {{0, 1}}, labels_by_id(3, {}))), allocating},
    };
    for (const auto& c : cases) {
        LogCapture log(OBX_LOG_INFO);  // at debug level the parse itself would decode the labels
        EXPECT_EQ(process(c.builder.build(), OBX_OUTPUT_FORMAT_NDJSON), "0||" + kReport + "Failed to JSONify metric values\n");
        // Inner failures log their own detail first; the last line is the block's.
        const std::vector<std::string> errors = log.at(OBX_LOG_ERROR);
        ASSERT_FALSE(errors.empty());
        EXPECT_EQ(errors.back(), c.log);
    }
}

TEST(MetricsOutput, RecordsOverwriteOneRootObject) {
    const std::string zero_time = R"("@timestamp":"1970-01-01 00:00:00.000")";
    BatchRecordFields as_double = record_at(1700000000123456ull, {{0, 0x3ff0000000000000ull}}, labels_by_id(0, {}));
    as_double.value_type = 2;  // the bits of 1.0 still print as an unsigned integer
    const struct { CntxBuilder builder; std::string expected; } cases[] = {
        {base_block().record(record_at(0, {{0, 1}}, labels_by_id(0, {1}))),
         R"({"timestamp":0,)" + zero_time + R"(,"labels":[{"port":"hca0"}],"metrics":[{"rx":1}]})"},
        {base_block()
             .record(record_at(1, {{0, 1}}, labels_by_id(0, {0})))
             .record(record_at(2, {{1, 2}}, labels_by_id(0, {1})))
             .record(record_at(1500, {{0, 3}, {1, 4}}, labels_inline(0, {"x"}))),
         R"({"timestamp":1500,"@timestamp":"1970-01-01 00:00:00.001","labels":[{"port":"x"}],"metrics":[{"rx":3},{"tx":4}]})"},
        // An unknown label set has no labels, constant labels or not.
        {base_block().constant_labels({"site", "lab"}).record(record_at(0, {{1, 9}}, labels_by_id(5, {0}))),
         R"({"timestamp":0,)" + zero_time + R"(,"metrics":[{"tx":9}]})"},
        // An earlier record's labels stay when a later one's set is unknown.
        {base_block().record(record_at(0, {}, labels_by_id(0, {0}))).record(record_at(0, {{0, 5}}, labels_by_id(9, {}))),
         R"({"timestamp":0,)" + zero_time + R"(,"labels":[{"port":"1"}],"metrics":[{"rx":5}]})"},
        // A label of the set wins over a constant label of the same name.
        {base_block().constant_labels({"port", "const"}).record(record_at(0, {}, labels_by_id(0, {1}))),
         R"({"timestamp":0,)" + zero_time + R"(,"labels":[{"port":"hca0"}],"metrics":[]})"},
        {base_block().record(record_at(0, {{0, (1ull << 53) + 1}, {0, ~0ull}}, labels_by_id(0, {}))),
         R"({"timestamp":0,)" + zero_time + R"(,"labels":[],"metrics":[{"rx":9007199254740992},{"rx":1.8446744073709552e+19}]})"},
        {base_block().record(as_double), R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123",)"
                                         R"("labels":[],"metrics":[{"rx":4.6071824188000174e+18}]})"},
    };
    for (const auto& c : cases) EXPECT_EQ(json_text(to_json(c.builder.build()).get()), c.expected);
}

// CNTX blocks inside data files, read end to end by obx_read.
TEST(MetricsRead, OneValuePerBlockUntilABadBlockEndsTheFile) {
    const Bytes bad = example_block_builder().end_marks("xxxx", "cntx").build();
    const std::vector<Bytes> blocks = {example_block(), example_block_builder()
        .record(record_at(1700000002000000ull, {{0, 7}}, labels_by_id(0, {0, 1}))).build()};
    auto value_text = [](const Bytes& block, bool pretty) { return json_text(to_json(block).get(), pretty); };
    // Both blocks as compressed pages, back to back in one chunk.
    auto pages = [&blocks](Codec codec) {
        FrameFields frame;
        frame.codec = codec;
        Bytes chunk = page_frame(blocks[0], frame);
        const Bytes second = page_frame(blocks[1], frame);
        chunk.insert(chunk.end(), second.begin(), second.end());
        return std::vector<Bytes>{chunk};
    };
    const std::string both_lines = value_text(blocks[0], false) + "\n" + value_text(blocks[1], false) + "\n";
    TempDir dir;
    // Standard output exactly, and a text that standard error holds ("" for nothing at all).
    const struct { std::string format; std::vector<Bytes> chunks; int status; std::string out, err; } cases[] = {
        {"ndjson", blocks, 0, both_lines, ""},
        {"json", blocks, 0, "{\"m\":[" + value_text(blocks[0], true) + ",\n" + value_text(blocks[1], true) + "]}", ""},
        {"ndjson", pages(Codec::gzip), 0, both_lines, ""},
        {"ndjson", pages(Codec::snappy), 0, both_lines, ""},
        {"ndjson", {blocks[0], bad, blocks[1]}, 1, value_text(blocks[0], false) + "\n",
         "failed to parse full block: Invalid magic numbers in the binary data"},
    };
    for (const auto& c : cases) {
        FileHeaderFields header;
        header.block_size = 512;
        write_file(dir.file("m.bin"), data_file(header, c.chunks));
        const ProcessResult result = run_obx_read({"-s", dir.path(), "-f", c.format, dir.file("m.bin")});
        EXPECT_EQ(result.exit_status, c.status) << c.format << "\n" << result.err;
        EXPECT_EQ(result.out, c.out) << c.format;
        EXPECT_TRUE(c.err.empty() ? result.err.empty() : result.err.find(c.err) != std::string::npos) << result.err;
    }
}
