#include "metrics/cntx_parser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "fixtures/cntx_builder.h"
#include "fixtures/error_text.h"
#include "fixtures/exact_buffer.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

Bytes from_hex(const std::string& text) {
    Bytes bytes;
    std::istringstream in(text);
    std::string byte;
    while (in >> byte) bytes.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    return bytes;
}

struct ParsedBlock {
    ObxLabelNames label_names;
    std::vector<std::string> label_values;
    std::vector<std::string> metric_names;
    std::vector<MetricsBatchRecord> batches;
    std::string error;
};

ParsedBlock parse(const Bytes& block) {
    ExactBuffer buffer(block);
    ParsedBlock parsed;
    parsed.error = error_text([&] {
        ObxMetricsParser::parse_full_block(buffer.begin(), buffer.end(), parsed.label_names, parsed.label_values,
                                           parsed.metric_names, parsed.batches);
    });
    return parsed;
}

std::string samples_text(const MetricsBatchRecord& record) {
    std::string text;
    for (const auto& sample : record.batch.samples) {
        const unsigned id = sample.metric_id;
        const unsigned long value = sample.value;
        text += (text.empty() ? "" : " ") + std::to_string(id) + "=" + std::to_string(value);
    }
    return text;
}

BatchRecordSpec record_at(uint64_t timestamp, std::vector<SampleSpec> samples, LabelsBlockSpec labels,
                          uint8_t type = 'C') {
    BatchRecordSpec spec;
    spec.timestamp = timestamp;
    spec.type = type;
    spec.samples = std::move(samples);
    spec.labels = std::move(labels);
    return spec;
}

// A small block with one label set and one record, to break piece by piece.
CntxBuilder small_block() {
    CntxBuilder builder;
    builder.label_set({"device"}).label_values({"hca0"}).metric_names({"rx"}).record(
        record_at(5, {{0, 7}}, labels_by_id(0, {0})));
    return builder;
}

}  // namespace

TEST(CntxExampleBlock, BuilderMakesTheReferenceBytes) {
    const Bytes expected = from_hex(
        "43 4e 54 58 b5 00 00 00 "
        "4c 42 4c 4e 02 06 64 65 76 69 63 65 04 70 6f 72 74 00 00 00 00 "
        "4c 42 4c 56 02 00 04 68 63 61 30 01 31 6c 62 6c 76 "
        "43 4e 54 49 02 00 08 72 78 5f 62 79 74 65 73 08 74 78 5f 62 79 74 65 73 63 6e 74 69 "
        "43 4c 42 4c 02 00 04 73 69 74 65 03 6c 61 62 63 6c 62 6c "
        "43 4e 54 44 48 00 00 00 "
        "27 00 00 40 1e 18 24 0a 06 00 43 01 02 00 00 00 64 00 00 00 00 00 00 00 01 00 c8 00 00 00 00 00 00 00 00 "
        "02 4c 00 01 "
        "21 00 40 82 2d 18 24 0a 06 00 47 01 01 00 01 00 fa 00 00 00 00 00 00 00 00 02 4d 4c 00 49 02 70 32 "
        "63 6e 74 64 63 6e 74 78");
    ASSERT_EQ(expected.size(), 181u);
    EXPECT_EQ(example_block(), expected);
}

