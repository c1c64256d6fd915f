// obx gen: a collector in a box. For each source of a source specification it writes
// what a collector of that host would: typed events (preceded by a schemas block), counter
// blocks and CNTX metrics blocks with histograms, in data pages of the source and a tag,
// optionally as gzip or snappy page frames; the data writer lays the pages down as data
// files and the schema writer makes the schema folder. The same options give the same bytes.
#include <getopt.h>
#include <sys/stat.h>
#include <snappy-c.h>
#include <zlib.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "data/format/encoded_payload.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "data/schema/schema_json.h"
#include "data/reader/input_files.h"
#include "data/writer/data_page.h"
#include "data/writer/data_writer.h"
#include "data/writer/schema_writer.h"
#include "host/client_id.h"
#include "host/source.h"
#include "metrics/histogram.h"
#include "tools/obx_command.h"
#include "utils/json.h"
#include "utils/version.h"

namespace {

// SIGINT and SIGTERM end the run between two seconds of data, so that every page handed on
// is written whole and the files keep valid headers.
volatile std::sig_atomic_t g_stop_signal = 0;

extern "C" void obx_gen_on_stop_signal(int signal) { g_stop_signal = signal; }

void catch_stop_signals() {
    struct sigaction action = {};
    action.sa_handler = obx_gen_on_stop_signal;
    action.sa_flags = SA_RESTART;  // writes under way are finished, not cut short
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

constexpr uint64_t kSecond = 1000000ull;
constexpr uint64_t kMaxSeconds = 7ull * 24 * 3600;
constexpr uint64_t kMaxRate = 100000;
// Chunk sizes of the three streams: a counters chunk holds one counters block, a metrics
// chunk one CNTX block, an events chunk a schemas block and a run of event blocks.
constexpr uint32_t kEventsChunk = 16384, kCountersChunk = 256, kMetricsChunk = 2048;
constexpr size_t kChunksPerPage = 8;
// Files are finished at 16 MiB or after ten minutes of data.
// Defaults of the data writer's limits: 16 MiB and ten minutes a file.
constexpr uint64_t kFileSizeMib = 16, kFileAgeSeconds = 600, kMaxFileSizeMib = 1ull << 20;
// Bytes of events in one buffer, leaving room for a page frame's header and for data
// that does not compress.
constexpr uint64_t kEventsRoom = kEventsChunk - 512;

enum class Compression { none, gzip, snappy };

struct Options {
    std::string out;
    std::string sources = "2";
    uint64_t start = 1700000000000000ull;
    uint64_t seconds = 60;
    uint64_t rate = 20;  // events per second and source
    Compression compress = Compression::none;
    uint64_t seed = 1;
    bool json = false;
    bool gzip_files = false;  // each finished data file gzip-wrapped whole, as archives keep them
    uint64_t file_size_mib = kFileSizeMib;
    uint64_t file_age_seconds = kFileAgeSeconds;
};

// splitmix64: small, fast and the same on every machine.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t bound) { return bound ? next() % bound : 0; }
    double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }

private:
    uint64_t state_;
};

// Little-endian bytes at the end of a vector.
class Bytes {
public:
    Bytes& u8(uint8_t v) { data.push_back(v); return *this; }
    Bytes& u16(uint16_t v) { return put(v, 2); }
    Bytes& u32(uint32_t v) { return put(v, 4); }
    Bytes& u64(uint64_t v) { return put(v, 8); }
    Bytes& i32(int32_t v) { return put(static_cast<uint32_t>(v), 4); }
    Bytes& i64(int64_t v) { return put(static_cast<uint64_t>(v), 8); }
    Bytes& f64(double v) { uint64_t bits; std::memcpy(&bits, &v, 8); return put(bits, 8); }
    Bytes& text(const char* magic) { data.insert(data.end(), magic, magic + std::strlen(magic)); return *this; }
    // `text` in exactly `width` bytes, zero-filled.
    Bytes& fixed(const std::string& text, size_t width) {
        const size_t at = data.size();
        data.resize(at + width, 0);
        std::memcpy(data.data() + at, text.data(), text.size() < width ? text.size() : width);
        return *this;
    }
    // A short string: one length byte and at most 255 bytes.
    Bytes& short_string(const std::string& text) {
        const size_t length = text.size() < 255 ? text.size() : 255;
        data.push_back(static_cast<uint8_t>(length));
        data.insert(data.end(), text.begin(), text.begin() + static_cast<long>(length));
        return *this;
    }
    std::vector<uint8_t> data;

private:
    // The per-event path: one resize and one little-endian store per value.
    Bytes& put(uint64_t v, size_t width) {
        const size_t at = data.size();
        data.resize(at + width);
        uint8_t* to = data.data() + at;
        switch (width) {
            case 2: obx_put_u16(to, static_cast<uint16_t>(v)); break;
            case 4: obx_put_u32(to, static_cast<uint32_t>(v)); break;
            default: obx_put_u64(to, v); break;
        }
        return *this;
    }
};

// ---- schemas ------------------------------------------------------------------------

// Positions of the event types in the generator's schema, and their packed sizes.
enum EventType : uint16_t { kCpuSample = 0, kPortSample = 1, kJobEnd = 2, kEventTypes = 3 };
const uint64_t kEventSizes[kEventTypes] = {8 + 2 + 8 + 8 + 8, 8 + 1 + 8 + 8 + 8 + 4, 8 + 8 + 12 + 4 + 8 + 10};
const char* const kEventNames[kEventTypes] = {"cpu_sample", "port_sample", "job_end"};

struct SchemaIds {
    uint8_t events[OBX_SCHEMA_ID_SIZE];
    uint8_t counters[OBX_SCHEMA_ID_SIZE];
    uint32_t counter_values = 0;  // bytes of values in a counters block
};

