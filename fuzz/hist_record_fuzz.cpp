// HIST records from arbitrary bytes: a record that reads writes back to the same bytes
// (its trailing magic aside, which is never compared), and a set of records parses
// without reading past the block.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "metrics/histogram.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_fuzz::quiet_log();
    static const std::vector<std::string> values = {"", "a", "b", "c", "d"};
    const uint8_t* end = data + size;
    obx::metrics::Histogram h;
    try {
        const uint8_t* behind = h.parse(data, end, values);
        const size_t labels_start = OBX_HIST_FIXED_SIZE - 4 + h.name.size() + OBX_HIST_BUCKET_SIZE * h.buckets.size();
        const size_t record_size = static_cast<size_t>(behind - data);
        if (record_size < labels_start + 4) std::abort();
        const std::vector<uint8_t> labels(data + labels_start, data + record_size - 4);
        if (h.serialized_size(labels.size()) != record_size) std::abort();
        std::vector<uint8_t> out(record_size);
        obx::metrics::PreallocatedVector room(out.data(), out.size());
        h.serialize(labels, room);
        // The magic is only found by the search, so the record starts with whatever stood there.
        if (std::memcmp(out.data() + 4, data + 4, record_size - 8) != 0) std::abort();
    } catch (const std::exception&) {
        // refused input: fine
    }
    obx::metrics::HistogramSet set;
    try {
        obx::metrics::parse_histograms(data, end, values, set);
    } catch (const std::exception&) {
    }
    return 0;
}
