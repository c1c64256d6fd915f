#include "metrics/labels_block.h"

#include <gtest/gtest.h>

#include "fixtures/byte_writer.h"
#include "fixtures/cntx_builder.h"
#include "fixtures/error_text.h"
#include "fixtures/exact_buffer.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

const std::string kParseLog = "[obx labels block] parse_labels_block: ";

EncodedLabel by_id(uint64_t id) {
    EncodedLabel label;
    label.key_type = EncodedLabelKeyType::label_value_id;
    label.id = id;
    return label;
}

EncodedLabel inline_text(const std::string& text) {
    EncodedLabel label;
    label.key_type = EncodedLabelKeyType::label_value;
    label.value = text;
    return label;
}

// "id:<n>" or "text:<value>" per label, for compact expectations.
std::vector<std::string> describe(const std::vector<EncodedLabel>& labels) {
    std::vector<std::string> out;
    for (const auto& label : labels) {
        if (label.key_type == EncodedLabelKeyType::label_value_id)
            out.push_back("id:" + std::to_string(label.id));
        else
            out.push_back("text:" + label.value);
    }
    return out;
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace

TEST(ParseLabelsBlock, WellFormedBlocksInEveryEncoding) {
    struct Case {
        const char* name;
        Bytes data;
        size_t start;
        size_t expected_end;
        uint64_t set_id;
        std::vector<std::string> labels;
    } cases[] = {
        {"L, no entries", labels_block(labels_by_id(4, {})), 0, 3, 4, {}},
        {"I, no entries", labels_block(labels_inline(4, {})), 0, 3, 4, {}},
        {"M, no entries", labels_block(labels_mixed(4, {})), 0, 3, 4, {}},
        {"L ids", labels_block(labels_by_id(0, {0, 1, 255})), 0, 6, 0, {"id:0", "id:1", "id:255"}},
        {"I texts, one empty", labels_block(labels_inline(2, {"p2", "", "x"})), 0, 9, 2, {"text:p2", "text:", "text:x"}},
        {"M mixed",
         labels_block(labels_mixed(9, {LabelEntry::by_id(7), LabelEntry::inline_text("abc"), LabelEntry::by_id(0)})),
         0, 3 + 2 + 5 + 2, 9, {"id:7", "text:abc", "id:0"}},
        {"after a prefix, with bytes behind", concat(concat(Bytes{1, 2, 3, 4, 5}, labels_block(labels_by_id(1, {3}))),
                                                      Bytes{9, 9}),
         5, 9, 1, {"id:3"}},
        {"255 ids", labels_block(labels_by_id(255, std::vector<uint8_t>(255, 8))), 0, 258, 255,
         std::vector<std::string>(255, "id:8")},
        {"text of 255 bytes", labels_block(labels_inline(0, {std::string(255, 'z')})), 0, 259, 0,
         {"text:" + std::string(255, 'z')}},
    };
    for (const auto& c : cases) {
        // The text of an 'I' entry may end on the very last byte of the data.
        ExactBuffer buffer(c.data);
        uint64_t set_id = 999;
        std::vector<EncodedLabel> labels = {inline_text("stale")};
        size_t end = 0;
        ASSERT_EQ(error_text([&] { end = parse_labels_block(buffer.begin(), buffer.end(), c.start, set_id, labels); }),
                  "")
            << c.name;
        EXPECT_EQ(end, c.expected_end) << c.name;
        EXPECT_EQ(set_id, c.set_id) << c.name;
        EXPECT_EQ(describe(labels), c.labels) << c.name;
    }
}

TEST(ParseLabelsBlock, BadBlocksFailWithTheirOwnWords) {
    struct Case {
        const char* name;
        Bytes data;
        size_t start;
        std::string error;
        std::string log;  // the error line, behind the parse_labels_block prefix
        std::vector<std::string> kept;  // entries left in the list
    } cases[] = {
        {"start at the data size", Bytes{0, 0, 'L'}, 3, "start_offset exceeds data size",
         "start_offset (3) exceeds data size (3)", {"text:stale"}},
        {"start past the data size", Bytes{0, 0, 'L'}, 10, "start_offset exceeds data size",
         "start_offset (10) exceeds data size (3)", {"text:stale"}},
        {"header cut", Bytes{0, 0}, 0, "insufficient data for header", "insufficient data for header", {"text:stale"}},
        {"header cut behind offset", Bytes{1, 2, 0, 0}, 2, "insufficient data for header",
         "insufficient data for header", {"text:stale"}},
        {"unknown encoding", Bytes{0, 0, 'X'}, 0, "invalid encoding type", "invalid encoding type 'X'", {"text:stale"}},
        {"lower-case encoding", Bytes{0, 1, 'l', 0}, 0, "invalid encoding type", "invalid encoding type 'l'",
         {"text:stale"}},
        {"L run too short", Bytes{0, 3, 'L', 0, 1}, 0, "insufficient data for 'L' encoding",
         "insufficient data for 'L' encoding", {}},
        {"I length missing", Bytes{0, 2, 'I', 1, 'a'}, 0, "insufficient data for 'I' encoding length",
         "insufficient data for 'I' encoding length", {"text:a"}},
        {"I text runs over", Bytes{0, 2, 'I', 1, 'a', 3, 'b', 'c'}, 0, "insufficient data for 'I' encoding string",
         "insufficient data for 'I' encoding string", {"text:a"}},
        {"M sub-type missing", Bytes{0, 2, 'M', 'L', 4}, 0, "insufficient data for 'M' encoding sub-type",
         "insufficient data for 'M' encoding sub-type", {"id:4"}},
        {"M sub-type M", Bytes{0, 1, 'M', 'M', 0}, 0, "invalid sub-encoding type", "invalid sub-encoding type 'M'", {}},
        {"M/I length missing", Bytes{0, 1, 'M', 'I'}, 0, "insufficient data for 'M/I' encoding length",
         "insufficient data for 'M/I' encoding length", {}},
        {"M/I text runs over", Bytes{0, 1, 'M', 'I', 2, 'x'}, 0, "insufficient data for 'M/I' encoding string",
         "insufficient data for 'M/I' encoding string", {}},
        {"M/L id missing", Bytes{0, 2, 'M', 'I', 0, 'L'}, 0, "insufficient data for 'M/L' encoding id",
         "insufficient data for 'M/L' encoding id", {"text:"}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ExactBuffer buffer(c.data);
        uint64_t set_id = 0;
        std::vector<EncodedLabel> labels = {inline_text("stale")};
        EXPECT_EQ(error_text([&] { parse_labels_block(buffer.begin(), buffer.end(), c.start, set_id, labels); }),
                  c.error)
            << c.name;
        EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{kParseLog + c.log}) << c.name;
        EXPECT_EQ(describe(labels), c.kept) << c.name;
    }
}

TEST(ParseLabelsBlock, InvalidPointers) {
    const uint8_t bytes[4] = {0, 0, 'L', 0};
    struct Case {
        const uint8_t* start;
        const uint8_t* end;
    } cases[] = {{nullptr, bytes + 3}, {bytes, nullptr}, {bytes, bytes}, {bytes + 3, bytes}, {nullptr, nullptr}};
    for (const auto& c : cases) {
        LogCapture log;
        uint64_t set_id = 0;
        std::vector<EncodedLabel> labels;
        EXPECT_EQ(error_text([&] { parse_labels_block(c.start, c.end, 0, set_id, labels); }),
                  "invalid data pointers in parse_labels_block");
        EXPECT_TRUE(log.has(kParseLog + "invalid data pointers")) << log.all();
    }
}

TEST(ParseLabelsBlock, SetIdIsWrittenBeforeLaterChecksFail) {
    const Bytes data = {42, 1, 'Q', 0};
    uint64_t set_id = 0;
    std::vector<EncodedLabel> labels;
    EXPECT_EQ(error_text([&] { parse_labels_block(data.data(), data.data() + data.size(), 0, set_id, labels); }),
              "invalid encoding type");
    EXPECT_EQ(set_id, 42u);
}

TEST(ParseLabelsBlock, DebugLinesNameTheCallerAndEntries) {
    const Bytes data = labels_block(labels_by_id(7, {}));
    struct Case {
        const char* tag;
        std::string shown;
    } cases[] = {{nullptr, "unknown"}, {"ObxMetricsParser::parse_metrics", "ObxMetricsParser::parse_metrics"}};
    for (const auto& c : cases) {
        LogCapture log;
        uint64_t set_id = 0;
        std::vector<EncodedLabel> labels;
        if (c.tag)
            parse_labels_block(data.data(), data.data() + data.size(), 0, set_id, labels, c.tag);
        else
            parse_labels_block(data.data(), data.data() + data.size(), 0, set_id, labels);
        EXPECT_TRUE(log.has(kParseLog + "header - label_set_id=7, encoded_label_value_count=0, encoding_type=L, called by " +
                            c.shown))
            << log.all();
        EXPECT_TRUE(log.has("[obx labels block] after decoding L: 3")) << log.all();
    }

    LogCapture log;
    const Bytes mixed = labels_block(labels_mixed(0, {LabelEntry::by_id(5), LabelEntry::inline_text("p2")}));
    uint64_t set_id = 0;
    std::vector<EncodedLabel> labels;
    parse_labels_block(mixed.data(), mixed.data() + mixed.size(), 0, set_id, labels);
    EXPECT_TRUE(log.has("[obx labels block] parsed M/L label value id [0]: 5")) << log.all();
    EXPECT_TRUE(log.has("[obx labels block] parsed M/I label value [1]: 'p2'")) << log.all();
    EXPECT_TRUE(log.has("[obx labels block] after decoding M: 9")) << log.all();
}

TEST(DecodeLabelValue, InlineTextsAndValidIds) {
    const std::vector<std::string> table = {"hca0", "1"};
    struct Case {
        EncodedLabel label;
        std::vector<std::string> table;
        std::string expected;
    } cases[] = {
        {inline_text("p2"), table, "p2"},
        {inline_text(""), table, ""},
        {inline_text("x"), {}, "x"},  // no table needed for inline texts
        {by_id(0), table, "hca0"},
        {by_id(1), table, "1"},
    };
    for (const auto& c : cases) EXPECT_EQ(decode_label_value(c.label, c.table), c.expected);
}

TEST(DecodeLabelValue, BadIdsReachTheCallerAsOneText) {
    struct Case {
        const char* name;
        EncodedLabel label;
        std::vector<std::string> table;
        std::string inner_log;
        std::string inner_text;
    } cases[] = {
        {"empty table", by_id(0), {}, "empty label_values array", "empty label_values array"},
        {"id equal to the size", by_id(2), {"a", "b"}, "invalid label id: 2 (max=1)", "invalid label id"},
        {"id far out", by_id(1ull << 40), {"a"}, "invalid label id: 1099511627776 (max=0)", "invalid label id"},
        {"empty text", by_id(1), {"a", ""}, "empty string at label_values[1]", "invalid label value"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(error_text([&] { decode_label_value(c.label, c.table); }), "invalid label id format") << c.name;
        const std::vector<std::string> expected = {
            "[obx labels block] decode_label_value: " + c.inner_log,
            "[obx labels block] decode_label_value: failed to parse label_id '" + std::to_string(c.label.id) +
                "': " + c.inner_text,
        };
        EXPECT_EQ(log.at(OBX_LOG_ERROR), expected) << c.name;
    }
}

TEST(DecodeLabelValue, UnknownKeyTypeKeepsItsOwnText) {
    LogCapture log;
    EncodedLabel label = by_id(0);
    label.key_type = static_cast<EncodedLabelKeyType>(7);
    EXPECT_EQ(error_text([&] { decode_label_value(label, {"a"}); }), "unknown label key type");
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              std::vector<std::string>{"[obx labels block] decode_label_value: unknown label key type: 'unknown'"});
}

TEST(DecodeLabelValues, DecodesInOrderOrNamesTheFailingIndex) {
    const std::vector<std::string> table = {"hca0", "1"};
    EncodedLabel unknown = by_id(0);
    unknown.key_type = static_cast<EncodedLabelKeyType>(2);
    struct Case {
        const char* name;
        std::vector<EncodedLabel> labels;
        std::vector<std::string> table;
        std::vector<std::string> expected;
        int failing_index;  // -1: no failure
        std::string inner;
    } cases[] = {
        {"empty list, empty table", {}, {}, {}, -1, ""},
        {"ids and texts", {by_id(0), inline_text("p2"), by_id(1)}, table, {"hca0", "p2", "1"}, -1, ""},
        {"first id equal to the size", {by_id(2)}, table, {}, 0, "invalid label id format"},
        {"third bad", {by_id(0), by_id(1), by_id(9)}, table, {}, 2, "invalid label id format"},
        {"unknown key type", {inline_text("a"), unknown}, table, {}, 1, "unknown label key type"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        std::vector<std::string> result;
        const std::string error = error_text([&] { result = decode_label_values(c.labels, c.table); });
        EXPECT_EQ(result, c.expected) << c.name;
        if (c.failing_index < 0) {
            EXPECT_EQ(error, "") << c.name;
            continue;
        }
        const std::string index = std::to_string(c.failing_index);
        EXPECT_EQ(error, "Failed to decode label value at index " + index + ": " + c.inner) << c.name;
        EXPECT_TRUE(log.has("[obx labels block] decode_label_values: failed to decode label " + index + ": " + c.inner))
            << c.name << "\n" << log.all();
    }
}