json_t* event_schema_json() {
    std::unique_ptr<obx_schema_t, void (*)(obx_schema_t*)> built_ins(obx_schema_create("built-in", 0), obx_schema_destroy);
    std::unique_ptr<obx_schema_t, void (*)(obx_schema_t*)> schema(obx_schema_create("obx_gen", obx_version_make(1, 0, 0)),
                                                                  obx_schema_destroy);
    if (!built_ins || !schema || !obx_schema_register_built_in_types(built_ins.get())) return nullptr;
    schema->base_schema = built_ins.get();
    const int absolute = OBX_COUNTING_MODE_ABSOLUTE, running = OBX_COUNTING_MODE_RUNNING_SUM;
    const obx_type_field_info_t cpu[] = {
        {"time", "time of the sample", "timestamp", absolute, 1},
        {"cpu", "processor number", "uint16_t", absolute, 1},
        {"user", "share of time in user mode", "double", absolute, 1},
        {"system", "share of time in the kernel", "double", absolute, 1},
        {"idle", "share of idle time", "double", absolute, 1},
    };
    const obx_type_field_info_t port[] = {
        {"time", "time of the sample", "timestamp", absolute, 1},
        {"port", "port number", "uint8_t", absolute, 1},
        {"state", "link state", "char", absolute, 8},
        {"rx_bytes", "bytes received", "uint64_t", running, 1},
        {"tx_bytes", "bytes sent", "uint64_t", running, 1},
        {"symbol_errors", "symbol errors", "uint32_t", running, 1},
    };
    const obx_type_field_info_t job[] = {
        {"time", "end of the job", "timestamp", absolute, 1},
        {"job_id", "job number", "uint64_t", absolute, 1},
        {"user", "owner of the job", "char", absolute, 12},
        {"exit_code", "exit status", "int32_t", absolute, 1},
        {"cpu_seconds", "processor time used", "double", running, 1},
        {"state", "final state", "char", absolute, 10},
    };
    const struct { const obx_type_field_info_t* fields; size_t count; } types[kEventTypes] = {{cpu, 5}, {port, 6}, {job, 6}};
    for (uint16_t i = 0; i < kEventTypes; ++i) {
        uint8_t index = 0;
        if (obx_schema_add_type(schema.get(), kEventNames[i], types[i].fields, types[i].count, &index) != OBX_SCHEMA_OK ||
            index != i || obx_schema_get_type_size(schema.get(), kEventNames[i]) != kEventSizes[i])
            return nullptr;
    }
    return obx_schema_to_json(schema.get());
}

json_t* counter_json(const char* name, const char* description, const char* units, const char* type, const char* counting) {
    json_t* counter = json_object();
    const bool ok = counter && obx_json_object_set_string(counter, "name", name) &&
                    obx_json_object_set_string(counter, "description", description) &&
                    obx_json_object_set_string(counter, "units", units) && obx_json_object_set_string(counter, "data_type", type) &&
                    obx_json_object_set_number(counter, "length", 8) && obx_json_object_set_number(counter, "offset", 0) &&
                    obx_json_object_set_number(counter, "hidden", 0) && obx_json_object_set_number(counter, "mandatory", 0) &&
                    obx_json_object_set_string(counter, "counting_type", counting);
    if (!ok) json_decref(counter);
    return ok ? counter : nullptr;
}

// Host counters in three groups of eight-byte values.
json_t* counters_schema_json() {
    struct Counter { const char *name, *description, *units, *type, *counting; };
    struct Group { const char *granularity, *name; std::vector<Counter> counters; };
    const Group groups[] = {
        {"NODE", "node", {{"load_avg", "one-minute load average", "", "FP64", "ABSOLUTE"},
                          {"mem_free", "free memory", "kB", "INT64", "ABSOLUTE"},
                          {"uptime", "time since boot", "s", "UINT64", "ABSOLUTE"},
                          {"context_switches", "context switches", "", "UINT64", "RUNNING_SUM"}}},
        {"CPU", "cpu", {{"user_ticks", "time in user mode", "ticks", "UINT64", "RUNNING_SUM"},
                        {"system_ticks", "time in the kernel", "ticks", "UINT64", "RUNNING_SUM"},
                        {"idle_ticks", "idle time", "ticks", "UINT64", "RUNNING_SUM"}}},
        {"PACKAGE", "package", {{"energy", "energy used", "J", "FP64", "RUNNING_SUM"},
                                {"temperature", "package temperature", "mC", "INT64", "ABSOLUTE"}}},
    };
    json_t* root = json_object();
    json_t* array = json_array();
    bool ok = root && array && obx_json_object_set_string(root, "title", "Ombrix performance counters collector") &&
              obx_json_object_set_string(root, "version", "1.5.0");
    for (const Group& group : groups) {
        json_t* object = json_object();
        json_t* counters = json_array();
        ok = ok && object && counters && obx_json_object_set_string(object, "granularity", group.granularity) &&
             obx_json_object_set_string(object, "name", group.name) && obx_json_object_set_number(object, "num_counter_sets", 1) &&
             obx_json_object_set_number(object, "num_counters", static_cast<double>(group.counters.size()));
        for (const Counter& c : group.counters)
            ok = ok && obx_json_array_append(counters, counter_json(c.name, c.description, c.units, c.type, c.counting));
        ok = ok && obx_json_object_set(object, "counters", counters) && obx_json_array_append(array, object);
        if (!ok) json_decref(object), json_decref(counters);
        if (!ok) break;
    }
    ok = ok && obx_json_object_set(root, "counter_groups", array);
    if (!ok) {
        json_decref(root);
        return nullptr;
    }
    return root;
}

