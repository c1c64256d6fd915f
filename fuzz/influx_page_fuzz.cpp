// Arbitrary bytes as the data area of a page handed to the Influx page walk, with an
// event schema and a counters schema of adapters, CPUs and a node. The walk stays within
// the page, ends, and every line it gives ends with a blank and a decimal time.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "counters/counter_group/counters_schema.h"
#include "data/format/data_page_layout.h"
#include "data/schema/type_system.h"
#include "fuzz_support.h"
#include "serializers/influx_serializer.h"
#include "utils/logger.h"

namespace {

const char kEvents[] = R"({"title":"Ombrix schema","obx_version":"1.5.0","provider_name":"f","provider_version":"1.0.0",
"types":[{"name":"e","size":6,"fields":[{"field_name":"a","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE",
"offset":0,"type_size":2,"index":0},{"field_name":"t","description":"","type_name":"char","counting_mode":"ABSOLUTE",
"array_length":4,"offset":2,"type_size":1,"index":1}],"type_index":0}]})";

const char kCounters[] = R"({"title":"Ombrix performance counters collector","version":"1.5.0","counter_groups":[
{"granularity":"NODE","num_counters":3,"num_counter_sets":1,"counters":[
{"name":"load","data_type":"UINT64","counting_type":"ABSOLUTE","description":"","units":""},{"name":"vzn1_0:1:rx","data_type":"UINT64","counting_type":"ABSOLUTE","description":"","units":""},
{"name":"vzn1_0:temp","data_type":"FP64","counting_type":"ABSOLUTE","description":"","units":""}]},
{"granularity":"CPU","num_counters":1,"num_counter_sets":2,"counters":[{"name":"user","data_type":"INT64","counting_type":"ABSOLUTE","description":"","units":""}]}]})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static obx_type_system_t* system = [] {
        obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);
        obx_type_system_t* s = obx_type_system_create();
        if (!s || obx_type_system_add_schema(s, kEvents, nullptr) != 0 || obx_type_system_add_schema(s, kCounters, nullptr) != 0)
            std::abort();
        return s;
    }();
    if (size > (1u << 16)) return 0;
    std::vector<uint8_t> memory(OBX_DATA_PAGE_HEADER_SIZE + size);
    auto* page = reinterpret_cast<obx_data_page_t*>(memory.data());
    page->page_size = memory.size();
    page->filled_bytes = memory.size();
    std::memcpy(page->adapters[0].name, "vzn1_0", 6);
    std::memcpy(page->adapters[0].port_1_guid, "0000000000000001", 16);
    if (size) std::memcpy(memory.data() + OBX_DATA_PAGE_HEADER_SIZE, data, size);

    obx::data::InfluxSerializer serializer;
    for (const std::string& line : serializer.serializePage({{"k", "v"}}, page, system)) {
        const size_t blank = line.rfind(' ');
        if (blank == std::string::npos || blank + 1 == line.size()) std::abort();
        for (size_t i = blank + 1; i < line.size(); ++i)
            if (line[i] < '0' || line[i] > '9') std::abort();
    }
    return 0;
}
