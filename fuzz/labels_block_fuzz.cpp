// Labels blocks from arbitrary bytes: the first byte picks the start offset, the rest is
// the data. The block is read twice, the second time moved behind a prefix of unrelated
// bytes: offsets are relative to the data's start, so both reads must give the same set,
// the same labels and the same failure. Whatever parses is decoded against a small table,
// and each decoded text must be the one its label names.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "metrics/labels_block.h"

namespace {

struct Read {
    uint64_t set = 0;
    std::vector<EncodedLabel> labels;
    size_t end = 0;
    std::string error;
};

Read read(const uint8_t* begin, const uint8_t* end, size_t start_offset) {
    Read result;
    try {
        result.end = parse_labels_block(begin, end, start_offset, result.set, result.labels, "fuzz");
    } catch (const std::exception& failure) {
        result.error = failure.what();
    }
    return result;
}

bool same(const Read& a, const Read& b, size_t shift) {
    if (a.set != b.set || a.error != b.error || a.labels.size() != b.labels.size()) return false;
    if (a.error.empty() && a.end + shift != b.end) return false;
    for (size_t i = 0; i < a.labels.size(); ++i)
        if (a.labels[i].key_type != b.labels[i].key_type || a.labels[i].id != b.labels[i].id ||
            a.labels[i].value != b.labels[i].value)
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;  // no data at all is refused before any offset is looked at
    const size_t start_offset = data[0] % 8;
    const Read first = read(data + 1, data + size, start_offset);

    const size_t shift = 5;
    std::vector<uint8_t> moved(shift, 0xA5);
    moved.insert(moved.end(), data + 1, data + size);
    const Read second = read(moved.data(), moved.data() + moved.size(), start_offset + shift);
    if (!same(first, second, shift)) std::abort();

    static const std::vector<std::string> label_values = {"hca0", "1", "", "mlx5_0"};
    try {
        const std::vector<std::string> texts = decode_label_values(first.labels, label_values);
        if (texts.size() != first.labels.size()) std::abort();
        for (size_t i = 0; i < texts.size(); ++i) {
            const EncodedLabel& label = first.labels[i];
            const std::string& named =
                label.key_type == EncodedLabelKeyType::label_value ? label.value : label_values.at(label.id);
            if (texts[i] != named) std::abort();
        }
    } catch (const std::exception&) {
    }
    return 0;
}
