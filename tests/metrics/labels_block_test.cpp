#include "metrics/labels_block.h"

#include <gtest/gtest.h>

#include "fixtures/cntx_builder.h"
#include "fixtures/error_text.h"
#include "fixtures/exact_buffer.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

const std::string kParseLog = "[obx labels block] parse_labels_block: ";

EncodedLabel by_id(uint64_t id) { return EncodedLabel{EncodedLabelKeyType::label_value_id, id, ""}; }
EncodedLabel text(const std::string& value) { return EncodedLabel{EncodedLabelKeyType::label_value, 0, value}; }

// Parses an exact-size copy of `data` from `start` into a list holding one stale entry:
// "<error or end=<n>> set=<label_set_id> <entries>", an entry "#<id>" or "'<text>'".
std::string parse(const Bytes& data, size_t start = 0) {
    ExactBuffer buffer(data);
    uint64_t set_id = 999;
    size_t end = 0;
    std::vector<EncodedLabel> labels = {text("stale")};
    std::string out = error_text([&] { end = parse_labels_block(buffer.begin(), buffer.end(), start, set_id, labels); });
    out += (out.empty() ? "end=" + std::to_string(end) : "") + " set=" + std::to_string(set_id);
    for (const auto& l : labels)
        out += l.key_type == EncodedLabelKeyType::label_value_id ? " #" + std::to_string(l.id) : " '" + l.value + "'";
    return out;
}

}  // namespace

TEST(LabelsBlock, ParseLabelsBlock) {
    const Bytes mixed =
        labels_block(labels_mixed(9, {LabelEntry::by_id(7), LabelEntry::inline_text("abc"), LabelEntry::by_id(0)}));
    std::string ids;
    for (int i = 0; i < 255; ++i) ids += " #8";
    const std::string stale = " set=999 'stale'", past = "insufficient data for ";
    // The result, and the error line behind the parse_labels_block prefix ("" for none).
    const struct { Bytes data; size_t start; std::string expected, log; } cases[] = {
        {labels_block(labels_by_id(4, {})), 0, "end=3 set=4", ""},
        {labels_block(labels_inline(4, {})), 0, "end=3 set=4", ""},
        {labels_block(labels_mixed(4, {})), 0, "end=3 set=4", ""},
        {labels_block(labels_by_id(0, {0, 1, 255})), 0, "end=6 set=0 #0 #1 #255", ""},
        {labels_block(labels_inline(2, {"p2", "", "x"})), 0, "end=9 set=2 'p2' '' 'x'", ""},
        {mixed, 0, "end=12 set=9 #7 'abc' #0", ""},
        {ByteWriter().raw({1, 2, 3, 4, 5}).raw(labels_block(labels_by_id(1, {3}))).raw({9, 9}).take(), 5, "end=9 set=1 #3", ""},
        {labels_block(labels_by_id(255, std::vector<uint8_t>(255, 8))), 0, "end=258 set=255" + ids, ""},
        {labels_block(labels_inline(0, {std::string(255, 'z')})), 0, "end=259 set=0 '" + std::string(255, 'z') + "'", ""},
        {{0, 0, 'L'}, 3, "start_offset exceeds data size" + stale, "start_offset (3) exceeds data size (3)"},
        {{0, 0}, 0, past + "header" + stale, past + "header"},
        {{1, 2, 0, 0}, 2, past + "header" + stale, past + "header"},
        // The set number is written out once the header is read.
        {{42, 0, 'X'}, 0, "invalid encoding type set=42 'stale'", "invalid encoding type 'X'"},
        {{0, 3, 'L', 0, 1}, 0, past + "'L' encoding set=0", past + "'L' encoding"},
        {{0, 2, 'I', 1, 'a'}, 0, past + "'I' encoding length set=0 'a'", past + "'I' encoding length"},
        {{0, 2, 'I', 1, 'a', 3, 'b', 'c'}, 0, past + "'I' encoding string set=0 'a'", past + "'I' encoding string"},
        {{0, 2, 'M', 'L', 4}, 0, past + "'M' encoding sub-type set=0 #4", past + "'M' encoding sub-type"},
        {{0, 1, 'M', 'M', 0}, 0, "invalid sub-encoding type set=0", "invalid sub-encoding type 'M'"},
        {{0, 1, 'M', 'I'}, 0, past + "'M/I' encoding length set=0", past + "'M/I' encoding length"},
        {{0, 1, 'M', 'I', 2, 'x'}, 0, past + "'M/I' encoding string set=0", past + "'M/I' encoding string"},
        {{0, 2, 'M', 'I', 0, 'L'}, 0, past + "'M/L' encoding id set=0 ''", past + "'M/L' encoding id"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(parse(c.data, c.start), c.expected);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>(!c.log.empty(), kParseLog + c.log));
    }
    const uint8_t bytes[3] = {0, 0, 'L'};
    uint64_t set_id = 0;
    std::vector<EncodedLabel> labels;
    LogCapture log;
    for (const uint8_t* start : {static_cast<const uint8_t*>(nullptr), bytes + 3})
        EXPECT_EQ(error_text([&] { parse_labels_block(start, bytes + 3, 0, set_id, labels); }),
                  "invalid data pointers in parse_labels_block");
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>(2, kParseLog + "invalid data pointers"));
}

TEST(LabelsBlock, DecodeLabelValues) {
    const std::vector<std::string> table = {"hca0", "1"};
    EncodedLabel unknown = by_id(0);
    unknown.key_type = static_cast<EncodedLabelKeyType>(7);
    // Decoded texts; or the failing index, the first line logged and the inner text that the
    // guard logs (none for an unknown key type) before the caller gets one text.
    const struct { std::vector<EncodedLabel> labels; std::vector<std::string> table, expected;
                   int index; std::string log, inner; } cases[] = {
        {{}, {}, {}, -1, "", ""},
        {{text("x")}, {}, {"x"}, -1, "", ""},  // no table needed for inline texts
        {{by_id(0), text("p2"), by_id(1), text("")}, table, {"hca0", "p2", "1", ""}, -1, "", ""},
        {{by_id(0)}, {}, {}, 0, "empty label_values array", "empty label_values array"},
        {{text("a"), by_id(2)}, table, {}, 1, "invalid label id: 2 (max=1)", "invalid label id"},
        {{by_id(1ull << 40)}, {"a"}, {}, 0, "invalid label id: 1099511627776 (max=0)", "invalid label id"},
        {{by_id(1)}, {"a", ""}, {}, 0, "empty string at label_values[1]", "invalid label value"},
        {{text("a"), unknown}, table, {}, 1, "unknown label key type: 'unknown'", ""},
    };
    const std::string prefix = "[obx labels block] decode_label_value: ";
    for (const auto& c : cases) {
        LogCapture log;
        std::vector<std::string> result;
        const std::string error = error_text([&] { result = decode_label_values(c.labels, c.table); });
        EXPECT_EQ(result, c.expected);
        if (c.index < 0) continue;
        const std::string outer = c.inner.empty() ? "unknown label key type" : "invalid label id format";
        const std::string index = std::to_string(c.index), id = std::to_string(c.labels[c.index].id);
        EXPECT_EQ(error, "Failed to decode label value at index " + index + ": " + outer);
        std::vector<std::string> lines = {prefix + c.log};
        if (!c.inner.empty()) lines.push_back(prefix + "failed to parse label_id '" + id + "': " + c.inner);
        lines.push_back("[obx labels block] decode_label_values: failed to decode label " + index + ": " + outer);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), lines);
    }
}