TEST(CntxExampleBlock, DecodesToTwoRecords) {
    const Bytes block = example_block();
    const ParsedBlock parsed = parse(block);
    ASSERT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.label_names, (ObxLabelNames{{0, {"device", "port"}}}));
    EXPECT_EQ(parsed.label_values, (std::vector<std::string>{"hca0", "1"}));
    EXPECT_EQ(parsed.metric_names, (std::vector<std::string>{"rx_bytes", "tx_bytes"}));
    ASSERT_EQ(parsed.batches.size(), 2u);

    const auto& first = parsed.batches[0];
    EXPECT_EQ(first.timestamp, 1700000000000000u);
    EXPECT_EQ(samples_text(first), "0=100 1=200");
    EXPECT_EQ(first.label_set_id, 0u);
    EXPECT_EQ(decode_label_values(first.labels, parsed.label_values), (std::vector<std::string>{"hca0", "1"}));
    EXPECT_EQ(first.batch.reserved, 0u);

    const auto& second = parsed.batches[1];
    EXPECT_EQ(second.timestamp, 1700000001000000u);
    EXPECT_EQ(samples_text(second), "1=250");
    EXPECT_EQ(decode_label_values(second.labels, parsed.label_values), (std::vector<std::string>{"hca0", "p2"}));

    ExactBuffer buffer(block);
    EXPECT_EQ(ObxMetricsParser::parse_constant_labels(buffer.begin(), buffer.end()),
              (ObxConstantLabels{{"site", "lab"}}));
    EXPECT_EQ(ObxMetricsParser::get_total_size(buffer.begin(), buffer.end()), 181u);
}

TEST(CntxExampleBlock, DebugTraceOfTheWalk) {
    LogCapture log(OBX_LOG_DEBUG);
    const Bytes block = example_block_builder().label_set({}).build();
    ExactBuffer buffer(block);
    ObxMetricsParser::get_total_size(buffer.begin(), buffer.end());
    ASSERT_EQ(parse(block).error, "");
    const char* expected[] = {
        "[obx metrics parser] total_size: 190",
        "[obx metrics parser] Label Names [0] device,port",
        "[obx metrics parser] empty label names vector",
        "[obx metrics parser] Label values count: 2",
        "[obx metrics parser] Values: 'hca0,1', Size: 2",
        "[obx metrics parser] Metric names count: 2",
        "[obx metrics parser] Values: 'rx_bytes,tx_bytes', Size: 2",
        "[obx metrics parser] data_len = 88",
        "[obx metrics parser] End of data at 76",
        "[obx metrics parser] blocksize= 72",
        "[obx metrics parser] offset=4 end=76",
        "[obx metrics parser] offset=43 end=76",
        "[obx metrics parser] Metrics Batch: ",
        "[obx metrics parser] Timestamp: 1700000000000000",
        "[obx metrics parser]   sample_id: 0, sample_value: 100",
        "[obx metrics parser]   sample_id: 1, sample_value: 200",
        "[obx metrics parser] encoded label: label_value_id: 0, decoded label[0]: hca0",
        "[obx metrics parser] encoded label: label_value_id: 1, decoded label[1]: 1",
        "[obx metrics parser] encoded label: label_value: 0, decoded label[1]: p2",
    };
    for (const char* line : expected) EXPECT_TRUE(log.has(line)) << line << "\n" << log.all();
    // The walk ends exactly at the records' end: no third offset line.
    EXPECT_FALSE(log.has("[obx metrics parser] offset=76 end=76"));
}

TEST(CntxGetTotalSize, FirstWholeMagicOrZero) {
    struct Case {
        const char* name;
        Bytes data;
        uint64_t expected;
    } cases[] = {
        {"empty", {}, 0},
        {"no magic", ByteWriter().text("CNTDxxxxxxxx").take(), 0},
        {"magic at the start", ByteWriter().text("CNTX").u32(300).take(), 300},
        {"magic behind other bytes", ByteWriter().text("abc").text("CNTX").u32(0x01020304).text("CNTX").u32(9).take(),
         0x01020304},
        {"size field cut", ByteWriter().text("CNTX").u16(5).take(), 0},
        {"lower-case magic", ByteWriter().text("cntx").u32(300).take(), 0},
    };
    for (const auto& c : cases) {
        LogCapture log(OBX_LOG_DEBUG);
        ExactBuffer buffer(c.data);
        EXPECT_EQ(ObxMetricsParser::get_total_size(buffer.begin(), buffer.end()), c.expected) << c.name;
        if (c.expected == 0) {
            EXPECT_TRUE(log.has("[obx metrics parser] Missing 'CNTX' magic number in the binary data")) << c.name;
        }
    }
}