// Lays down both schemas; their ids go into the pages. False after a message on stderr.
bool write_schemas(obx::SchemaWriter& writer, SchemaIds* ids) {
    std::unique_ptr<json_t, void (*)(json_t*)> events(event_schema_json(), json_decref);
    std::unique_ptr<json_t, void (*)(json_t*)> counters_text(counters_schema_json(), json_decref);
    std::unique_ptr<obx_counters_schema_t, void (*)(obx_counters_schema_t*)> counters(
        counters_text ? obx_counters_schema_from_json(counters_text.get()) : nullptr, obx_counters_schema_destroy);
    // The counters schema file holds the schema as the library encodes it.
    std::unique_ptr<json_t, void (*)(json_t*)> counters_json(counters ? obx_counters_schema_jsonify(counters.get()) : nullptr,
                                                             json_decref);
    if (!events || !counters_json) {
        std::fputs("obx gen: the schemas could not be built\n", stderr);
        return false;
    }
    try {
        writer.onSchema(static_cast<const json_t*>(events.get()));
        writer.onSchema(static_cast<const json_t*>(counters_json.get()));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "obx gen: %s\n", e.what());
        return false;
    }
    if (!writer.ok || !obx_json_md5(ids->events, events.get()) || !obx_json_md5(ids->counters, counters_json.get())) {
        std::fputs("obx gen: the schema folder could not be written\n", stderr);
        return false;
    }
    ids->counter_values = counters->size_of_counters;
    return true;
}

// ---- blocks -----------------------------------------------------------------------

// A schemas block naming the generator's event schema in slot 0 of seven.
void schemas_block(Bytes& out, const SchemaIds& ids) {
    const size_t start = out.data.size();
    out.data.resize(start + OBX_SCHEMAS_BLOCK_IDS + 7 * OBX_SCHEMA_ID_SIZE, 0);
    obx_schemas_block_head_t head = {};
    obx_block_magic_set(out.data.data() + start, OBX_SCHEMAS_BLOCK);
    std::memcpy(head.magic, out.data.data() + start, OBX_MAGIC_SIZE);
    head.block_size = static_cast<uint16_t>(OBX_SCHEMAS_BLOCK_IDS + 7 * OBX_SCHEMA_ID_SIZE);
    head.id_count = 1;
    obx_schemas_block_head_write(out.data.data() + start, &head);
    std::memcpy(out.data.data() + start + OBX_SCHEMAS_BLOCK_IDS, ids.events, OBX_SCHEMA_ID_SIZE);
}

void event_block_head(Bytes& out, uint64_t timestamp, uint16_t type, uint8_t count) {
    const size_t start = out.data.size();
    out.data.resize(start + OBX_EVENT_BLOCK_HEAD_SIZE, 0);
    obx_event_block_head_t head = {};
    obx_block_magic_set(out.data.data() + start, OBX_EVENTS_BLOCK);
    std::memcpy(head.magic, out.data.data() + start, OBX_MAGIC_SIZE);
    head.timestamp = timestamp, head.schema_index = 0, head.type_index = type, head.num_events = count;
    obx_event_block_head_write(out.data.data() + start, &head);
}

const char* const kUsers[] = {"alice", "bob", "carol", "dave", "erin", "frank"};
const char* const kJobStates[] = {"COMPLETED", "COMPLETED", "COMPLETED", "FAILED", "TIMEOUT", "CANCELLED"};

// The state of one simulated host that runs through the generated time.
struct Host {
    explicit Host(uint64_t seed) : random(seed) {}
    Random random;
    uint64_t rx[2] = {0, 0}, tx[2] = {0, 0};
    uint32_t symbol_errors[2] = {0, 0};
    uint64_t next_job = 1000, context_switches = 0, ticks[3] = {0, 0, 0}, uptime = 86400;
    double cpu_seconds = 0, energy = 0;
};

void event_record(Bytes& out, Host& host, uint16_t type, uint64_t time) {
    Random& r = host.random;
    if (type == kCpuSample) {
        const double user = 0.1 + 0.6 * r.unit(), system = 0.05 + 0.1 * r.unit();
        out.u64(time).u16(static_cast<uint16_t>(r.below(16))).f64(user).f64(system).f64(1.0 - user - system);
    } else if (type == kPortSample) {
        const uint8_t port = static_cast<uint8_t>(r.below(2));
        host.rx[port] += 1000000 + r.below(50000000), host.tx[port] += 1000000 + r.below(50000000);
        if (r.below(50) == 0) host.symbol_errors[port] += 1;
        out.u64(time).u8(static_cast<uint8_t>(port + 1)).fixed(r.below(100) == 0 ? "degraded" : "active", 8);
        out.u64(host.rx[port]).u64(host.tx[port]).u32(host.symbol_errors[port]);
    } else {
        host.cpu_seconds += 10.0 + 3600.0 * r.unit();
        const size_t state = r.below(6);
        out.u64(time).u64(host.next_job++).fixed(kUsers[r.below(6)], 12).i32(state < 3 ? 0 : static_cast<int32_t>(1 + r.below(137)));
        out.f64(std::floor(host.cpu_seconds * 100) / 100).fixed(kJobStates[state], 10);
    }
}

class Stream;
// A buffer of events as the reader takes it: a schemas block first, and at least the
// 256 bytes that a schemas block needs behind its start.
void add_events_buffer(Stream& stream, Bytes& buffer, uint64_t first, uint64_t last);

