#include "metrics/histogram.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "fixtures/cntx_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using namespace obx_test;
using obx::metrics::Histogram;
using obx::metrics::HistogramSet;
using obx::metrics::PreallocatedVector;

namespace {

const std::vector<std::string> kValues = {"", "mlx5_0", "1"};

// A record laid out by hand: name "lat", bounds 2 and 10, labels by id 1 and 2.
Bytes record(const Bytes& labels) {
    return ByteWriter().text("HIST").u64(1700000000000000ull).short_string("lat").u8(2)
        .f64(2).u64(1).f64(10).u64(2).f64(106).u64(3).raw(labels).text("hist").take();
}

TEST(Histogram, RecordReadsAndWritesBackTheSameBytes) {
    const Bytes labels = labels_block(labels_by_id(4, {1, 2}));
    const Bytes bytes = concat({record(labels), Bytes{'x'}});
    Histogram h;
    EXPECT_EQ(h.parse(bytes.data(), bytes.data() + bytes.size(), kValues), bytes.data() + bytes.size() - 1);
    EXPECT_EQ(h.name, "lat");
    EXPECT_EQ(h.timestamp, 1700000000000000ull);
    ASSERT_EQ(h.buckets.size(), 2u);
    EXPECT_EQ(h.buckets[1].upper_bound, 10.0);
    EXPECT_EQ(h.buckets[1].count, 2u);
    EXPECT_EQ(h.count, 3u);
    EXPECT_EQ(h.label_set_id, 4u);
    EXPECT_EQ(h.label_values, (std::vector<std::string>{"mlx5_0", "1"}));
    EXPECT_EQ(h.serialized_size(labels.size()), bytes.size() - 1);

    Bytes out(bytes.size() - 1);
    PreallocatedVector whole(out.data(), out.size());
    h.serialize(labels, whole);
    EXPECT_EQ(out, record(labels));
    // One byte short fails at the last step, with what came before left in place.
    PreallocatedVector short_by_one(out.data(), out.size() - 1);
    try {
        h.serialize(labels, short_by_one);
        ADD_FAILURE() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "PreallocatedVector::insert");
    }
    EXPECT_EQ(short_by_one.size(), out.size() - 4);
}

TEST(Histogram, ParseRefusesRecordsThatRunPastTheBlock) {
    const Bytes bytes = record(labels_block(labels_by_id(4, {1, 2})));
    for (size_t cut : {5ul, 13ul, 20ul, 60ul, bytes.size() - 5}) {
        Histogram h;
        EXPECT_THROW(h.parse(bytes.data(), bytes.data() + cut, kValues), std::runtime_error) << cut;
    }
    HistogramSet set;
    const Bytes two = concat({Bytes{'.', '.'}, bytes, bytes, Bytes(3, 0)});
    obx::metrics::parse_histograms(two.data(), two.data() + two.size(), kValues, set);
    ASSERT_NE(set.find(1), nullptr);
    EXPECT_EQ(set.find(2), nullptr);
    EXPECT_EQ(set.find(1)->name, "lat");
}

TEST(HistogramSet, AddObserveAndIds) {
    LogCapture log;
    HistogramSet set;
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.add(1, "a", {1, 1}, {2, 10}, 0, {"x"}), 0u);
    EXPECT_EQ(set.add(1, "b", {1, 2}, {1, 1, 2}, 0, {}), 1u);  // equal neighbours pass
    EXPECT_EQ(set.add(1, "other", {1, 1}, {5}, 0, {}), 0u);    // a known series keeps its id
    EXPECT_THROW(set.add(1, "c", {1, 3}, {2, 1}, 0, {}), std::runtime_error);
    EXPECT_EQ(log.at(OBX_LOG_ERROR),
              std::vector<std::string>{"[obx metrics histograms] Histogram buckets must be monotonically increasing"});
    EXPECT_EQ(set.add(1, "d", {1, 4}, {}, 0, {}), 2u);  // no bounds: it only sums

    for (double v : {1.0, 5.0, 100.0}) set.observe(0, v);
    set.observe(0, std::nan(""));
    const Histogram* h = set.find(0);
    EXPECT_EQ(h->buckets[0].count, 1u);
    EXPECT_EQ(h->buckets[1].count, 2u);
    EXPECT_EQ(h->count, 4u);
    EXPECT_THROW(set.observe(9, 1), std::runtime_error);

    EXPECT_TRUE(set.remove(2));
    EXPECT_FALSE(set.remove(2));
    EXPECT_EQ(set.add(1, "e", {1, 4}, {}, 0, {}), 2u);  // ids come back from the largest present
}

TEST(HistogramSet, DueOnlyWithAnIntervalAndLabels) {
    HistogramSet set;
    const uint64_t labelled = set.add(1, "a", {1, 1}, {1}, 0, {"x"});
    const uint64_t bare = set.add(1, "b", {1, 2}, {1}, 0, {});
    EXPECT_FALSE(set.is_due(labelled));  // no interval
    set.set_interval_all(60000);
    EXPECT_FALSE(set.is_due(labelled));  // just reported
    set.reset(labelled);
    set.reset(bare);
    EXPECT_TRUE(set.is_due(labelled));   // reset: last report 0
    EXPECT_FALSE(set.is_due(bare));      // unlabelled: never
    EXPECT_FALSE(set.is_due(99));
    EXPECT_FALSE(set.set_interval(99, 1));
}

}  // namespace
