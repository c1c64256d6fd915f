#include "metrics/cntx_parser.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "fixtures/cntx_tables.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

Bytes from_hex(const std::string& text) {
    Bytes bytes;
    std::istringstream in(text);
    for (std::string byte; in >> byte;) bytes.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    return bytes;
}

// The error, or each record's samples ("0=7 / 0=1") and the constant labels, sorted (" {k=v}").
std::string summary(const CntxTables& t) {
    if (!t.error.empty()) return t.error;
    std::string text;
    for (const auto& record : t.batches) text += (&record == &t.batches[0] ? "" : " / ") + samples_text(record);
    for (const auto& [name, value] : std::map<std::string, std::string>(t.constant_labels.begin(), t.constant_labels.end()))
        text += " {" + name + "=" + value + "}";
    return text;
}

// One label set, one record: a block to break piece by piece.
CntxBuilder small_block() {
    CntxBuilder builder;
    builder.label_set({"device"}).label_values({"hca0"}).metric_names({"rx"}).record(
        record_at(5, {{0, 7}}, labels_by_id(0, {0})));
    return builder;
}

const std::string kPast = "Invalid binary data format: ";

}  // namespace

TEST(CntxParser, ReferenceBlockBytesAndDecoding) {
    const Bytes expected = from_hex(
        "43 4e 54 58 b5 00 00 00   4c 42 4c 4e 02 06 64 65 76 69 63 65 04 70 6f 72 74 00 00 00 00 "
        "4c 42 4c 56 02 00 04 68 63 61 30 01 31 6c 62 6c 76 "
        "43 4e 54 49 02 00 08 72 78 5f 62 79 74 65 73 08 74 78 5f 62 79 74 65 73 63 6e 74 69 "
        "43 4c 42 4c 02 00 04 73 69 74 65 03 6c 61 62 63 6c 62 6c   43 4e 54 44 48 00 00 00 "
        "27 00 00 40 1e 18 24 0a 06 00 43 01 02 00 00 00 64 00 00 00 00 00 00 00 01 00 c8 00 00 00 00 00 00 00 00 "
        "02 4c 00 01 "
        "21 00 40 82 2d 18 24 0a 06 00 47 01 01 00 01 00 fa 00 00 00 00 00 00 00 00 02 4d 4c 00 49 02 70 32 "
        "63 6e 74 64 63 6e 74 78");
    ASSERT_EQ(expected.size(), 181u);
    EXPECT_EQ(example_block(), expected);

    LogCapture log(OBX_LOG_DEBUG);
    const CntxTables t = parse_cntx(expected);
    ASSERT_EQ(t.error, "");
    EXPECT_EQ(t.label_names, (ObxLabelNames{{0, {"device", "port"}}}));
    ASSERT_EQ(summary(t), "0=100 1=200 / 1=250 {site=lab}");
    EXPECT_TRUE(t.batches[0].timestamp == 1700000000000000u && t.batches[1].timestamp == 1700000001000000u);
    EXPECT_EQ(decode_label_values(t.batches[1].labels, t.label_values), (std::vector<std::string>{"hca0", "p2"}));
    // The walk ends exactly at the records' end, 76: no third record is tried.
    EXPECT_TRUE(log.has("[obx metrics parser] offset=43 end=76") && !log.has("[obx metrics parser] offset=76 end=76"));
}

