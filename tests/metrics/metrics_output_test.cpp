#include "metrics/metrics_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>

#include "data/reader/reader_context.h"
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
    testing::internal::CaptureStdout(), testing::internal::CaptureStderr();
    const int status = obx_metrics_block_process(&context, copy.begin(), copy.size());
    const std::string err = testing::internal::GetCapturedStderr();
    return std::to_string(status) + "|" + testing::internal::GetCapturedStdout() + "|" + err;
}

JsonPtr to_json(const Bytes& block) {
    const CntxTables t = parse_cntx(block);
    EXPECT_EQ(t.error, "");
    return JsonPtr(obx_metrics_block_to_json(t.label_names, t.constant_labels, t.label_values, t.metric_names, t.batches));
}

CntxBuilder base_block() { return CntxBuilder().label_set({"port"}).label_values({"1", "hca0"}).metric_names({"rx", "tx"}); }

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
    EXPECT_EQ(result, R"(1|{"timestamp":1700000001000000,"@timestamp":"2023-11-14 22:13:21.000","labels":)" + json_text(labels) + R"(,"metrics":[{"tx_bytes":250}]})" + "\n|");
    const std::string pretty = json_text(printed.get(), true);  // a separator only when records were printed before
    EXPECT_EQ(process(example_block(), OBX_OUTPUT_FORMAT_JSON, 0) + process(example_block(), OBX_OUTPUT_FORMAT_JSON, 1), "1|" + pretty + "|1|,\n" + pretty + "|");
    const Bytes no_records = base_block().constant_labels({"site", "lab"}).build();
    EXPECT_EQ(process(no_records, OBX_OUTPUT_FORMAT_JSON) + process(no_records, OBX_OUTPUT_FORMAT_NDJSON), "1|{}|1|{}\n|");
}

// Formats other than json and ndjson complain about a good block and go on; a bad block
// fails before any format is considered, and so does a block that cannot become JSON.
TEST(MetricsOutput, ComplaintsAndFailures) {
    const std::string parse = "failed to parse full block: ", jsonify = "failed to JSONify metrics: ", failed = "0||" + kReport + "Failed to JSONify metric values\n";
    const uint32_t influx = OBX_OUTPUT_FORMAT_INFLUX, ndjson = OBX_OUTPUT_FORMAT_NDJSON;
    Bytes with_tail = example_block();
    with_tail.resize(4096, 0);  // a block at the head of a zero-filled chunk is good
    // The result of the call, and an error line logged ("" for none looked at).
    const struct { Bytes buffer; uint32_t format; std::string result, log; } cases[] = {
        {example_block(), OBX_OUTPUT_FORMAT_CSV, "1||" + kReport + "CSV output is not supported yet\n", ""},
        {with_tail, influx, "1||" + kReport + "Influx line API output is not yet supported for metrics data\n", ""},
        {example_block(), OBX_OUTPUT_FORMAT_TXT, "1||" + kReport + "Unsupported output format\n", ""},
        {Bytes(64, 0), influx, "0||", parse + "Missing 'CNTD' magic number in the binary data"},
        {example_block_builder().total_size(182).build(), influx, "0||", parse + "CNTX block size 182 exceeds the 181 bytes of the buffer"},
        {example_block_builder().total_size(15).build(), influx, "0||", parse + "CNTX block size 15 is below the 16 bytes of its head and end marks"},
        {example_block_builder().total_size(44).build(), influx, "0||", parse + "Invalid binary data format: Missing suffix"},  // ends within "lblv"
        {base_block().record(record_at(1, {{2, 5}}, labels_by_id(0, {0}))).build(), ndjson, failed, jsonify + "metric id 2 is past the 2 metric names"},
        {base_block().record(record_at(1, {}, labels_by_id(0, {0, 1}))).build(), ndjson, failed, jsonify + "record has 2 label values but label set 0 has 1 names"},
        {base_block().record(record_at(1, {}, labels_by_id(0, {2}))).build(), ndjson, failed, jsonify + "Failed to decode label value at index 0: invalid label id format"},
        {base_block().label_values({"1", ""}).record(record_at(1, {}, labels_by_id(0, {1}))).build(), ndjson, failed, "[obx labels block] decode_label_value: empty string at label_values[1]"},  // an empty value is refused
        {base_block().metric_names({"\xff"}).record(record_at(1, {{0, 1}}, labels_by_id(3, {}))).build(), ndjson, failed, "Failed allocating JSON object"},
    };
    for (const auto& c : cases) {
        LogCapture log(OBX_LOG_INFO);  // at debug level the parse itself would decode the labels
        EXPECT_EQ(process(c.buffer, c.format), c.result);
        const std::vector<std::string> errors = log.at(OBX_LOG_ERROR);  // inner failures log their own detail first
        EXPECT_TRUE(c.log.empty() || std::find(errors.begin(), errors.end(), c.log) != errors.end()) << log.all();
    }
}

