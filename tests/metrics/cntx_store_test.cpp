#include "metrics/cntx_store.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <set>

#include "fixtures/cntx_tables.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;
using namespace obx::data::metrics;
using obx::metrics::parse_cntx_blocks;

namespace {

const std::string P = "[obx metrics parser] ";

// Every series as "name{label=value,...}=v1,v2 K" (values as stored, kind letter), sorted.
std::string stored(const MetricStore& store) {
    std::set<std::string> lines;
    store.for_each_series([&](uint32_t code, uint64_t metric, uint64_t label_set, const MetricSeries& series) {
        std::map<std::string, std::string> labels;
        for (const auto& pair : *store.find_label_set(label_set))
            labels[store.symbols().lookup(pair.first)] = store.symbols().lookup(pair.second);
        std::string line = store.symbols().lookup(metric) + "{";
        for (const auto& [name, value] : labels) line += (line.back() == '{' ? "" : ",") + name + "=" + value;
        line += "}=";
        for (uint64_t i = 0; i < series.values.size(); ++i) {
            line += (i ? "," : "") + std::to_string(series.values.at(i));
            EXPECT_NE(series.timestamps.at(i), 0u);  // the rings stay in step
        }
        lines.insert(line + " " + static_cast<char>(series.kind) + std::to_string(code));
    });
    std::string text;
    for (const auto& line : lines) text += (text.empty() ? "" : " | ") + line;
    return text;
}

struct Store {
    MetricStore store;
    Store() { store.set_default_capacity(8); }
    std::string read(const Bytes& bytes, MetricFilter* filter = nullptr) {
        ExactBuffer buffer(bytes);
        parse_cntx_blocks(buffer.begin(), buffer.end(), filter, store);
        return stored(store);
    }
};

// "name=count ..." sorted, then " -> true/false".
std::string count(const Bytes& bytes) {
    ExactBuffer buffer(bytes);
    ObxMetricCounts counts;
    const bool any = ObxMetricsParser::count_metrics_from_cntx_blocks(buffer.begin(), buffer.end(), counts);
    std::string text;
    for (const auto& [name, n] : std::map<std::string, uint64_t>(counts.begin(), counts.end()))
        text += name + "=" + std::to_string(n) + " ";
    return text + (any ? "-> true" : "-> false");
}

CntxBuilder one_metric() { return CntxBuilder().label_set({"device"}).label_values({"hca0"}).metric_names({"m"}); }
CntxBuilder small_block() { return one_metric().record(record_at(5, {{0, 7}}, labels_by_id(0, {0}))); }

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(CntxStore, ReferenceBlockOnBothPaths) {
    LogCapture log(OBX_LOG_DEBUG);
    Store s;
    EXPECT_EQ(s.read(concat({example_block(), example_block()})),
              "rx_bytes{device=hca0,port=1,site=lab}=100,100 C1 | tx_bytes{device=hca0,port=1,site=lab}=200,200 C1"
              " | tx_bytes{device=hca0,port=p2,site=lab}=250,250 G1");
    EXPECT_TRUE(log.has(P + "Processed 2 CNTX blocks"));
    EXPECT_TRUE(log.has(P + "metric id: 1, ts: 1700000001000000, name: tx_bytes, value: 250"));
    EXPECT_EQ(count(concat({example_block(), example_block()})), "rx_bytes=2 tx_bytes=4 -> true");
    EXPECT_TRUE(log.has(P + "Counted metrics from 2 CNTX blocks, found 2 unique metrics"));
    // The position reached is the end of the last block; bytes behind it are not a block.
    const Bytes tail = concat({example_block(), Bytes{'C', 'N', 'T', 'X', 0}});
    ExactBuffer buffer(tail);
    EXPECT_EQ(parse_cntx_blocks(buffer.begin(), buffer.end(), nullptr, s.store), buffer.begin() + 181);
}

TEST(CntxStore, BadBlocksOnBothPaths) {
    BatchRecordFields lying = record_at(1, {{0, 1}}, labels_by_id(0, {0})), empty = record_at(1, {}, labels_by_id(0, {0}));
    lying.num_samples = 300;
    Bytes truncated = small_block().build();
    truncated.resize(truncated.size() - 3);  // total_size now runs past the range
    ByteWriter no_room;  // CNTD right before the end marks
    no_room.text("CNTX").u32(0).text("LBLV").u16(0).text("lblvCNTI").u16(0).text("cntiCNTDcntdcntx");
    no_room.patch_u32(4, static_cast<uint32_t>(no_room.size()));
    const Bytes no_blocksize = no_room.take();
    const std::string good = "m{device=hca0}=7 C1";
    const struct { Bytes input; std::string store, store_log, counted, count_log; } cases[] = {
        {small_block().end_marks("cntd", "cntX").build(), "", "Failed to parse CNTX block 1: Invalid magic numbers in the binary data", "-> false", "Invalid magic numbers in CNTX block"},
        {truncated, "", "Failed to parse CNTX block 1: Invalid magic numbers in the binary data", "-> false", "Invalid magic numbers in CNTX block"},
        {small_block().without_cntd().build(), "", "Failed to parse CNTX block 1: Missing 'CNTD' magic number in the binary data", "-> false", ""},
        {no_blocksize, "", "", "-> false", "Insufficient data for blocksize in CNTX block"},
        {one_metric().record(record_at(5, {{0, 7}}, labels_by_id(0, {0}), 'H')).build(), "", "Failed to parse CNTX block 1: invalid metric type", "m=1 -> true", ""},
        {one_metric().record(record_at(5, {{0, 7}}, labels_by_id(0, {0}), 'X')).build(), "", "Failed to parse CNTX block 1: invalid metric type", "m=1 -> true", ""},
        {one_metric().record(record_at(5, {{0, 7}}, labels_by_id(0, {1}))).build(), "", "Failed to parse CNTX block 1: Failed to decode label value at index 0: invalid label id format", "m=1 -> true", ""},
        {one_metric().record(record_at(5, {{0, 7}, {9, 8}}, labels_by_id(0, {0}))).build(), good, "Failed to parse CNTX block 1: invalid metric id", "m=1 -> true", "Invalid metric_id 9 (max: 1), skipping"},
        {small_block().record(lying).build(), good, "Failed to parse CNTX block 1: Invalid binary data format: batch samples run past the end of the block", "m=1 -> true", "num_samples 300 exceeds available data (max: 1)"},
        {one_metric().record(record_at(5, {{0, 7}}, LabelsBlockFields{0, 'X', {}})).build(), "", "Failed to parse CNTX block 1: invalid encoding type", "m=1 -> true", "Failed to parse labels block for counting: invalid encoding type"},
        // An empty record ends the count of its block; the store path reads on.
        {one_metric().record(empty).record(record_at(5, {{0, 7}}, labels_by_id(0, {0}))).build(), good, "no samples in the metrics batch", "-> true", ""},
        {small_block().total_size(0).build(), "", "CNTX block with a total_size of 0 passed over", "-> false", "Invalid block size 0 in CNTX block"},
        {small_block().total_size(1073741825u).build(), good, "", "-> false", "Invalid block size 1073741825 in CNTX block"},
        {small_block().total_size(1073741824u).build(), good, "", "m=1 -> true", ""},
        {Bytes{'x', 'C', 'N', 'T', 'X', 1, 0}, "", "", "-> false", "Insufficient data for CNTX block header"},
    };
    for (const auto& c : cases) {
        LogCapture log(OBX_LOG_WARNING);
        Store s;
        EXPECT_EQ(s.read(c.input), c.store) << c.store_log;
        EXPECT_EQ(log.at(OBX_LOG_WARNING), c.store_log.empty() ? std::vector<std::string>{} : std::vector<std::string>{P + c.store_log});
        log.clear();
        EXPECT_EQ(count(c.input), c.counted) << c.count_log;
        EXPECT_EQ(log.at(OBX_LOG_WARNING), c.count_log.empty() ? std::vector<std::string>{} : std::vector<std::string>{P + c.count_log});
    }
    // A block passed over for its size is searched on behind its size field, where the next
    // block may start; a bad metric id is reported by the store path in these words.
    LogCapture log(OBX_LOG_ERROR);
    const Bytes zero_then_good = concat({ByteWriter().text("CNTX").u32(0).take(), small_block().build()});
    EXPECT_EQ(Store().read(zero_then_good), good);
    EXPECT_EQ(count(zero_then_good), "m=1 -> true");
    Store().read(one_metric().record(record_at(5, {{3, 7}}, labels_by_id(0, {0}))).build());
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{P + "invalid metric id: 3, total metric names size: 1"});
}