TEST(CntxParser, LabelSetsAreNumberedByAppearance) {
    const std::string past = kPast + "'LBLN' ";
    const ObxLabelNames stale = {{1, {"stale"}}, {5, {"kept"}}};
    // Label names found from those given, and the position reached; or the error.
    const struct { Bytes data; ObxLabelNames given, expected; size_t position; std::string error; } cases[] = {
        {ByteWriter().text("CNTXzzzzzzzz").take(), {}, {}, 4, ""},
        {Bytes{'C', 'N'}, {}, {}, 2, ""},
        {ByteWriter().text("CNTX").raw(label_names_section({"a", "b"})).text("junk").raw(label_names_section({"c"}))
             .text("tail").take(), {}, {{0, {"a", "b"}}, {1, {"c"}}}, 4 + 13 + 4 + 11, ""},
        {label_names_section({}), {}, {{0, {}}}, 9, ""},
        {label_names_section({"x"}, std::nullopt, "zzzz"), {}, {{0, {"x"}}}, 11, ""},  // trailer not compared
        {label_names_section({"x"}), stale, {{0, {"x"}}, {5, {"kept"}}}, 11, ""},  // the stopping number's entry goes
        {ByteWriter().text("LBLN").u8(3).short_string("a").take(), {}, {}, 0, past + "string runs past the end of the block"},
        {ByteWriter().text("LBLN").u8(1).short_string("a").u16(0).take(), {}, {}, 0,
         past + "trailer runs past the end of the block"},
    };
    for (const auto& c : cases) {
        ExactBuffer buffer(c.data);
        ObxLabelNames names = c.given;
        long position = 0;
        EXPECT_EQ(error_text([&] {
                      position = ObxMetricsParser::parse_label_names(buffer.begin(), buffer.end(), names) - buffer.begin();
                  }), c.error);
        EXPECT_TRUE(!c.error.empty() || (names == c.expected && position == long(c.position))) << c.position;
    }
}

TEST(CntxParser, PrefixedStringsAndTheSuffixRule) {
    const Bytes good = strings_section("LBLV", {"hca0", "1"}, "lblv"), bad = strings_section("LBLV", {"hca0", "1"}, "XXXX");
    const std::string missing_suffix = kPast + "Missing suffix", past = kPast + "'LBLV' string runs past the end of the block";
    const struct { Bytes data; std::vector<std::string> expected; size_t position; std::string error; } cases[] = {
        {ByteWriter().text("CNTIxxxx").take(), {}, 8, ""},
        {{}, {}, 0, ""},
        {good, {"hca0", "1"}, 17, ""},
        {ByteWriter().text("ab").raw(good).text("CNTI").take(), {"hca0", "1"}, 19, ""},
        {ByteWriter().raw(bad).text("CNTI").take(), {"hca0", "1"}, 17, ""},  // more data behind: not compared
        {bad, {"hca0", "1"}, 17, ""},
        {truncated(bad, 15), {}, 0, missing_suffix},
        {truncated(good, 16), {}, 0, missing_suffix},
        {ByteWriter().text("LBLV").u8(1).take(), {}, 0, kPast + "'LBLV' count runs past the end of the block"},
        {strings_section("LBLV", {"a"}, "lblv", 2), {}, 0, past},
        {ByteWriter().text("LBLV").u16(1).u8(9).text("abc").take(), {}, 0, past},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ExactBuffer buffer(c.data);
        std::vector<std::string> out = {"stale", "stale", "stale"};
        long position = 0;
        EXPECT_EQ(error_text([&] {
                      position = ObxMetricsParser::parse_prefixed_strings(buffer.begin(), buffer.end(), "LBLV", "lblv", out) -
                                 buffer.begin();
                  }), c.error);
        EXPECT_TRUE(!c.error.empty() || (out == c.expected && position == long(c.position))) << position;
        EXPECT_TRUE(c.error != missing_suffix || log.at(OBX_LOG_ERROR) == std::vector<std::string>{
                        "[obx metrics parser] Invalid binary data format: Missing 'lblv' suffix"}) << log.all();
    }
}

