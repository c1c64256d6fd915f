// Writes the seed inputs of the cntx_store fuzz target, made by the test fixture builders:
//   make_cntx_store_seeds fuzz/corpus/cntx_store
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "fixtures/cntx_builder.h"
#include "fixtures/cntx_tables.h"

using namespace obx_test;

namespace {

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

BatchRecordFields typed(uint64_t timestamp, uint8_t value_type, std::vector<SampleFields> samples, LabelsBlockFields labels) {
    BatchRecordFields record = record_at(timestamp, std::move(samples), std::move(labels));
    record.value_type = value_type;
    return record;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    double one_and_half = 1.5;
    uint64_t bits;
    std::memcpy(&bits, &one_and_half, 8);
    const LabelsBlockFields device = labels_by_id(0, {0});
    CntxBuilder typed_block = CntxBuilder().label_set({"device", "port"}).label_values({"hca0", "1"});
    typed_block.metric_names({"u", "d", "b", "i", "s"}).constant_labels({"site", "lab"});
    typed_block.histogram(HistogramFields{9, "lat", {{2, 1}, {10, 2}}, 106, 3, labels_by_id(0, {0, 1})});
    typed_block.record(typed(1, 1, {{0, 7}}, labels_mixed(0, {LabelEntry::by_id(0), LabelEntry::inline_text("p2")})));
    typed_block.record(typed(2, 2, {{1, bits}}, labels_inline(0, {"a", "b", "c"})));
    typed_block.record(typed(3, 3, {{2, 0xff}}, labels_by_id(7, {0})));
    typed_block.record(typed(4, 4, {{3, ~0ull}}, device));
    typed_block.record(typed(5, 5, {{4, 1}}, device));
    const CntxBuilder one = CntxBuilder().label_set({"device"}).label_values({"hca0"}).metric_names({"m", "n"});
    BatchRecordFields empty = record_at(1, {}, device);

    const struct { const char* name; Bytes bytes; } seeds[] = {
        {"example_twice", concat({example_block(), example_block()})},
        {"typed_with_histogram", typed_block.build()},
        {"empty_record_first", CntxBuilder(one).record(empty).record(record_at(2, {{0, 1}, {1, 2}}, device)).build()},
        {"type_changes", CntxBuilder(one).record(record_at(1, {{0, 1}}, device)).record(typed(2, 2, {{0, bits}}, device)).build()},
        {"zero_size_then_block", concat({ByteWriter().text("CNTX").u32(0).take(), example_block()})},
        {"bad_metric_id", CntxBuilder(one).record(record_at(1, {{0, 1}, {9, 2}, {1, 3}}, device)).build()},
        {"no_cntx_end_mark", example_block_builder().end_marks("cntd", "cntX").build()},
    };
    for (const auto& seed : seeds) {
        std::ofstream out(std::string(argv[1]) + "/" + seed.name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(seed.bytes.data()), static_cast<std::streamsize>(seed.bytes.size()));
        if (!out) {
            std::fprintf(stderr, "cannot write %s\n", seed.name);
            return 1;
        }
    }
    return 0;
}