uint64_t bits(double value) {
    uint64_t out;
    std::memcpy(&out, &value, 8);
    return out;
}

TEST(CntxStore, ValuesAreStoredByTheirType) {
    const struct { uint8_t value_type; uint64_t value; std::string stored, debug, warning; } cases[] = {
        {1, 7, "m{device=hca0}=7 C1", "Storing uint64 metric m: 7", ""},
        {2, bits(1.5), "m{device=hca0}=" + std::to_string(bits(1.5)) + " C2", "Storing double metric m: 1.500000", ""},
        {3, 0xff, "m{device=hca0}=255 C3", "Storing bit64 metric m: 0xff", ""},
        {4, ~0ull, "m{device=hca0}=18446744073709551615 C4", "Storing int64 metric m: -1", ""},
        {5, 7, "", "metric id: 0, ts: 5, name: m, value: 7", "String value type in numeric metrics path for metric m"},
        {0, 7, "m{device=hca0}=7 C1", "Storing uint64 metric m: 7", "Unknown/unsupported value type 0 for metric m, falling back to UInt64"},
        {9, 7, "m{device=hca0}=7 C1", "Storing uint64 metric m: 7", "Unknown/unsupported value type 9 for metric m, falling back to UInt64"},
    };
    for (const auto& c : cases) {
        LogCapture log(OBX_LOG_DEBUG);
        BatchRecordFields record = record_at(5, {{0, c.value}}, labels_by_id(0, {0}));
        record.value_type = c.value_type;
        Store s;
        EXPECT_EQ(s.read(one_metric().record(record).build()), c.stored);
        EXPECT_TRUE(log.has(P + c.debug)) << log.all();
        std::vector<std::string> warnings;
        if (!c.warning.empty()) warnings.push_back(P + c.warning);
        if (c.value_type == 5) warnings.push_back(P + "Failed to store metric m (id=0, value=7) - continuing with next metrics");
        EXPECT_EQ(log.at(OBX_LOG_WARNING), warnings);
    }
    // A metric first stored as uint64 keeps that type: a later double is refused, the walk goes on.
    LogCapture log(OBX_LOG_WARNING);
    BatchRecordFields as_double = record_at(6, {{0, bits(2.0)}, {1, 9}}, labels_by_id(0, {0}));
    as_double.value_type = 2;
    Store s;
    EXPECT_EQ(s.read(one_metric().metric_names({"m", "n"}).record(record_at(5, {{0, 7}}, labels_by_id(0, {0}))).record(as_double).build()),
              "m{device=hca0}=7 C1 | n{device=hca0}=9 C2");
    EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{P + "Failed to store typed value for metric m (type=2, value=" + std::to_string(bits(2.0)) + "): Type mismatch for metric 'm'"});
    EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>{P + "Failed to store metric m (id=0, value=" + std::to_string(bits(2.0)) + ") - continuing with next metrics"});
}