// One second of events: `rate` events spread over the three types, cpu samples most, then
// ports, then the odd job end; a block per type holds at most 255 events, and a buffer as
// many blocks as fit its chunk.
void events_of_second(Stream& stream, const SchemaIds& ids, Host& host, uint64_t second, uint64_t rate,
                      size_t counts[kEventTypes]) {
    uint64_t per_type[kEventTypes] = {0, 0, 0};
    for (uint64_t i = 0; i < rate; ++i) per_type[i % 10 < 6 ? kCpuSample : i % 10 < 9 ? kPortSample : kJobEnd] += 1;
    Bytes buffer;
    schemas_block(buffer, ids);
    for (uint16_t type = 0; type < kEventTypes; ++type) {
        for (uint64_t done = 0; done < per_type[type];) {
            uint64_t count = per_type[type] - done < 255 ? per_type[type] - done : 255;
            const uint64_t room = (kEventsRoom - buffer.data.size() - OBX_EVENT_BLOCK_HEAD_SIZE) / kEventSizes[type];
            if (buffer.data.size() + OBX_EVENT_BLOCK_HEAD_SIZE + kEventSizes[type] > kEventsRoom || room == 0) {
                add_events_buffer(stream, buffer, second, second + kSecond - 1);
                buffer.data.clear();
                schemas_block(buffer, ids);
                continue;
            }
            if (count > room) count = room;
            event_block_head(buffer, second, type, static_cast<uint8_t>(count));
            for (uint64_t i = 0; i < count; ++i)
                event_record(buffer, host, type, second + (done + i) * (kSecond / (per_type[type] + 1)));
            done += count;
            counts[type] += count;
        }
    }
    add_events_buffer(stream, buffer, second, second + kSecond - 1);
}

void counters_block(Bytes& out, Host& host, uint64_t second, uint32_t value_bytes) {
    const size_t start = out.data.size();
    out.data.resize(start + OBX_COUNTERS_BLOCK_HEAD_SIZE, 0);
    obx_counters_block_head_t head = {};
    obx_block_magic_set(out.data.data() + start, OBX_COUNTERS_BLOCK);
    std::memcpy(head.magic, out.data.data() + start, OBX_MAGIC_SIZE);
    head.timestamp = second;
    obx_counters_block_head_write(out.data.data() + start, &head);
    Random& r = host.random;
    host.uptime += 1, host.context_switches += 20000 + r.below(5000);
    for (uint64_t& tick : host.ticks) tick += r.below(100);
    host.energy += 80.0 + 40.0 * r.unit();
    out.f64(std::floor((0.5 + 8.0 * r.unit()) * 100) / 100).i64(static_cast<int64_t>(8000000 + r.below(4000000)));
    out.u64(host.uptime).u64(host.context_switches).u64(host.ticks[0]).u64(host.ticks[1]).u64(host.ticks[2]);
    out.f64(std::floor(host.energy * 10) / 10).i64(static_cast<int64_t>(45000 + r.below(30000)));
    if (out.data.size() - start != OBX_COUNTERS_BLOCK_HEAD_SIZE + value_bytes)
        throw std::logic_error("counters block does not match its schema");
}

// A labels block of label set 0 giving value ids (device, port).
void labels_by_id(Bytes& out, uint8_t device, uint8_t port) { out.u8(0).u8(2).u8('L').u8(device).u8(port); }

// One CNTX block: per port, a counter record of its traffic and a gauge record of its
// state, and a histogram of request latency on each port.
void cntx_block(Bytes& out, Host& host, uint64_t second, const obx_source_t& source) {
    static const char* const kMetrics[] = {"port_rcv_data", "port_xmit_data", "port_rcv_packets", "link_downed", "port_state"};
    static const double kBounds[] = {1, 2, 5, 10, 20, 50, 100, 1000};
    Bytes block;
    block.text("CNTX").u32(0);
    block.text("LBLN").u8(2).short_string("device").short_string("port").u32(0);
    block.text("LBLV").u16(4).short_string("mlx5_0").short_string("mlx5_1").short_string("1").short_string("2").text("lblv");
    block.text("CNTI").u16(5);
    for (const char* name : kMetrics) block.short_string(name);
    block.text("cnti");
    Random& r = host.random;
    for (uint8_t port = 0; port < 2; ++port) {
        obx::metrics::Histogram hist;
        hist.name = "rpc_latency_us";
        hist.timestamp = second;
        // Cumulative bucket counts; an observation counts at three quarters of its bound.
        for (double bound : kBounds) {
            const uint64_t in_bucket = r.below(200);
            hist.count += in_bucket;
            hist.sum += 0.75 * bound * static_cast<double>(in_bucket);
            hist.buckets.push_back({bound, hist.count});
        }
        Bytes labels;
        labels_by_id(labels, port, static_cast<uint8_t>(2 + port));
        const size_t at = block.data.size();
        block.data.resize(at + hist.serialized_size(labels.data.size()));
        obx::metrics::PreallocatedVector room(block.data.data() + at, block.data.size() - at);
        hist.serialize(labels.data, room);
    }
    block.text("CLBL").u16(4).short_string("site").short_string("lab-a").short_string("host").short_string(source.source_id);
    block.text("clbl");
    block.text("CNTD");
    const size_t records_size_at = block.data.size();
    block.u32(0);
    const size_t records_start = block.data.size();
    for (uint8_t port = 0; port < 2; ++port) {
        host.rx[port] += 1000000 + r.below(50000000), host.tx[port] += 1000000 + r.below(50000000);
        Bytes record;
        record.u16(0).u64(second + port * 1000).u8('C').u8(1).u16(4);
        record.u16(0).u64(host.rx[port]).u16(1).u64(host.tx[port]).u16(2).u64(host.rx[port] / 1024).u16(3).u64(r.below(1000) == 0);
        labels_by_id(record, 0, static_cast<uint8_t>(2 + port));
        obx_put_u16(record.data.data(), static_cast<uint16_t>(record.data.size()));
        block.data.insert(block.data.end(), record.data.begin(), record.data.end());
        Bytes gauge;
        gauge.u16(0).u64(second + port * 1000 + 1).u8('G').u8(1).u16(1).u16(4).u64(4);
        labels_by_id(gauge, 0, static_cast<uint8_t>(2 + port));
        obx_put_u16(gauge.data.data(), static_cast<uint16_t>(gauge.data.size()));
        block.data.insert(block.data.end(), gauge.data.begin(), gauge.data.end());
    }
    obx_put_u32(block.data.data() + records_size_at, static_cast<uint32_t>(block.data.size() - records_start));
    block.text("cntd").text("cntx");
    obx_put_u32(block.data.data() + 4, static_cast<uint32_t>(block.data.size()));
    out.data.insert(out.data.end(), block.data.begin(), block.data.end());
}

