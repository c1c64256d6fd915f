// Micro-benchmarks of the per-record work of the export, each road next to the other:
// building a value and printing it against writing the text directly, for events (JSON
// both ways, Influx) and counter blocks, and the number printers against snprintf.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_data.h"
#include "counters/counter_data/counters_data.h"
#include "data/schema/event_json.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "serializers/influx_serializer.h"
#include "utils/json.h"
#include "utils/number_format.h"

namespace {

constexpr size_t kRecords = 4096;

// A few thousand events of the benchmark's type, as a block would hold them.
struct Events {
    obx_bench::EventSchema schema;
    std::vector<uint8_t> bytes;

    Events()
    {
        obx_json_set_escape_slashes(0);
        obx_bench::Random random;
        bytes.resize(kRecords * schema.layout.size);
        for (size_t i = 0; i < kRecords; ++i)
            obx_bench::fill_event(bytes.data() + i * schema.layout.size, schema.layout, random,
                                  1700000000000000ull + i, static_cast<uint32_t>(i % 1024), i / 1024);
    }
    const uint8_t* record(size_t i) const { return bytes.data() + (i % kRecords) * schema.layout.size; }
};

Events& events()
{
    static Events instance;
    return instance;
}

struct Counters {
    obx_counters_schema_t* schema = nullptr;
    std::vector<uint8_t> block;

    Counters()
    {
        json_t* document = obx_bench::counters_schema_json();
        schema = obx_counters_schema_from_json(document);
        json_decref(document);
        if (!schema) std::abort();
        block.assign(16 + schema->size_of_counters, 0);
        obx_block_magic_set(block.data(), 0);
        obx_put_u64(block.data() + 8, 1700000000000000ull);
        obx_bench::Random random;
        obx_bench::fill_counters(block.data() + 16, schema, 12345, random);
    }
    ~Counters() { obx_counters_schema_destroy(schema); }
};

Counters& counters()
{
    static Counters instance;
    return instance;
}

void EventJsonValuePath(benchmark::State& state)
{
    const bool pretty = state.range(0) != 0;
    Events& e = events();
    size_t i = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        json_t* value = obx_event_to_json(e.schema.type, e.record(i++));
        char* text = pretty ? obx_json_serialize_to_string_pretty(value) : obx_json_serialize_to_string(value);
        benchmark::DoNotOptimize(text);
        bytes += std::strlen(text);
        obx_json_free_serialized_string(text);
        json_decref(value);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(EventJsonValuePath)->Arg(0)->Arg(1)->ArgName("pretty");

void EventJsonDirect(benchmark::State& state)
{
    const obx_event_text_form_t form = state.range(0) ? OBX_EVENT_TEXT_JSON_PRETTY : OBX_EVENT_TEXT_JSON_PLAIN;
    Events& e = events();
    obx_event_text_writer_t* writer = obx_event_text_writer_create();
    size_t i = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        obx_event_text_writer_clear(writer);
        if (!obx_event_text_writer_append_event(writer, form, e.schema.type, e.record(i++))) std::abort();
        benchmark::DoNotOptimize(obx_event_text_writer_data(writer));
        bytes += obx_event_text_writer_size(writer);
    }
    obx_event_text_writer_destroy(writer);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(EventJsonDirect)->Arg(0)->Arg(1)->ArgName("pretty");

void EventInfluxValuePath(benchmark::State& state)
{
    Events& e = events();
    size_t i = 0;
    for (auto _ : state) {
        char* text = obx_influx_serialize_event(e.schema.type, e.record(i++));
        benchmark::DoNotOptimize(text);
        obx_influx_free_text(text);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(EventInfluxValuePath);

void EventInfluxDirect(benchmark::State& state)
{
    Events& e = events();
    obx_event_text_writer_t* writer = obx_event_text_writer_create();
    size_t i = 0;
    for (auto _ : state) {
        obx_event_text_writer_clear(writer);
        if (!obx_event_text_writer_append_event(writer, OBX_EVENT_TEXT_INFLUX, e.schema.type, e.record(i++)))
            std::abort();
        benchmark::DoNotOptimize(obx_event_text_writer_data(writer));
    }
    obx_event_text_writer_destroy(writer);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(EventInfluxDirect);

void CountersJsonValuePath(benchmark::State& state)
{
    Counters& c = counters();
    const obx_counters_data_t block = {c.block.data(), c.block.size()};
    for (auto _ : state) {
        json_t* value = obx_counters_data_to_json(&block, c.schema);
        char* text = obx_json_serialize_to_string(value);
        benchmark::DoNotOptimize(text);
        obx_json_free_serialized_string(text);
        json_decref(value);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(CountersJsonValuePath);

void CountersJsonDirect(benchmark::State& state)
{
    Counters& c = counters();
    const obx_counters_data_t block = {c.block.data(), c.block.size()};
    obx_counters_text_writer_t* writer = obx_counters_text_writer_create();
    for (auto _ : state) {
        obx_counters_text_writer_clear(writer);
        if (!obx_counters_text_writer_append(writer, false, &block, c.schema)) std::abort();
        benchmark::DoNotOptimize(obx_counters_text_writer_data(writer));
    }
    obx_counters_text_writer_destroy(writer);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(CountersJsonDirect);

// Fractional doubles as collectors report them (ratios, readings), and whole numbers.
std::vector<double> sample_doubles(bool whole)
{
    obx_bench::Random random;
    std::vector<double> values(kRecords);
    for (double& v : values) v = whole ? static_cast<double>(random.next() >> 20) : random.unit() * 1000.0;
    return values;
}

void NumberG17(benchmark::State& state)
{
    const std::vector<double> values = sample_doubles(state.range(0) != 0);
    char text[OBX_NUMBER_TEXT_MAX];
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(obx_json_format_number(text, values[i++ % kRecords]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(NumberG17)->Arg(0)->Arg(1)->ArgName("whole");

void NumberG17Snprintf(benchmark::State& state)
{
    const std::vector<double> values = sample_doubles(state.range(0) != 0);
    char text[OBX_NUMBER_TEXT_MAX];
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "%1.17g", values[i++ % kRecords]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(NumberG17Snprintf)->Arg(0)->Arg(1)->ArgName("whole");

void NumberFixed6(benchmark::State& state)
{
    const std::vector<double> values = sample_doubles(false);
    char text[OBX_FIXED6_TEXT_MAX];
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(obx_format_fixed6(text, values[i++ % kRecords]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(NumberFixed6);

void NumberFixed6Snprintf(benchmark::State& state)
{
    const std::vector<double> values = sample_doubles(false);
    char text[OBX_FIXED6_TEXT_MAX];
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "%f", values[i++ % kRecords]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(NumberFixed6Snprintf);

void NumberUint64(benchmark::State& state)
{
    obx_bench::Random random;
    std::vector<uint64_t> values(kRecords);
    for (uint64_t& v : values) v = random.next() >> (random.below(60));
    char text[OBX_NUMBER_TEXT_MAX];
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(obx_json_format_uint64(text, values[i++ % kRecords]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(NumberUint64);

}  // namespace