TEST(CntxStore, FilterRulesAndChangesOnly) {
    const std::vector<std::string> names = {"rx_bytes", "tx_bytes", "rx", "port_rx_errors"};
    const struct { std::vector<std::pair<std::string, uint32_t>> rules; bool patterns_on; std::string selected; } cases[] = {
        {{{"rx", 0}}, true, "rx"},
        {{{"rx", 1}}, true, "rx rx_bytes"},
        {{{"_bytes", 2}}, true, "rx_bytes tx_bytes"},
        {{{"rx", 3}}, true, "port_rx_errors rx rx_bytes"},
        {{{"rx", 7}, {"tx", 1}}, true, "tx_bytes"},  // a kind of no meaning matches nothing
        {{{"rx", 3}}, false, ""},                    // rules only with patterns on
    };
    for (const auto& c : cases) {
        MetricFilter filter;
        filter.rules = c.rules;
        filter.patterns_on = c.patterns_on;
        std::set<std::string> chosen;
        for (const auto& name : names)
            if (obx::metrics::metric_filter_selects(filter, name)) chosen.insert(name);
        std::string text;
        for (const auto& name : chosen) text += (text.empty() ? "" : " ") + name;
        EXPECT_EQ(text, c.selected);
    }

    // Through the store path: an exact name passes; a metric already stored passes whatever
    // the filter says; change-only drops repeats of the newest value, doubles as numbers.
    const auto block = [](uint8_t value_type, std::vector<uint64_t> values) {
        CntxBuilder b = CntxBuilder().label_set({"d"}).label_values({"a"}).metric_names({"m", "n"});
        uint64_t t = 1;
        for (uint64_t v : values) {
            BatchRecordFields record = record_at(t++, {{0, v}, {1, v}}, labels_by_id(0, {0}));
            record.value_type = value_type;
            b.record(record);
        }
        return b.build();
    };
    MetricFilter filter;
    filter.exact_names = {"m"};
    filter.change_only = true;
    Store s;
    EXPECT_EQ(s.read(block(1, {5, 5, 6, 5, 5}), &filter), "m{d=a}=5,6,5 C1");
    s.read(block(1, {1}));  // n stored without the filter ...
    EXPECT_EQ(s.read(block(1, {2}), &filter), "m{d=a}=5,6,5,1,2 C1 | n{d=a}=1,2 C1");  // ... then passes it
    const uint64_t nan = bits(std::numeric_limits<double>::quiet_NaN());
    Store d;
    filter.exact_names = {"m", "n"};
    d.read(block(2, {bits(0.0), bits(-0.0), nan, nan}), &filter);
    EXPECT_EQ(d.store.find_series(OBX_METRIC_DOUBLE, d.store.symbols().intern("m"), d.store.intern_labels({{"d", "a"}}))->values.size(), 3u);
    filter.change_only = false;
    Store all;
    EXPECT_EQ(all.read(block(1, {5, 5}), &filter), "m{d=a}=5,5 C1 | n{d=a}=5,5 C1");
}

