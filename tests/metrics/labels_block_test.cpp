#include "metrics/labels_block.h"

#include <gtest/gtest.h>

#include "fixtures/cntx_builder.h"
#include "fixtures/error_text.h"
#include "fixtures/exact_buffer.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

static EncodedLabel text(const std::string& value) { return EncodedLabel{EncodedLabelKeyType::label_value, 0, value}; }

// Parses an exact-size copy of `data` (from a null begin if asked) from `start` into a list
// holding one stale entry: "<error or end=<n>> set=<id> <entries>", an entry "#<id>" or "'<text>'".
static std::string parse(const Bytes& data, size_t start, bool null_begin) {
    ExactBuffer buffer(data);
    uint64_t set_id = 999;
    size_t end = 0;
    std::vector<EncodedLabel> labels = {text("stale")};
    std::string out = error_text([&] { end = parse_labels_block(null_begin ? nullptr : buffer.begin(), buffer.end(), start, set_id, labels); });
    out += (out.empty() ? "end=" + std::to_string(end) : "") + " set=" + std::to_string(set_id);
    for (const auto& l : labels)
        out += l.key_type == EncodedLabelKeyType::label_value_id ? " #" + std::to_string(l.id) : " '" + l.value + "'";
    return out;
}

TEST(LabelsBlock, ParseLabelsBlock) {
    const std::string stale = " set=999 'stale'", past = "insufficient data for ", z255(255, 'z');
    // The result, and the error line behind the parse_labels_block prefix ("" for none).
    const struct { Bytes data; size_t start; std::string expected, log; bool null_begin = false; } cases[] = {
        {labels_block(labels_by_id(0, {0, 1, 255})), 0, "end=6 set=0 #0 #1 #255", ""},
        {labels_block(labels_inline(2, {"p2", "", "x"})), 0, "end=9 set=2 'p2' '' 'x'", ""},
        {ByteWriter().raw({1, 2, 3, 4, 5}).raw(labels_block(labels_by_id(1, {3}))).raw({9, 9}).take(), 5, "end=9 set=1 #3", ""},
        {labels_block(labels_inline(0, {z255})), 0, "end=259 set=0 '" + z255 + "'", ""},
        {{0, 0, 'L'}, 0, "invalid data pointers in parse_labels_block" + stale, "invalid data pointers", true},
        {{0, 0, 'L'}, 3, "start_offset exceeds data size" + stale, "start_offset (3) exceeds data size (3)"},
        {{1, 2, 0, 0}, 2, past + "header" + stale, past + "header"},
        // The set number is written out once the header is read.
        {{42, 0, 'X'}, 0, "invalid encoding type set=42 'stale'", "invalid encoding type 'X'"},
        {{0, 3, 'L', 0, 1}, 0, past + "'L' encoding set=0", past + "'L' encoding"},
        {{0, 2, 'I', 1, 'a'}, 0, past + "'I' encoding length set=0 'a'", past + "'I' encoding length"},
        {{0, 1, 'M', 'M', 0}, 0, "invalid sub-encoding type set=0", "invalid sub-encoding type 'M'"},
        {{0, 2, 'M', 'I', 0, 'L'}, 0, past + "'M/L' encoding id set=0 ''", past + "'M/L' encoding id"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(parse(c.data, c.start, c.null_begin), c.expected);
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>(!c.log.empty(), "[obx labels block] parse_labels_block: " + c.log));
    }
}
