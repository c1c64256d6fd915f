#include "metrics/cntx_parser.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "fixtures/cntx_tables.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

static Bytes from_hex(const std::string& text) {
    Bytes bytes;
    std::istringstream in(text);
    for (std::string byte; in >> byte;) bytes.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    return bytes;
}

// The error, or each record's samples ("0=7 / 0=1") and the constant labels, sorted (" {k=v}").
static std::string summary(const CntxTables& t) {
    if (!t.error.empty()) return t.error;
    std::string text;
    for (const auto& record : t.batches) text += (&record == &t.batches[0] ? "" : " / ") + samples_text(record);
    for (const auto& [name, value] : std::map<std::string, std::string>(t.constant_labels.begin(), t.constant_labels.end())) text += " {" + name + "=" + value + "}";
    return text;
}

// One label set, one record: a block to break piece by piece.
static CntxBuilder small_block() { return CntxBuilder().label_set({"device"}).label_values({"hca0"}).metric_names({"rx"}).record(record_at(5, {{0, 7}}, labels_by_id(0, {0}))); }

const std::string kPast = "Invalid binary data format: ", kNoCntd = "Missing 'CNTD' magic number in the binary data";

TEST(CntxParser, ReferenceBlockBytesAndDecoding) {
    const Bytes expected = from_hex(
        "43 4e 54 58 b5 00 00 00  4c 42 4c 4e 02 06 64 65 76 69 63 65 04 70 6f 72 74 00 00 00 00  4c 42 4c 56 02 00 04 68 63 61 30 01 31 6c 62 6c 76 "
        "43 4e 54 49 02 00 08 72 78 5f 62 79 74 65 73 08 74 78 5f 62 79 74 65 73 63 6e 74 69  43 4c 42 4c 02 00 04 73 69 74 65 03 6c 61 62 63 6c 62 6c "
        "43 4e 54 44 48 00 00 00  27 00 00 40 1e 18 24 0a 06 00 43 01 02 00 00 00 64 00 00 00 00 00 00 00 01 00 c8 00 00 00 00 00 00 00 00 02 4c 00 01 "
        "21 00 40 82 2d 18 24 0a 06 00 47 01 01 00 01 00 fa 00 00 00 00 00 00 00 00 02 4d 4c 00 49 02 70 32  63 6e 74 64 63 6e 74 78");
    ASSERT_EQ(expected.size(), 181u);
    EXPECT_EQ(example_block(), expected);
    const CntxTables t = parse_cntx(expected);
    ASSERT_EQ(summary(t), "0=100 1=200 / 1=250 {site=lab}");
    EXPECT_EQ(t.label_names, (ObxLabelNames{{0, {"device", "port"}}}));
    EXPECT_TRUE(t.batches[0].timestamp == 1700000000000000u && t.batches[1].timestamp == 1700000001000000u);
    EXPECT_EQ(decode_label_values(t.batches[1].labels, t.label_values), (std::vector<std::string>{"hca0", "p2"}));
}

TEST(CntxParser, BlocksAsTheToolReadsThem) {
    BatchRecordFields zero_length = record_at(1, {{0, 1}}, labels_by_id(0, {0})), lying_samples = zero_length;
    zero_length.length = 0, lying_samples.num_samples = 300;
    // A labels block of 10 bytes, the size of a sample: counted as a second sample, the
    // samples end exactly where the records do; a third would pass that end.
    BatchRecordFields to_the_end = record_at(1, {{0, 1}}, labels_by_id(0, {0, 0, 0, 0, 0, 0, 0})), past_the_end = to_the_end;
    to_the_end.num_samples = 2, past_the_end.num_samples = 3;
    const struct { CntxBuilder builder; std::string expected; } cases[] = {
        {small_block().record(record_at(1, {}, labels_inline(0, {"x"}))), "0=7 / "},  // labels right behind the head
        {small_block().record(zero_length), "0=7 / 0=1"},  // length is not used
        {small_block().record(record_at(1, {}, labels_by_id(0, {}), 'H')), "invalid metric type"},  // only C and G
        {CntxBuilder().label_set({"d"}).label_values({"v"}).metric_names({"m"}), ""},  // no records, no error
        // Without label sets each record's labels block is still read: the next record is found behind it.
        {CntxBuilder().label_values({"v"}).metric_names({"m"}).record(record_at(1, {{0, 1}}, labels_inline(3, {"a", "b"}))).record(record_at(2, {{0, 2}}, labels_by_id(0, {}))), "0=1 / 0=2"},
        {small_block().blocksize(0xFFFFFFFFu), "0=7"},
        {small_block().blocksize(27), "insufficient data for 'L' encoding"},  // labels end blocksize bytes on
        {small_block().label_values_suffix("oops"), "0=7"},  // more data behind: suffixes pass
        {small_block().end_marks("cntD", "cntx"), "Invalid magic numbers in the binary data"},
        {small_block().constant_labels({"site", "a", "rack", "r1", "site", "b"}), "0=7 {rack=r1} {site=b}"},
        {small_block().constant_labels({"site", "lab", "orphan"}), "0=7 {site=lab}"},
        {small_block().record(lying_samples), kPast + "batch samples run past the end of the block"},
        {small_block().record(to_the_end), "invalid encoding type"},  // its labels are then read from "cntd"
        {small_block().record(past_the_end), kPast + "batch samples run past the end of the block"},
        {small_block().end_marks("cntd", "xxxx"), "0=7"},  // this path compares "cntd" alone
        {small_block().label_set_count(250), kPast + "'LBLN' string runs past the end of the block"},
        {small_block().without_label_values(), kNoCntd},  // the missing LBLV shows up as a missing CNTD
        {small_block().record(record_at(1, {{0, 0x4e4c424cull}}, labels_by_id(0, {0}))), kNoCntd},  // "LBLN" in a value
    };
    for (const auto& c : cases) EXPECT_EQ(summary(parse_cntx(c.builder.build())), c.expected);
    const Bytes cut_record = ByteWriter().text("CNTD").u32(100).zeros(5).text("cntdcntx").take();
    ExactBuffer buffer(cut_record);
    EXPECT_EQ(error_text([&] { ObxMetricsParser::parse_metrics(buffer.begin(), buffer.end()); }), kPast + "batch record runs past the end of the block");
}

TEST(CntxParser, BadLabelIdFailsTheParseOnlyAtDebugLevel) {
    for (const uint32_t level : {OBX_LOG_INFO, OBX_LOG_DEBUG}) {  // at debug level records are dumped, labels decoded
        LogCapture log(level);
        EXPECT_EQ(parse_cntx(small_block().record(record_at(1, {}, labels_by_id(0, {1}))).build()).error, level == OBX_LOG_DEBUG ? "Failed to decode label value at index 0: invalid label id format" : "");
    }
}