TEST(CntxStore, LabelsStopAtTheNamesAndHistogramsAreKept) {
    LogCapture log(OBX_LOG_ERROR);
    HistogramFields lat{9, "lat", {{2, 1}, {10, 2}}, 106, 3, labels_by_id(0, {0})};
    HistogramFields later = lat;
    later.count = 4;
    CntxBuilder b = one_metric().constant_labels({"site", "lab"}).histogram(lat).histogram(later);
    b.record(record_at(5, {{0, 7}}, labels_inline(0, {"a", "b", "c"})));  // more values than names
    b.record(record_at(6, {{0, 8}}, labels_inline(4, {"x"})));           // a set without names
    Store s;
    EXPECT_EQ(s.read(b.build()), "m{device=a,site=lab}=7 C1 | m{site=lab}=8 C1");
    ASSERT_EQ(s.store.histograms().size(), 1u);
    const HistogramRecord& h = s.store.histograms().at(s.store.symbols().intern("lat"));
    EXPECT_EQ(h.buckets, (std::vector<std::pair<double, uint64_t>>{{2, 1}, {10, 2}}));
    EXPECT_TRUE(h.count == 4 && h.sum == 106 && h.timestamp == 9);  // the later record of the name
    EXPECT_EQ(h.label_set_id, s.store.intern_labels({{"device", "hca0"}}));  // no constant labels
    EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();

    // A bad histogram is logged; the ones before it and the block's samples stay.
    HistogramFields bad = lat;
    bad.name = "bad", bad.labels = labels_by_id(0, {3});
    Store t;
    EXPECT_EQ(t.read(small_block().histogram(lat).histogram(bad).build()), "m{device=hca0}=7 C1");
    EXPECT_EQ(t.store.histograms().size(), 1u);
    EXPECT_TRUE(log.has(P + "Error parsing histograms: Failed to decode label value at index 0: invalid label id format"));
    EXPECT_EQ(count(small_block().histogram(lat).histogram(bad).build()), "m=1 -> true");
}

}  // namespace
