// Full Influx lines of a data page: events, and the measurements that adapter records and
// counter names make of a counters block.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "counters/counter_group/counters_schema.h"
#include "data/schema/type_system.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/schema_builder.h"
#include "fixtures/written_files.h"
#include "serializers/influx_serializer.h"

using namespace obx_test;
using Lines = std::vector<std::string>;

namespace {

constexpr uint64_t kTime = 1600000000123456ull;

// A type system whose counters schema is `doc`.
struct System {
    obx_type_system_t* raw = obx_type_system_create();
    explicit System(const CountersSchemaDoc& doc) {
        obx_counters_schema_destroy(raw->counters_schema);
        raw->counters_schema = obx_counters_schema_from_json(doc.json().get());
    }
    ~System() { obx_type_system_destroy(raw); }
};

void adapter(obx_data_page_t* page, int slot, const std::string& name, const char* port2) {
    obx_adapter_record_t& r = page->adapters[slot];
    std::memset(&r, 0, sizeof(r));
    std::memcpy(r.name, name.data(), name.size());
    std::memcpy(r.node_guid, "1111222233334444", 16);
    std::memcpy(r.system_image_guid, "5555666677778888", 16);
    std::memcpy(r.port_1_guid, "9999000011112222", 16);
    if (*port2) std::memcpy(r.port_2_guid, port2, 16);
}

Lines page_lines(const CountersSchemaDoc& doc, const Bytes& values, void (*adapters)(obx_data_page_t*)) {
    System system(doc);
    PagePtr page = make_page(concat({counters_block(kTime, values), Bytes{0, 0, 0}}));
    if (adapters) adapters(page.get());
    obx::data::InfluxSerializer serializer;
    return serializer.serializePage({}, page.get(), system.raw);
}

TEST(InfluxPage, WorkedExampleInBothNameForms) {
    CountersSchemaDoc full;
    full.group("NODE").counter("vzn5_0_aaaaaaaaaaaaa:1:rx_packets", "UINT64");
    EXPECT_EQ(page_lines(full, ByteWriter().u64(42).take(),
                         [](obx_data_page_t* p) { adapter(p, 0, "vzn5_0_aaaaaaaaaaaaa", ""); }),
              Lines{"hca_port_counters,hca_name=vzn5_0_aaaaaaaaaaaaa,node_guid=0x1111222233334444,"
                    "port_guid=0x9999000011112222,port_num=1 rx_packets=42i 1600000000123"});
    // A shorter name keeps its padding zeros in the tag, and its prefix ends at them.
    CountersSchemaDoc short_name;
    short_name.group("NODE").counter("vzn5_0:1:rx_packets", "UINT64");
    EXPECT_EQ(page_lines(short_name, ByteWriter().u64(42).take(), [](obx_data_page_t* p) { adapter(p, 0, "vzn5_0", ""); }),
              Lines{"hca_port_counters,hca_name=vzn5_0" + std::string(14, '\0') +
                    ",node_guid=0x1111222233334444,port_guid=0x9999000011112222,port_num=1 :1:rx_packets=42i 1600000000123"});
}

TEST(InfluxPage, MeasurementsOfNodeCpuPortsAndAdapters) {
    CountersSchemaDoc doc;
    doc.group("NODE").counter("load", "UINT64").counter("vzn_other", "UINT64").counter("vzn7_0_bbbbbbbbbbbbb:2:tx", "UINT64")
        .counter("vzn7_0_bbbbbbbbbbbbb:temp", "UINT64");
    doc.group("PACKAGE", 2).counter("energy", "UINT64");  // stepped over
    doc.group("CPU", 2).counter("user", "UINT64");
    doc.group("NODE").counter("late", "UINT64");
    const Bytes values = ByteWriter().u64(1).u64(2).u64(3).u64(4).u64(50).u64(51).u64(60).u64(61).u64(7).take();
    const std::string guids = "node_guid=0x1111222233334444,system_image_guid=0x5555666677778888";
    const std::string bbb = "hca_name=vzn7_0_bbbbbbbbbbbbb,node_guid=0x1111222233334444";
    EXPECT_EQ(page_lines(doc, values,
                         [](obx_data_page_t* p) { adapter(p, 1, "vzn7_0_bbbbbbbbbbbbb", "9999000011113333"); }),
              (Lines{"node_counters," + guids + " load=1i,vzn_other=2i,late=7i 1600000000123",
                     "cpu_counters,cpu_num=0," + guids + " user=60i 1600000000123",
                     "cpu_counters,cpu_num=1," + guids + " user=61i 1600000000123",
                     "hca_port_counters," + bbb + ",port_guid=0x9999000011113333,port_num=2 tx=3i 1600000000123",
                     "hca_counters," + bbb + ",system_image_guid=0x5555666677778888 temp=4i 1600000000123"}));
    // No adapters: every NODE counter goes to the node, with no GUID tags.
    EXPECT_EQ(page_lines(doc, values, nullptr),
              (Lines{"node_counters load=1i,vzn_other=2i,vzn7_0_bbbbbbbbbbbbb:2:tx=3i,vzn7_0_bbbbbbbbbbbbb:temp=4i,late=7i "
                     "1600000000123",
                     "cpu_counters,cpu_num=0 user=60i 1600000000123", "cpu_counters,cpu_num=1 user=61i 1600000000123"}));
}

TEST(InfluxPage, EventsSchemasAndUnknownBlocks) {
    SchemaFolder folder;
    const SchemaId id = folder.add(EventSchemaDoc("p").type("e", {{"v", "uint16_t"}}));
    obx_type_system_t* system = obx_type_system_create();
    ASSERT_NE(obx_type_system_load_schema_file(system, folder.file_of(id).c_str()), nullptr);
    SchemasBlockFields ids;
    ids.ids = {SchemaFolder::hex(id)};
    const Bytes events = event_block(0, 0, 2, ByteWriter().u16(7).u16(8).take(), kTime);
    PagePtr page = make_page(concat({schemas_block(ids), Bytes{9}, events, event_block(0, 5, 1, Bytes{1, 2}, kTime), events}));
    obx::data::InfluxSerializer serializer;
    // The unknown event type ends the walk: the block behind it is not read.
    EXPECT_EQ(serializer.serializePage({{"host", "a b"}}, page.get(), system),
              (Lines{"e,host=a\\ b v=7i 1600000000123", "e,host=a\\ b v=8i 1600000000123"}));
    obx_type_system_destroy(system);
}

TEST(InfluxPage, CountersByGroup) {
    CountersSchemaDoc doc;
    doc.group("CPU", 2, std::string("cpu x")).counter("u", "UINT64").counter("s", "INT64");
    doc.group("NODE").counter("n", "UINT64");
    System system(doc);
    const Bytes block = counters_block(kTime, ByteWriter().u64(1).i64(-2).u64(3).i64(-4).u64(5).take());
    obx::data::InfluxSerializer serializer;
    EXPECT_EQ(serializer.serializeCountersByGroup({{"h", "n1"}}, block.data(), system.raw->counters_schema),
              (Lines{"cpu\\ x,h=n1,CPU=0 u=1i,s=-2i 1600000000123", "cpu\\ x,h=n1,CPU=1 u=3i,s=-4i 1600000000123",
                     "counters,h=n1 n=5i 1600000000123"}));
}

}  // namespace

