// Labels blocks from arbitrary bytes: the first byte picks the start offset, the rest is
// the data; whatever parses is decoded against a small fixed table.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "metrics/labels_block.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t start_offset = data[0] % 8;
    const uint8_t* begin = data + 1;
    const uint8_t* end = data + size;
    static const std::vector<std::string> label_values = {"hca0", "1", "", "mlx5_0"};
    uint64_t label_set_id = 0;
    std::vector<EncodedLabel> labels;
    try {
        parse_labels_block(begin, end, start_offset, label_set_id, labels, "fuzz");
    } catch (const std::exception&) {
        // Entries read before the failure stay; decode them too.
    }
    try {
        decode_label_values(labels, label_values);
    } catch (const std::exception&) {
    }
    return 0;
}
