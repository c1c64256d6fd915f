// The samples of one batch record, laid out in memory as in the file.
#pragma once

#include <cstdint>
#include <vector>

namespace obx {
namespace metrics {

#pragma pack(push, 1)
// Packed to the file's 10 bytes. Read the fields by value: a reference to `value`
// would be misaligned.
struct MetricSample {
    uint16_t metric_id;  // index into the block's CNTI names
    uint64_t value;      // as read; the record's value type gives its meaning
};
#pragma pack(pop)
static_assert(sizeof(MetricSample) == 10, "MetricSample must keep the file's layout");

struct MetricsBatch {
    std::vector<MetricSample> samples;  // in file order
    uint32_t reserved = 0;              // no reading path sets it
};

}  // namespace metrics
}  // namespace obx