TEST(CntxParser, RecordsSectionEdges) {
    const std::string no_cntd = "Missing 'CNTD' magic number in the binary data";
    const struct { Bytes data; std::string error; } cases[] = {
        {{}, no_cntd},
        {ByteWriter().text("CNTD").u32(0).take(), "Invalid magic numbers in the binary data"},
        {ByteWriter().text("CNTD").u32(100).zeros(5).text("cntdcntx").take(), kPast + "batch record runs past the end of the block"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ExactBuffer buffer(c.data);
        EXPECT_EQ(error_text([&] { ObxMetricsParser::parse_metrics(buffer.begin(), buffer.end()); }), c.error);
        EXPECT_TRUE(c.error != no_cntd || log.at(OBX_LOG_ERROR) == std::vector<std::string>{
                        "[obx metrics parser] Invalid binary data format: Missing 'CNTD' magic number"}) << log.all();
    }
}

TEST(CntxParser, RecordShapesAndBlockSections) {
    BatchRecordFields high_length = record_at(1, {{0, 1}}, labels_by_id(0, {0})), zero_length = high_length;
    high_length.length = 9999, zero_length.length = 0;
    BatchRecordFields lying_samples = high_length, double_value = record_at(1, {{0, 1ull << 62}}, labels_by_id(0, {0}));
    lying_samples.length.reset(), lying_samples.num_samples = 300, double_value.value_type = 2;
    const std::string no_cntd = "Missing 'CNTD' magic number in the binary data";
    const struct { CntxBuilder builder; std::string expected; } cases[] = {
        {small_block().record(record_at(1, {}, labels_inline(0, {"x"}))), "0=7 / "},
        {small_block().record(high_length), "0=7 / 0=1"},  // length is not used
        {small_block().record(zero_length), "0=7 / 0=1"},
        {small_block().record(double_value), "0=7 / 0=4611686018427387904"},
        {small_block().record(record_at(1, {}, labels_by_id(0, {}), 'G')), "0=7 / "},
        {small_block().record(record_at(1, {}, labels_by_id(0, {}), 'c')), "invalid metric type"},  // only C and G
        {CntxBuilder().label_set({"d"}).label_values({"v"}).metric_names({"m"}), ""},  // no records, no error
        {small_block().hist(HistRecordFields{}).filler(ByteWriter().text("HISTjunk").take()), "0=7"},
        {small_block().blocksize(0xFFFFFFFFu), "0=7"},
        {small_block().label_values_suffix("oops"), "0=7"},  // more data behind: suffixes pass
        {small_block().end_marks("cntd", "CNTX"), "0=7"},
        {small_block().constant_labels({}), "0=7"},
        {small_block().constant_labels({"site", "lab", "rack", "r1"}), "0=7 {rack=r1} {site=lab}"},
        {small_block().constant_labels({"site", "a", "site", "b"}), "0=7 {site=b}"},
        {small_block().constant_labels({"site", "lab", "orphan"}), "0=7 {site=lab}"},
        {small_block().constant_labels({"k", "v"}).constant_labels_suffix("????"), "0=7 {k=v}"},
        {small_block().constant_labels({"k", "v"}).constant_labels_first(), "0=7 {k=v}"},
        {small_block().record(lying_samples), kPast + "batch samples run past the end of the block"},
        {small_block().blocksize(20), "start_offset exceeds data size"},
        {small_block().blocksize(27), "insufficient data for 'L' encoding"},
        {small_block().record(record_at(1, {}, LabelsBlockFields{0, 'Z', {}, std::nullopt})), "invalid encoding type"},
        {small_block().without_label_values(), no_cntd},  // the missing LBLV shows up as a missing CNTD
        {small_block().without_metric_names(), no_cntd},
        {small_block().without_cntd(), no_cntd},
        {small_block().end_marks("cntD", "cntx"), "Invalid magic numbers in the binary data"},
        {small_block().label_values_count(40), kPast + "'LBLV' string runs past the end of the block"},
        {small_block().label_set_count(0, 250), kPast + "'LBLN' string runs past the end of the block"},
        {small_block().record(record_at(1, {{0, 0x4e4c424cull}}, labels_by_id(0, {0}))), no_cntd},  // "LBLN"
    };
    for (const auto& c : cases) EXPECT_EQ(summary(parse_cntx(c.builder.build())), c.expected);
    // A block without label sets still reads each record's labels block.
    const CntxTables t = parse_cntx(CntxBuilder().label_values({"v"}).metric_names({"m"})
                                        .record(record_at(1, {{0, 1}}, labels_inline(3, {"a", "b"}))).build());
    ASSERT_TRUE(t.error.empty() && t.label_names.empty() && t.batches.size() == 1);
    EXPECT_TRUE(t.batches[0].label_set_id == 3 && t.batches[0].labels.size() == 2);
}

TEST(CntxParser, BadLabelIdFailsTheParseOnlyAtDebugLevel) {
    for (const uint32_t level : {OBX_LOG_INFO, OBX_LOG_DEBUG}) {  // at debug level records are dumped, labels decoded
        LogCapture log(level);
        EXPECT_EQ(parse_cntx(small_block().record(record_at(1, {}, labels_by_id(0, {1}))).build()).error,
                  level == OBX_LOG_DEBUG ? "Failed to decode label value at index 0: invalid label id format" : "");
    }
}
