// CNTX blocks inside data files, read end to end by obx_read.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "fixtures/cntx_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"
#include "metrics/metrics_output.h"

using namespace obx_test;

namespace {

ProcessResult read_chunks(const TempDir& dir, const std::vector<Bytes>& chunks, const std::string& format) {
    FileHeaderSpec header;
    header.block_size = 256;
    write_file(dir.file("m.bin"), data_file(header, chunks));
    ProcessOptions options;
    options.environment = {"TZ=UTC"};
    return run_obx_read({"-s", dir.path(), "-f", format, dir.file("m.bin")}, options);
}

// The block's value as this process builds it, in the same time zone as the child.
std::string value_text(const Bytes& block, bool pretty) {
    setenv("TZ", "UTC", 1);
    tzset();
    ObxLabelNames names;
    std::vector<std::string> values, metrics;
    std::vector<MetricsBatchRecord> batches;
    ObxMetricsParser::parse_full_block(block.data(), block.data() + block.size(), names, values, metrics, batches);
    const ObxConstantLabels constants = ObxMetricsParser::parse_constant_labels(block.data(), block.data() + block.size());
    JsonPtr value(obx_metrics_block_to_json(names, constants, values, metrics, batches));
    return json_text(value.get(), pretty);
}

Bytes later_block() {
    BatchRecordSpec spec;
    spec.timestamp = 1700000002000000ull;
    spec.samples = {{0, 7}};
    spec.labels = labels_by_id(0, {0, 1});
    return example_block_builder().record(spec).build();
}

}  // namespace

TEST(MetricsRead, OneValuePerBlockInEachJsonFormat) {
    TempDir dir;
    const Bytes first = example_block();
    const Bytes second = later_block();
    struct Case {
        std::string format;
        std::string expected;
    } cases[] = {
        {"ndjson", value_text(first, false) + "\n" + value_text(second, false) + "\n"},
        {"json", "{\"m\":[" + value_text(first, true) + ",\n" + value_text(second, true) + "]}"},
    };
    for (const auto& c : cases) {
        const ProcessResult result = read_chunks(dir, {first, second}, c.format);
        EXPECT_EQ(result.exit_status, 0) << c.format << "\n" << result.err;
        EXPECT_EQ(result.out, c.expected) << c.format;
    }
}

TEST(MetricsRead, BadBlockEndsTheFileAfterWhatWasPrinted) {
    TempDir dir;
    const Bytes bad = example_block_builder().end_marks("xxxx", "cntx").build();
    const ProcessResult result = read_chunks(dir, {example_block(), bad, later_block()}, "ndjson");
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, value_text(example_block(), false) + "\n");
    EXPECT_NE(result.err.find("failed to parse full block: Invalid magic numbers in the binary data"), std::string::npos)
        << result.err;
}

TEST(MetricsRead, InfluxRefusesEachBlockAndTheRunGoesOn) {
    TempDir dir;
    const ProcessResult result = read_chunks(dir, {example_block(), later_block()}, "influx");
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    const std::string report =
        "Failed processing file " + dir.file("m.bin") + ": Influx line API output is not yet supported for metrics data\n";
    EXPECT_EQ(result.err, report + report);
}
