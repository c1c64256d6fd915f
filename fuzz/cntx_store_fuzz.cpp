// Ranges of CNTX blocks from arbitrary bytes through the store path and the count path.
// The two must agree on the samples of every metric name: when neither path complains
// (no line at warning or error), each name has as many stored samples as counted ones;
// when only the store path met an empty record, which ends a block for the count path
// alone, nothing is required. Otherwise, with a clean count, the store never holds more
// than was counted. The counts map keeps what it held before the call. Inputs of odd size
// run at debug level, so every debug line is formatted too.
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "fuzz_support.h"
#include "metrics/cntx_store.h"

using namespace obx::data::metrics;

namespace {

struct Complaints {
    bool any = false;           // a line at warning or error
    bool empty_record = false;  // the store path met a record without samples
};
Complaints complaints;

void note_log(uint32_t level, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (level <= OBX_LOG_WARNING) complaints.any = true;
    if (std::strstr(format, "no samples in the metrics batch")) complaints.empty_record = true;
}

// Samples kept per name, and the names whose rings filled (their older samples are gone).
constexpr uint64_t kCapacity = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_log_set_callback(note_log, size % 2 ? OBX_LOG_DEBUG : OBX_LOG_WARNING);
    const uint8_t* end = data ? data + size : data;

    complaints = Complaints();
    MetricStore store;
    store.set_default_capacity(kCapacity);
    const uint8_t* reached = obx::metrics::parse_cntx_blocks(data, end, nullptr, store);
    if (reached < data || reached > end) std::abort();
    const Complaints store_complaints = complaints;

    // A name no block can hold (short strings stop at 255 bytes) must come through untouched.
    const std::string sentinel(256, 's');
    ObxMetricCounts counts = {{sentinel, 5}};
    complaints = Complaints();
    ObxMetricsParser::count_metrics_from_cntx_blocks(data, end, counts);
    const Complaints count_complaints = complaints;
    if (counts[sentinel] != 5) std::abort();

    std::unordered_map<std::string, uint64_t> stored;
    std::unordered_map<std::string, bool> full;
    store.for_each_series([&](uint32_t, uint64_t metric, uint64_t, const MetricSeries& series) {
        const std::string& name = store.symbols().lookup(metric);
        stored[name] += series.values.size();
        if (series.values.size() != series.timestamps.size()) std::abort();
        if (series.values.size() == kCapacity) full[name] = true;
    });
    if (count_complaints.any || store_complaints.empty_record) return 0;
    for (const auto& entry : stored) {
        const auto counted = counts.find(entry.first);
        const uint64_t n = counted == counts.end() ? 0 : counted->second;
        if (entry.second > n) std::abort();
        if (!store_complaints.any && !full[entry.first] && entry.second != n) std::abort();
    }
    // A clean store path stored every counted sample.
    if (!store_complaints.any)
        for (const auto& entry : counts)
            if (entry.first != sentinel && !full[entry.first] && stored[entry.first] != entry.second) std::abort();
    return 0;
}