// A stated layout may read past its record: an event whose reads would pass the page's
// bytes is dropped with the rest of its block; one that reads up to the last byte is not.
TEST(InfluxPage, EventsReadNoFurtherThanThePage) {
    SchemaFolder folder;
    FieldDoc v("v", "uint16_t");
    v.offset = 2;  // behind the record's two bytes
    const SchemaId id = folder.add(EventSchemaDoc("p").type(TypeDoc{"w", {v}, 2}));
    obx_type_system_t* system = obx_type_system_create();
    ASSERT_NE(obx_type_system_load_schema_file(system, folder.file_of(id).c_str()), nullptr);
    SchemasBlockFields ids;
    ids.ids = {SchemaFolder::hex(id)};
    const Bytes events = event_block(0, 0, 2, Bytes{1, 2, 3, 4}, kTime);
    obx::data::InfluxSerializer serializer;
    const struct { Bytes behind; Lines lines; } cases[] = {
        {{}, {"w v=1027i 1600000000123"}},
        {{5, 6}, {"w v=1027i 1600000000123", "w v=1541i 1600000000123"}},
    };
    for (const auto& c : cases) {
        PagePtr page = make_page(concat({schemas_block(ids), events, c.behind}));
        EXPECT_EQ(serializer.serializePage({}, page.get(), system), c.lines);
    }
    obx_type_system_destroy(system);
}