TEST(CntxLabelNames, SetsAreNumberedByAppearance) {
    const std::string past_end = "Invalid binary data format: 'LBLN' ";
    struct Case {
        const char* name;
        Bytes data;
        ObxLabelNames prefilled;
        ObxLabelNames expected;
        size_t expected_position;
        std::string error;
    } cases[] = {
        {"none", ByteWriter().text("CNTXzzzzzzzz").take(), {}, {}, 4, ""},
        {"none, shorter than a magic", Bytes{'C', 'N'}, {}, {}, 2, ""},
        {"two sets and bytes between",
         ByteWriter().text("CNTX").raw(label_names_section({"a", "b"})).text("junk").raw(label_names_section({"c"}))
             .text("tail").take(),
         {}, {{0, {"a", "b"}}, {1, {"c"}}}, 4 + 13 + 4 + 11, ""},
        {"count 0 gives a set without names", label_names_section({}), {}, {{0, {}}}, 9, ""},
        {"trailer not compared", label_names_section({"x"}, std::nullopt, "zzzz"), {}, {{0, {"x"}}}, 11, ""},
        {"entry at the stopping number is removed", label_names_section({"x"}), {{1, {"stale"}}, {5, {"kept"}}},
         {{0, {"x"}}, {5, {"kept"}}}, 11, ""},
        {"count cut", ByteWriter().text("LBLN").take(), {}, {}, 0, past_end + "count runs past the end of the block"},
        {"count lies", ByteWriter().text("LBLN").u8(3).short_string("a").take(), {}, {}, 0,
         past_end + "string runs past the end of the block"},
        {"length lies", ByteWriter().text("LBLN").u8(1).u8(200).text("abc").take(), {}, {}, 0,
         past_end + "string runs past the end of the block"},
        {"trailer cut", ByteWriter().text("LBLN").u8(1).short_string("a").u16(0).take(), {}, {}, 0,
         past_end + "trailer runs past the end of the block"},
    };
    for (const auto& c : cases) {
        ExactBuffer buffer(c.data);
        ObxLabelNames names = c.prefilled;
        const uint8_t* position = nullptr;
        EXPECT_EQ(error_text([&] { position = ObxMetricsParser::parse_label_names(buffer.begin(), buffer.end(), names); }),
                  c.error)
            << c.name;
        if (!c.error.empty()) continue;
        EXPECT_EQ(names, c.expected) << c.name;
        EXPECT_EQ(static_cast<size_t>(position - buffer.begin()), c.expected_position) << c.name;
    }
}