// ---- page frames --------------------------------------------------------------------

// Makes OBXP frames of one compression, keeping its state and buffers from frame to frame.
class Compressor {
public:
    explicit Compressor(Compression compression) : compression_(compression) {}
    ~Compressor() {
        if (gzip_ready_) deflateEnd(&z_);
    }
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    // The frame holding `data` compressed; empty when the compressor fails.
    const std::vector<uint8_t>& frame(const std::vector<uint8_t>& data, const obx_source_t& source, uint64_t first,
                                      uint64_t last) {
        frame_.clear();
        if (!compress(data)) return frame_;
        // The header takes the times and source fields of a page header.
        obx_data_page_t fields = {};
        fields.first_timestamp = first, fields.last_timestamp = last;
        std::memcpy(fields.source_id, source.source_id, OBX_SOURCE_ID_SIZE);
        std::memcpy(fields.source_tag, source.source_tag, OBX_SOURCE_TAG_SIZE);
        uint8_t header[255];
        const size_t header_size = obx_copy_obxp_header_into_buffer(
            &fields, compression_ == Compression::gzip ? OBX_COMPRESSION_GZIP : OBX_COMPRESSION_SNAPPY, stream_size_, header,
            sizeof(header));
        if (header_size == 0) return frame_;
        static const char magic[] = OBX_PAGE_FRAME_MAGIC, trailer[] = OBX_PAGE_FRAME_TRAILER;
        frame_.insert(frame_.end(), magic, magic + OBX_MAGIC_SIZE);
        frame_.insert(frame_.end(), header, header + header_size);
        frame_.insert(frame_.end(), stream_.begin(), stream_.begin() + static_cast<long>(stream_size_));
        frame_.insert(frame_.end(), trailer, trailer + OBX_PAGE_FRAME_TRAILER_SIZE);
        return frame_;
    }

private:
    bool compress(const std::vector<uint8_t>& data) {
        if (compression_ == Compression::gzip) {
            if (!gzip_ready_ && deflateInit2(&z_, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
            gzip_ready_ = true;
            if (deflateReset(&z_) != Z_OK) return false;
            stream_.resize(deflateBound(&z_, data.size()));
            z_.next_in = const_cast<Bytef*>(data.data()), z_.avail_in = static_cast<uInt>(data.size());
            z_.next_out = stream_.data(), z_.avail_out = static_cast<uInt>(stream_.size());
            if (deflate(&z_, Z_FINISH) != Z_STREAM_END) return false;
            stream_size_ = z_.total_out;
            return true;
        }
        size_t length = snappy_max_compressed_length(data.size());
        stream_.resize(length);
        if (snappy_compress(reinterpret_cast<const char*>(data.data()), data.size(), reinterpret_cast<char*>(stream_.data()),
                            &length) != SNAPPY_OK)
            return false;
        stream_size_ = length;
        return true;
    }

    Compression compression_;
    z_stream z_ = {};
    bool gzip_ready_ = false;
    std::vector<uint8_t> stream_, frame_;
    size_t stream_size_ = 0;
};

// ---- output -------------------------------------------------------------------------

// `from` gzip-wrapped whole into `to`, then removed; a failure leaves `from` in place.
bool gzip_file(const std::string& from, const std::string& to) {
    FILE* in = std::fopen(from.c_str(), "rb");
    gzFile out = in ? gzopen(to.c_str(), "wb") : nullptr;
    bool ok = out != nullptr;
    char buffer[1 << 16];
    for (size_t got; ok && (got = std::fread(buffer, 1, sizeof(buffer), in)) > 0;)
        ok = gzwrite(out, buffer, static_cast<unsigned>(got)) == static_cast<int>(got);
    ok = ok && !std::ferror(in);
    if (out && gzclose(out) != Z_OK) ok = false;
    if (in) std::fclose(in);
    if (!ok) {
        std::fprintf(stderr, "obx gen: %s could not be gzip-wrapped into %s\n", from.c_str(), to.c_str());
        std::remove(to.c_str());
        return false;
    }
    return std::remove(from.c_str()) == 0;
}

// Hands pages to the data writer, which lays them down as data files below `base` by
// its default path template, one series of files per source and tag. A source's files
// are finished before the next source starts: the writer keeps its files open, and a few
// thousand sources must not run out of file handles.
class Output {
public:
    Output(std::string base, const obx_client_id_t& client, uint64_t file_size, uint64_t file_age)
        : base_(std::move(base)), client_(client), file_size_(file_size), file_age_(file_age) {}
    ~Output() { obx_data_writer_destroy(writer_); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(const obx_data_page_t& page) {
        if (!writer_) {
            writer_ = obx_data_writer_create(&client_);
            if (!writer_ || !obx_data_writer_set_base_path(writer_, base_.c_str()) ||
                !obx_data_writer_set_file_size_limit(writer_, file_size_) ||
                !obx_data_writer_set_file_age_limit(writer_, file_age_))
                throw std::runtime_error("the data writer could not be set up");
        }
        if (!obx_data_writer_write_page(writer_, &page, nullptr)) throw std::runtime_error("the data writer failed");
        ++pages_;
    }
    // Finishes the headers of the files written so far.
    void finish_source() {
        obx_data_writer_destroy(writer_);
        writer_ = nullptr;
    }
    // Finishes every file, wraps each in gzip when asked, then takes stock of what is there.
    bool close(bool gzip_files) {
        finish_source();
        obx_string_array_t* found = obx_string_array_create();
        bool ok = found && obx_read_collect_directory(&found, base_.c_str());
        for (uint64_t i = 0; ok && i < found->count; ++i) {
            std::string path = found->strings[i];
            if (gzip_files) {
                ok = gzip_file(path, path + ".gz");
                path += ".gz";
            }
            struct stat status;
            if (ok && stat(path.c_str(), &status) == 0) bytes_ += static_cast<uint64_t>(status.st_size);
            files_.push_back(path);
        }
        obx_string_array_destroy(found);
        std::sort(files_.begin(), files_.end());
        return ok;
    }
    size_t pages() const { return pages_; }
    uint64_t bytes() const { return bytes_; }
    const std::vector<std::string>& files() const { return files_; }
    const std::string& base() const { return base_; }

private:
    std::string base_;
    obx_client_id_t client_;
    uint64_t file_size_, file_age_;
    obx::DataWriter* writer_ = nullptr;
    size_t pages_ = 0;
    uint64_t bytes_ = 0;
    std::vector<std::string> files_;
};

// ---- streams ------------------------------------------------------------------------

// Gathers the buffers of one stream (source and tag) into chunks of `block_size` bytes in
// one reused data page, and hands the page on when its chunks are used up. A plain buffer
// takes a chunk of its own; page frames share a chunk while they fit, as the reader takes
// a chunk of frames apart frame by frame.
class Stream {
public:
    Stream(Output& output, const obx_source_t& source, const char* tag, uint32_t block_size, Compression compression,
           bool first_page_plain, const uint8_t* counters_schema_id)
        : output_(output), compression_(compression), compressor_(compression), plain_first_(first_page_plain) {
        obx_data_page_config_t config = {};
        config.page_type = OBX_DATA_PAGE_REGULAR;
        std::snprintf(config.name, sizeof(config.name), "obx-gen");
        page_ = obx_data_page_create(block_size, OBX_DATA_PAGE_HEADER_SIZE + kChunksPerPage * block_size, &config);
        if (!page_) throw std::runtime_error("no data page could be made");
        std::memcpy(page_->source_id, source.source_id, OBX_SOURCE_ID_SIZE);
        std::memset(page_->source_tag, 0, OBX_SOURCE_TAG_SIZE);
        std::snprintf(page_->source_tag, OBX_SOURCE_TAG_SIZE, "%s", tag);
        if (counters_schema_id) std::memcpy(page_->schema_id, counters_schema_id, OBX_SCHEMA_ID_SIZE);
        source_ = source;
        std::memcpy(source_.source_tag, page_->source_tag, OBX_SOURCE_TAG_SIZE);
    }
    ~Stream() { obx_data_page_destroy(page_); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void add(const std::vector<uint8_t>& buffer, uint64_t first, uint64_t last) {
        const bool plain = compression_ == Compression::none || plain_first_;
        const std::vector<uint8_t>& bytes = plain ? buffer : compressor_.frame(buffer, source_, first, last);
        if (bytes.empty()) throw std::runtime_error("page compression failed");
        if (!plain) ++frames_;
        if (bytes.size() > page_->block_size) throw std::runtime_error("a buffer does not fit its chunk");
        if (plain || chunks_ == 0 || chunk_used_ + bytes.size() > page_->block_size) open_chunk();
        std::memcpy(page_->data() + (chunks_ - 1) * page_->block_size + chunk_used_, bytes.data(), bytes.size());
        obx_data_page_consume_free_space(page_, bytes.size());
        chunk_used_ += bytes.size();
        if (page_->first_timestamp == 0) page_->first_timestamp = first;
        page_->last_timestamp = last;
        if (plain_first_) {
            flush();  // alone in its page, so that the file's header names the counters schema
            plain_first_ = false;
        }
    }
    void finish() { flush(); }
    size_t frames() const { return frames_; }

private:
    // The next chunk, zeroed: the data writer writes the last block whole.
    void open_chunk() {
        if (chunks_ == kChunksPerPage) flush();
        std::memset(page_->data() + chunks_ * page_->block_size, 0, page_->block_size);
        page_->filled_bytes = OBX_DATA_PAGE_HEADER_SIZE + chunks_ * page_->block_size;
        ++chunks_;
        chunk_used_ = 0;
    }
    // Hands the page on and makes it empty again.
    void flush() {
        if (chunks_ == 0) return;
        output_.write(*page_);
        page_->filled_bytes = OBX_DATA_PAGE_HEADER_SIZE;
        page_->first_timestamp = page_->last_timestamp = 0;
        chunks_ = 0;
        chunk_used_ = 0;
    }

    Output& output_;
    Compression compression_;
    Compressor compressor_;
    bool plain_first_;
    obx_data_page_t* page_ = nullptr;
    obx_source_t source_;
    size_t chunks_ = 0, chunk_used_ = 0, frames_ = 0;
};

void add_events_buffer(Stream& stream, Bytes& buffer, uint64_t first, uint64_t last) {
    if (buffer.data.size() < OBX_SCHEMAS_BLOCK_MIN_REMAINING) buffer.data.resize(OBX_SCHEMAS_BLOCK_MIN_REMAINING, 0);
    stream.add(buffer.data, first, last);
}

struct Summary {
    size_t sources = 0, events[kEventTypes] = {0, 0, 0}, counter_blocks = 0, cntx_blocks = 0, histograms = 0, frames = 0;
};

void generate_source(Output& output, const Options& options, const obx_source_t& source, size_t index,
                     const SchemaIds& ids, Summary& summary) {
    Host host(options.seed * 0x100000001b3ull + index);
    const bool compress = options.compress != Compression::none;
    Stream events(output, source, "events", kEventsChunk, options.compress, false, nullptr);
    Stream counters(output, source, "counters", kCountersChunk, options.compress, compress, ids.counters);
    Stream metrics(output, source, "metrics", kMetricsChunk, options.compress, false, nullptr);
    for (uint64_t s = 0; s < options.seconds && !g_stop_signal; ++s) {
        const uint64_t second = options.start + s * kSecond;
        if (options.rate > 0) events_of_second(events, ids, host, second, options.rate, summary.events);

        Bytes counter;
        counters_block(counter, host, second, ids.counter_values);
        counters.add(counter.data, second, second);
        ++summary.counter_blocks;

        if (s % 10 == 0) {
            Bytes cntx;
            cntx_block(cntx, host, second, source);
            metrics.add(cntx.data, second, second + 1001);
            ++summary.cntx_blocks;
            summary.histograms += 2;
        }
    }
    events.finish(), counters.finish(), metrics.finish();
    output.finish_source();
    summary.frames += events.frames() + counters.frames() + metrics.frames();
}

bool parse_compression(const char* text, Compression* out) {
    const struct { const char* name; Compression value; } names[] = {
        {"none", Compression::none}, {"gzip", Compression::gzip}, {"snappy", Compression::snappy}};
    for (const auto& name : names)
        if (std::strcmp(text, name.name) == 0) return *out = name.value, true;
    return false;
}

void print_summary(const Options& options, const Summary& summary, const Output& output, const std::string& schema_folder) {
    const size_t events = summary.events[0] + summary.events[1] + summary.events[2];
    const char* const compression[] = {"none", "gzip", "snappy"};
    if (!options.json) {
        std::printf("sources:        %zu\n", summary.sources);
        std::printf("seconds:        %llu from %llu\n", static_cast<unsigned long long>(options.seconds),
                    static_cast<unsigned long long>(options.start));
        std::printf("events:         %zu (cpu_sample %zu, port_sample %zu, job_end %zu)\n", events, summary.events[0],
                    summary.events[1], summary.events[2]);
        std::printf("counter blocks: %zu\n", summary.counter_blocks);
        std::printf("cntx blocks:    %zu with %zu histograms\n", summary.cntx_blocks, summary.histograms);
        std::printf("pages:          %zu (%zu page frames, %s)\n", output.pages(), summary.frames,
                    compression[static_cast<int>(options.compress)]);
        std::printf("data files:     %zu, %llu bytes, below %s\n", output.files().size(),
                    static_cast<unsigned long long>(output.bytes()), output.base().c_str());
        std::printf("schema folder:  %s\n", schema_folder.c_str());
        return;
    }
    std::string text = "{\"sources\": " + std::to_string(summary.sources) + ", \"seconds\": " + std::to_string(options.seconds) +
                       ", \"start\": " + std::to_string(options.start) + ", \"events\": {\"cpu_sample\": " +
                       std::to_string(summary.events[0]) + ", \"port_sample\": " + std::to_string(summary.events[1]) +
                       ", \"job_end\": " + std::to_string(summary.events[2]) + "}, \"counter_blocks\": " +
                       std::to_string(summary.counter_blocks) + ", \"cntx_blocks\": " + std::to_string(summary.cntx_blocks) +
                       ", \"histograms\": " + std::to_string(summary.histograms) + ", \"pages\": " + std::to_string(output.pages()) +
                       ", \"page_frames\": " + std::to_string(summary.frames) + ", \"compression\": \"" +
                       compression[static_cast<int>(options.compress)] + "\", \"data_bytes\": " + std::to_string(output.bytes()) +
                       ", \"schema_folder\": ";
    obx_json_append_string(text, schema_folder.data(), schema_folder.size());
    text += ", \"data_files\": [";
    for (size_t i = 0; i < output.files().size(); ++i) {
        if (i) text += ", ";
        obx_json_append_string(text, output.files()[i].data(), output.files()[i].size());
    }
    std::printf("%s]}\n", text.c_str());
}

int run_gen(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},       {"out", required_argument, nullptr, 'o'},
        {"sources", required_argument, nullptr, 's'}, {"start", required_argument, nullptr, 't'},
        {"seconds", required_argument, nullptr, 'n'}, {"rate", required_argument, nullptr, 'r'},
        {"compress", required_argument, nullptr, 'c'}, {"seed", required_argument, nullptr, 'S'},
        {"json", no_argument, nullptr, 'j'},       {"gzip-files", no_argument, nullptr, 'z'},
        {"file-size", required_argument, nullptr, 'F'}, {"file-age", required_argument, nullptr, 'A'},
        {nullptr, 0, nullptr, 0},
    };
    const obx_command_t* self = &obx_command_gen;
    Options options;
    unsigned long long number = 0;
    for (int code; (code = getopt_long(argc, argv, ":ho:s:t:n:r:c:S:jzF:A:", kOptions, nullptr)) != -1;) {
        switch (code) {
            case 'h': return obx_command_print_help(self);
            case 'o': options.out = optarg; break;
            case 's': options.sources = optarg; break;
            case 't':
                if (!obx_command_parse_u64(optarg, 1, ~0ull - kMaxSeconds * kSecond, &number))
                    return obx_command_usage_error(self, "--start '%s' is not a time in microseconds since the epoch", optarg);
                options.start = number;
                break;
            case 'n':
                if (!obx_command_parse_u64(optarg, 1, kMaxSeconds, &number))
                    return obx_command_usage_error(self, "--seconds '%s' is not a number of seconds from 1 to %llu", optarg,
                                                   static_cast<unsigned long long>(kMaxSeconds));
                options.seconds = number;
                break;
            case 'r':
                if (!obx_command_parse_u64(optarg, 0, kMaxRate, &number))
                    return obx_command_usage_error(self, "--rate '%s' is not a number of events from 0 to %llu", optarg,
                                                   static_cast<unsigned long long>(kMaxRate));
                options.rate = number;
                break;
            case 'c':
                if (!parse_compression(optarg, &options.compress))
                    return obx_command_usage_error(self, "--compress '%s' is not none, gzip or snappy", optarg);
                break;
            case 'S':
                if (!obx_command_parse_u64(optarg, 0, ~0ull, &number))
                    return obx_command_usage_error(self, "--seed '%s' is not a number", optarg);
                options.seed = number;
                break;
            case 'j': options.json = true; break;
            case 'z': options.gzip_files = true; break;
            case 'F':
                if (!obx_command_parse_u64(optarg, 1, kMaxFileSizeMib, &number))
                    return obx_command_usage_error(self, "--file-size '%s' is not a number of MiB from 1 to %llu", optarg,
                                                   static_cast<unsigned long long>(kMaxFileSizeMib));
                options.file_size_mib = number;
                break;
            case 'A':
                if (!obx_command_parse_u64(optarg, 1, kMaxSeconds, &number))
                    return obx_command_usage_error(self, "--file-age '%s' is not a number of seconds from 1 to %llu", optarg,
                                                   static_cast<unsigned long long>(kMaxSeconds));
                options.file_age_seconds = number;
                break;
            default: return obx_command_option_error(self, code, argv);
        }
    }
    if (optind < argc) return obx_command_usage_error(self, "unexpected argument '%s'", argv[optind]);
    if (options.out.empty()) return obx_command_usage_error(self, "--out DIR is needed");

    std::unique_ptr<obx_source_array_t, void (*)(obx_source_array_t*)> sources(
        obx_source_array_from_spec(options.sources.c_str()), obx_source_array_destroy);
    if (!sources) return OBX_EXIT_FAILURE;
    if (sources->count == 0) {
        std::fprintf(stderr, "obx gen: the specification '%s' names no source\n", options.sources.c_str());
        return OBX_EXIT_FAILURE;
    }

    // The data writer appends to files that are there: old data would mix with the new.
    const std::string data = options.out + "/data";
    boost::system::error_code error;
    if (boost::filesystem::exists(data, error) &&
        !(boost::filesystem::is_directory(data, error) && boost::filesystem::is_empty(data, error))) {
        std::fprintf(stderr, "obx gen: %s is there already; give a new --out\n", data.c_str());
        return OBX_EXIT_FAILURE;
    }

    obx::SchemaWriter schema_writer;
    schema_writer.data_path = options.out;
    SchemaIds ids;
    if (!write_schemas(schema_writer, &ids)) return OBX_EXIT_FAILURE;
    const std::string schema_file = schema_writer.schemaFilePath("x");

    Summary summary;
    summary.sources = sources->count;
    std::unique_ptr<obx_client_id_t, void (*)(void*)> client(obx_client_id_create(), std::free);
    if (!client) {
        std::fputs("obx gen: the host name could not be had\n", stderr);
        return OBX_EXIT_FAILURE;
    }
    try {
        Output output(data, *client, options.file_size_mib << 20, options.file_age_seconds * kSecond);
        catch_stop_signals();
        for (uint16_t i = 0; i < sources->count && !g_stop_signal; ++i)
            generate_source(output, options, *sources->sources[i], i, ids, summary);
        if (!output.close(options.gzip_files)) return OBX_EXIT_FAILURE;
        print_summary(options, summary, output, schema_file.substr(0, schema_file.rfind('/')));
        if (g_stop_signal) {
            std::fprintf(stderr, "obx gen: stopped by %s; the files written so far are complete\n",
                         g_stop_signal == SIGINT ? "SIGINT" : "SIGTERM");
            return OBX_EXIT_FAILURE;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "obx gen: %s\n", e.what());
        return OBX_EXIT_FAILURE;
    }
    return OBX_EXIT_OK;
}

}  // namespace

const obx_command_t obx_command_gen = {
    "gen",
    "write example data of a few hosts, as their collectors would",
    "Usage: obx gen --out DIR [options]\n"
    "\n"
    "Writes what collectors on the hosts of a source specification would write: per\n"
    "source, events (cpu_sample, port_sample, job_end), counter blocks of host counters\n"
    "and CNTX metrics blocks of port counters with latency histograms, in data pages of\n"
    "the tags events, counters and metrics, laid down as data files below DIR/data;\n"
    "their schemas go to DIR/schema. obx_read -d DIR/data prints them. The same options\n"
    "give the same bytes. SIGINT or SIGTERM stop it between two seconds of data: the\n"
    "files written so far are complete, the summary tells what they hold, and the exit\n"
    "status is 1.\n"
    "\n"
    "Options:\n"
    "  -o, --out DIR        where to write (needed)\n"
    "  -s, --sources SPEC   sources, as 'obx sources' takes them (2)\n"
    "  -t, --start US       first second, microseconds since the epoch (1700000000000000)\n"
    "  -n, --seconds N      seconds of data (60)\n"
    "  -r, --rate N         events per second and source (20)\n"
    "  -c, --compress none|gzip|snappy\n"
    "                       pages as compressed page frames (none)\n"
    "  -z, --gzip-files     gzip-wrap each data file whole once it is written (NAME.gz)\n"
    "  -F, --file-size MIB  a data file is finished at this size (16)\n"
    "  -A, --file-age N     a data file is finished when its data spans N seconds (600)\n"
    "  -S, --seed N         seed of the values (1)\n"
    "  -j, --json           print the summary as JSON\n"
    "  -h, --help           print this text\n",
    run_gen,
};