TEST(MetricsOutput, RecordsOverwriteOneRootObject) {
    const std::string zero = R"({"timestamp":0,"@timestamp":"1970-01-01 00:00:00.000",)";
    const struct { CntxBuilder builder; std::string expected; } cases[] = {
        {base_block().record(record_at(1, {{0, 1}}, labels_by_id(0, {0}))).record(record_at(2, {{1, 2}}, labels_by_id(0, {1}))).record(record_at(1500, {{0, 3}, {1, 4}}, labels_inline(0, {"x"}))), R"({"timestamp":1500,"@timestamp":"1970-01-01 00:00:00.001","labels":[{"port":"x"}],"metrics":[{"rx":3},{"tx":4}]})"},
        // An unknown label set has no labels, constant labels or not.
        {base_block().constant_labels({"site", "lab"}).record(record_at(0, {{1, 9}}, labels_by_id(5, {0}))), zero + R"("metrics":[{"tx":9}]})"},
        // An earlier record's labels stay when a later one's set is unknown.
        {base_block().record(record_at(0, {}, labels_by_id(0, {0}))).record(record_at(0, {{0, 5}}, labels_by_id(9, {}))), zero + R"("labels":[{"port":"1"}],"metrics":[{"rx":5}]})"},
        // Label sets are numbered as they come, one without names too.
        {base_block().label_set({}).label_set({"lane"}).record(record_at(0, {}, labels_by_id(2, {1}))), zero + R"("labels":[{"lane":"hca0"}],"metrics":[]})"},
        // A label of the set wins over a constant label of the same name.
        {base_block().constant_labels({"port", "const"}).record(record_at(0, {}, labels_by_id(0, {1}))), zero + R"("labels":[{"port":"hca0"}],"metrics":[]})"},
        // A value type of double changes nothing: the bits of 1.0 print as an unsigned integer.
        {base_block().record(BatchRecordFields{1700000000123456ull, 'C', 2, {{0, 0x3ff0000000000000ull}}, labels_by_id(0, {}), {}, {}}), R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","labels":[],"metrics":[{"rx":4.6071824188000174e+18}]})"},
    };
    for (const auto& c : cases) EXPECT_EQ(json_text(to_json(c.builder.build()).get()), c.expected);
}

// CNTX blocks inside data files, read end to end by obx_read.
TEST(MetricsRead, OneValuePerBlockUntilABadBlockEndsTheFile) {
    const Bytes first = example_block(), second = example_block_builder().record(record_at(1700000002000000ull, {{0, 7}}, labels_by_id(0, {0, 1}))).build(),
                bad = example_block_builder().end_marks("xxxx", "cntx").build();
    auto line = [](const Bytes& block, bool pretty = false) { return json_text(to_json(block).get(), pretty); };
    const std::string both_lines = line(first) + "\n" + line(second) + "\n";
    TempDir dir;
    FileHeaderFields header;
    header.block_size = 512;
    // Standard output exactly, and a text that standard error holds ("" for nothing at all).
    const struct { std::string format; std::vector<Bytes> chunks; int status; std::string out, err; } cases[] = {
        {"ndjson", {first, second}, 0, both_lines, ""},
        {"json", {first, second}, 0, "{\"m\":[" + line(first, true) + ",\n" + line(second, true) + "]}", ""},
        {"ndjson", {concat({page_frame(first), page_frame(second)})}, 0, both_lines, ""},  // in compressed pages
        {"ndjson", {first, bad, second}, 1, line(first) + "\n", "failed to parse full block: Invalid magic numbers in the binary data"},
    };
    for (const auto& c : cases) {
        write_file(dir.file("m.bin"), data_file(header, c.chunks));
        const ProcessResult result = run_obx_read({"-s", dir.path(), "-f", c.format, dir.file("m.bin")});
        EXPECT_EQ(std::to_string(result.exit_status) + " " + result.out, std::to_string(c.status) + " " + c.out) << c.format << "\n" << result.err;
        EXPECT_TRUE(c.err.empty() ? result.err.empty() : result.err.find(c.err) != std::string::npos) << result.err;
    }
}