TEST(CntxPrefixedStrings, SectionsAndTheSuffixRule) {
    const Bytes well_formed = strings_section("LBLV", {"hca0", "1"}, "lblv");
    const Bytes wrong_suffix = strings_section("LBLV", {"hca0", "1"}, "XXXX");
    const Bytes more = ByteWriter().text("CNTI").take();
    struct Case {
        const char* name;
        Bytes data;
        std::vector<std::string> expected;
        size_t expected_position;  // from the data's start
        std::string error;
    } cases[] = {
        {"no prefix", ByteWriter().text("CNTIxxxx").take(), {}, 8, ""},
        {"empty range", {}, {}, 0, ""},
        {"suffix ends the range", well_formed, {"hca0", "1"}, 17, ""},
        {"data behind", ByteWriter().text("ab").raw(well_formed).raw(more).take(), {"hca0", "1"}, 19, ""},
        {"wrong suffix with data behind passes", ByteWriter().raw(wrong_suffix).raw(more).take(), {"hca0", "1"}, 17,
         ""},
        {"wrong suffix filling the last four bytes passes", wrong_suffix, {"hca0", "1"}, 17, ""},
        {"wrong suffix cut by the range's end", truncated(wrong_suffix, 15), {}, 0,
         "Invalid binary data format: Missing suffix"},
        {"right suffix cut by the range's end", truncated(well_formed, 16), {}, 0,
         "Invalid binary data format: Missing suffix"},
        {"no room for a suffix at all", truncated(well_formed, 13), {}, 0,
         "Invalid binary data format: Missing suffix"},
        {"count 0", strings_section("LBLV", {}, "lblv"), {}, 10, ""},
        {"count cut", ByteWriter().text("LBLV").u8(1).take(), {}, 0,
         "Invalid binary data format: 'LBLV' count runs past the end of the block"},
        {"count lies", strings_section("LBLV", {"a"}, "lblv", 2), {}, 0,
         "Invalid binary data format: 'LBLV' string runs past the end of the block"},
        {"count beyond the bytes", strings_section("LBLV", {"a"}, "", 60000), {}, 0,
         "Invalid binary data format: 'LBLV' string runs past the end of the block"},
        {"length lies", ByteWriter().text("LBLV").u16(1).u8(9).text("abc").take(), {}, 0,
         "Invalid binary data format: 'LBLV' string runs past the end of the block"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ExactBuffer buffer(c.data);
        std::vector<std::string> out = {"stale", "stale", "stale"};
        const uint8_t* position = nullptr;
        const std::string error = error_text([&] {
            position = ObxMetricsParser::parse_prefixed_strings(buffer.begin(), buffer.end(), "LBLV", "lblv", out);
        });
        EXPECT_EQ(error, c.error) << c.name;
        if (!c.error.empty()) {
            if (c.error.find("suffix") != std::string::npos) {
                EXPECT_EQ(log.at(OBX_LOG_ERROR),
                          std::vector<std::string>{"[obx metrics parser] Invalid binary data format: Missing 'lblv' suffix"})
                    << c.name;
            }
            continue;
        }
        EXPECT_EQ(out, c.expected) << c.name;
        EXPECT_EQ(static_cast<size_t>(position - buffer.begin()), c.expected_position) << c.name;
    }
}

TEST(CntxMetrics, RecordsSectionEdges) {
    struct Case {
        const char* name;
        Bytes data;
        size_t records;
        std::string error;
    } cases[] = {
        {"empty range", {}, 0, "Missing 'CNTD' magic number in the binary data"},
        {"no CNTD", ByteWriter().text("cntdcntx").take(), 0, "Missing 'CNTD' magic number in the binary data"},
        {"no records", ByteWriter().text("CNTD").u32(0).text("cntdcntx").take(), 0, ""},
        {"cntd mark wrong", ByteWriter().text("CNTD").u32(0).text("cntDcntx").take(), 0,
         "Invalid magic numbers in the binary data"},
        {"end marks missing", ByteWriter().text("CNTD").u32(0).take(), 0, "Invalid magic numbers in the binary data"},
        {"final cntx not checked", ByteWriter().text("CNTD").u32(0).text("cntdXXXX").take(), 0, ""},
        // Five bytes of records: too few for a record even running on into the end marks.
        {"record cut short of its fixed part", ByteWriter().text("CNTD").u32(100).zeros(5).text("cntdcntx").take(), 0,
         "Invalid binary data format: batch record runs past the end of the block"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ExactBuffer buffer(c.data);
        std::vector<MetricsBatchRecord> records;
        EXPECT_EQ(error_text([&] { records = ObxMetricsParser::parse_metrics(buffer.begin(), buffer.end()); }), c.error)
            << c.name;
        EXPECT_EQ(records.size(), c.records) << c.name;
        if (c.error.rfind("Missing 'CNTD'", 0) == 0) {
            EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{
                                                 "[obx metrics parser] Invalid binary data format: Missing 'CNTD' magic number"})
                << c.name;
        }
    }
}

TEST(CntxMetrics, KindLetterAcceptsOnlyCAndG) {
    for (int type = 0; type < 256; ++type) {
        LogCapture log;
        const ParsedBlock parsed =
            parse(small_block().record(record_at(6, {}, labels_by_id(0, {}), static_cast<uint8_t>(type))).build());
        const bool accepted = type == 'C' || type == 'G';
        EXPECT_EQ(parsed.error, accepted ? "" : "invalid metric type") << "type " << type;
        if (!accepted) {
            EXPECT_TRUE(log.has("[obx metrics parser] invalid metric type")) << type;
        }
    }
}

TEST(CntxMetrics, RecordShapes) {
    struct Case {
        const char* name;
        CntxBuilder builder;
        std::vector<std::string> samples;  // per record
        std::string error;
    };
    BatchRecordSpec lying_length = record_at(1, {{0, 1}}, labels_by_id(0, {0}));
    lying_length.length = 9999;
    BatchRecordSpec zero_length = lying_length;
    zero_length.length = 0;
    BatchRecordSpec lying_samples = record_at(1, {{0, 1}}, labels_by_id(0, {0}));
    lying_samples.num_samples = 300;
    BatchRecordSpec double_value = record_at(1, {{0, 0x4000000000000000ull}}, labels_by_id(0, {0}));
    double_value.value_type = 2;

    Case cases[] = {
        {"no samples", small_block().record(record_at(1, {}, labels_inline(0, {"x"}))), {"0=7", ""}, ""},
        {"length ignored, high", small_block().record(lying_length), {"0=7", "0=1"}, ""},
        {"length ignored, zero", small_block().record(zero_length), {"0=7", "0=1"}, ""},
        {"value type ignored", small_block().record(double_value), {"0=7", "0=4611686018427387904"}, ""},
        {"HIST records before CNTD are not read",
         small_block().hist(HistRecordSpec{}).filler(ByteWriter().text("HISTjunk").take()), {"0=7"}, ""},
        {"constant labels first", small_block().constant_labels({"a", "b"}).constant_labels_first(), {"0=7"}, ""},
        {"huge blocksize stays inside the block", small_block().blocksize(0xFFFFFFFFu), {"0=7"}, ""},
        {"samples lie", small_block().record(lying_samples), {}, "Invalid binary data format: batch samples run past the end of the block"},
        {"blocksize shorter than the samples", small_block().blocksize(20), {}, "start_offset exceeds data size"},
        {"blocksize cuts the labels block", small_block().blocksize(27), {}, "insufficient data for 'L' encoding"},
        {"bad labels block", small_block().record(record_at(1, {}, LabelsBlockSpec{0, 'Z', {}, std::nullopt})), {},
         "invalid encoding type"},
    };
    for (auto& c : cases) {
        const ParsedBlock parsed = parse(c.builder.build());
        EXPECT_EQ(parsed.error, c.error) << c.name;
        if (!c.error.empty()) continue;
        std::vector<std::string> samples;
        for (const auto& record : parsed.batches) samples.push_back(samples_text(record));
        EXPECT_EQ(samples, c.samples) << c.name;
    }
}

TEST(CntxBatchHeader, KeysHoldTheirTypes) {
    const Bytes record = batch_record(record_at(1700000000000000ull, {{1, 250}, {0, 3}}, labels_by_id(0, {0}), 'G'));
    ExactBuffer buffer(record);
    const ObxBatchHeader header = ObxMetricsParser::parse_batch_header(buffer.begin(), buffer.end());
    EXPECT_EQ(header.size(), 5u);
    EXPECT_EQ(boost::any_cast<uint16_t>(header.at("length")), record.size());
    EXPECT_EQ(boost::any_cast<uint64_t>(header.at("timestamp")), 1700000000000000u);
    EXPECT_EQ(boost::any_cast<uint64_t>(header.at("num_samples")), 2u);
    EXPECT_EQ(boost::any_cast<std::string>(header.at("type")), "G");
    MetricsBatchRecord holder;
    holder.batch = boost::any_cast<obx::metrics::MetricsBatch>(header.at("metrics"));
    EXPECT_EQ(samples_text(holder), "1=250 0=3");
    EXPECT_THROW(boost::any_cast<uint32_t>(header.at("num_samples")), boost::bad_any_cast);
}

TEST(CntxConstantLabels, PairsOfNamesAndValues) {
    struct Case {
        const char* name;
        CntxBuilder builder;
        ObxConstantLabels expected;
    } cases[] = {
        {"none", small_block(), {}},
        {"count 0", small_block().constant_labels({}), {}},
        {"two pairs", small_block().constant_labels({"site", "lab", "rack", "r1"}), {{"site", "lab"}, {"rack", "r1"}}},
        {"repeated name takes the later value", small_block().constant_labels({"site", "a", "site", "b"}),
         {{"site", "b"}}},
        {"odd count drops the last name", small_block().constant_labels({"site", "lab", "orphan"}), {{"site", "lab"}}},
        {"before the label sets", small_block().constant_labels({"k", "v"}).constant_labels_first(), {{"k", "v"}}},
        {"wrong suffix with data behind", small_block().constant_labels({"k", "v"}).constant_labels_suffix("????"),
         {{"k", "v"}}},
    };
    for (auto& c : cases) {
        const Bytes block = c.builder.build();
        ASSERT_EQ(parse(block).error, "") << c.name;
        ExactBuffer buffer(block);
        EXPECT_EQ(ObxMetricsParser::parse_constant_labels(buffer.begin(), buffer.end()), c.expected) << c.name;
    }
}

TEST(CntxFullBlock, MissingAndMisplacedSections) {
    struct Case {
        const char* name;
        CntxBuilder builder;
        std::string error;
    } cases[] = {
        {"LBLV missing reports the missing CNTD", small_block().without_label_values(),
         "Missing 'CNTD' magic number in the binary data"},
        {"CNTI missing reports the missing CNTD", small_block().without_metric_names(),
         "Missing 'CNTD' magic number in the binary data"},
        {"CNTD missing", small_block().without_cntd(), "Missing 'CNTD' magic number in the binary data"},
        {"end marks wrong", small_block().end_marks("cntD", "cntx"), "Invalid magic numbers in the binary data"},
        {"final cntx wrong is accepted", small_block().end_marks("cntd", "CNTX"), ""},
        {"wrong lblv suffix with data behind", small_block().label_values_suffix("oops"), ""},
        {"wrong cnti suffix with data behind", small_block().metric_names_suffix("oops"), ""},
        {"LBLV count lies", small_block().label_values_count(40),
         "Invalid binary data format: 'LBLV' string runs past the end of the block"},
        {"CNTI count lies", small_block().metric_names_count(1000),
         "Invalid binary data format: 'CNTI' string runs past the end of the block"},
        {"LBLN count lies", small_block().label_set_count(0, 250),
         "Invalid binary data format: 'LBLN' string runs past the end of the block"},
        {"LBLN in a sample value is taken for a section",
         small_block().record(record_at(1, {{0, 0x4e4c424cull}}, labels_by_id(0, {0}))),
         "Missing 'CNTD' magic number in the binary data"},
    };
    for (auto& c : cases) EXPECT_EQ(parse(c.builder.build()).error, c.error) << c.name;
}

TEST(CntxFullBlock, BlockWithoutLabelSetsStillReadsLabels) {
    CntxBuilder builder;
    builder.label_values({"v"}).metric_names({"m"}).record(record_at(1, {{0, 1}}, labels_inline(3, {"a", "b"})));
    const ParsedBlock parsed = parse(builder.build());
    ASSERT_EQ(parsed.error, "");
    EXPECT_TRUE(parsed.label_names.empty());
    ASSERT_EQ(parsed.batches.size(), 1u);
    EXPECT_EQ(parsed.batches[0].label_set_id, 3u);
    EXPECT_EQ(parsed.batches[0].labels.size(), 2u);
}

TEST(CntxFullBlock, BadLabelIdFailsTheParseOnlyAtDebugLevel) {
    // At debug level the records are dumped with their decoded labels.
    struct Case {
        uint32_t level;
        std::string error;
    } cases[] = {
        {OBX_LOG_INFO, ""},
        {OBX_LOG_DEBUG, "Failed to decode label value at index 0: invalid label id format"},
    };
    for (const auto& c : cases) {
        LogCapture log(c.level);
        EXPECT_EQ(parse(small_block().record(record_at(1, {}, labels_by_id(0, {1}))).build()).error, c.error)
            << "level " << c.level;
    }
}
