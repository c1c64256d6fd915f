#include "metrics/labels_block.h"

#include <stdexcept>

#include "data/format/data_file_format.h"
#include "utils/logger.h"

#define LABELS_LOG "[obx labels block] "
#define PARSE_LOG LABELS_LOG "parse_labels_block: "

namespace {

[[noreturn]] void fail_insufficient(const char* what) {
    OBX_LOG_ERR(PARSE_LOG "%s", what);
    throw std::runtime_error(what);
}

EncodedLabel id_label(uint64_t id) {
    EncodedLabel label;
    label.key_type = EncodedLabelKeyType::label_value_id;
    label.id = id;
    return label;
}

EncodedLabel text_label(const uint8_t* text, size_t length) {
    EncodedLabel label;
    label.key_type = EncodedLabelKeyType::label_value;
    label.value.assign(reinterpret_cast<const char*>(text), length);
    return label;
}

}  // namespace

const char* encoded_label_key_type_name(EncodedLabelKeyType type) {
    switch (type) {
        case EncodedLabelKeyType::label_value_id: return "label_value_id";
        case EncodedLabelKeyType::label_value: return "label_value";
    }
    return "unknown";
}

size_t parse_labels_block(const uint8_t* data_start, const uint8_t* data_end, size_t start_offset,
                          uint64_t& label_set_id, std::vector<EncodedLabel>& labels, const char* caller) {
    if (!caller) caller = "unknown";
    if (!data_start || !data_end || data_start >= data_end) {
        OBX_LOG_ERR(PARSE_LOG "invalid data pointers");
        throw std::runtime_error("invalid data pointers in parse_labels_block");
    }
    const size_t data_size = static_cast<size_t>(data_end - data_start);
    if (data_size <= start_offset) {
        OBX_LOG_ERR(PARSE_LOG "start_offset (%lu) exceeds data size (%lu)", static_cast<unsigned long>(start_offset),
                    static_cast<unsigned long>(data_size));
        throw std::runtime_error("start_offset exceeds data size");
    }
    // start_offset < data_size here, so the sum cannot wrap.
    if (start_offset + 3 > data_size) fail_insufficient("insufficient data for header");

    const uint8_t* header = data_start + start_offset;
    label_set_id = obx_le_u8(header);
    const size_t count = obx_le_u8(header + 1);
    const char encoding = static_cast<char>(obx_le_u8(header + 2));
    OBX_LOG_DBG(PARSE_LOG "header - label_set_id=%lu, encoded_label_value_count=%lu, encoding_type=%c, called by %s",
                static_cast<unsigned long>(label_set_id), static_cast<unsigned long>(count), encoding, caller);
    if (encoding != 'L' && encoding != 'I' && encoding != 'M') {
        OBX_LOG_ERR(PARSE_LOG "invalid encoding type '%c'", encoding);
        throw std::runtime_error("invalid encoding type");
    }
    labels.clear();
    labels.reserve(count);

    size_t position = start_offset + 3;
    if (encoding == 'L') {
        // The whole run is tested once, before any entry is taken.
        if (position + count > data_size) fail_insufficient("insufficient data for 'L' encoding");
        for (size_t i = 0; i < count; ++i) {
            labels.push_back(id_label(obx_le_u8(data_start + position)));
            OBX_LOG_DBG(LABELS_LOG "L label value id [%lu]: %lu", static_cast<unsigned long>(i),
                        static_cast<unsigned long>(labels.back().id));
            ++position;
        }
        OBX_LOG_DBG(LABELS_LOG "after decoding L: %lu", static_cast<unsigned long>(position));
    } else if (encoding == 'I') {
        for (size_t i = 0; i < count; ++i) {
            if (position >= data_size) fail_insufficient("insufficient data for 'I' encoding length");
            const size_t length = obx_le_u8(data_start + position);
            if (position + 1 + length > data_size) fail_insufficient("insufficient data for 'I' encoding string");
            labels.push_back(text_label(data_start + position + 1, length));
            OBX_LOG_DBG(LABELS_LOG "I label value [%lu]: '%s'", static_cast<unsigned long>(i),
                        labels.back().value.c_str());
            position += 1 + length;
        }
        OBX_LOG_DBG(LABELS_LOG "after decoding I: %lu", static_cast<unsigned long>(position));
    } else {
        for (size_t i = 0; i < count; ++i) {
            if (position >= data_size) fail_insufficient("insufficient data for 'M' encoding sub-type");
            const char sub_encoding = static_cast<char>(obx_le_u8(data_start + position));
            if (sub_encoding == 'I') {
                if (position + 1 >= data_size) fail_insufficient("insufficient data for 'M/I' encoding length");
                const size_t length = obx_le_u8(data_start + position + 1);
                if (position + 2 + length > data_size) fail_insufficient("insufficient data for 'M/I' encoding string");
                labels.push_back(text_label(data_start + position + 2, length));
                OBX_LOG_DBG(LABELS_LOG "parsed M/I label value [%lu]: '%s'", static_cast<unsigned long>(i),
                            labels.back().value.c_str());
                position += 2 + length;
            } else if (sub_encoding == 'L') {
                if (position + 1 >= data_size) fail_insufficient("insufficient data for 'M/L' encoding id");
                labels.push_back(id_label(obx_le_u8(data_start + position + 1)));
                OBX_LOG_DBG(LABELS_LOG "parsed M/L label value id [%lu]: %lu", static_cast<unsigned long>(i),
                            static_cast<unsigned long>(labels.back().id));
                position += 2;
            } else {
                OBX_LOG_ERR(PARSE_LOG "invalid sub-encoding type '%c'", sub_encoding);
                throw std::runtime_error("invalid sub-encoding type");
            }
        }
        OBX_LOG_DBG(LABELS_LOG "after decoding M: %lu", static_cast<unsigned long>(position));
    }

    if (labels.size() != count) {
        OBX_LOG_ERR(PARSE_LOG "processed %lu labels, expected %lu", static_cast<unsigned long>(labels.size()),
                    static_cast<unsigned long>(count));
        throw std::runtime_error("label count mismatch");
    }
    return position;
}

std::string decode_label_value(const EncodedLabel& label, const std::vector<std::string>& label_values) {
    switch (label.key_type) {
        case EncodedLabelKeyType::label_value:
            return label.value;
        case EncodedLabelKeyType::label_value_id:
            // The detail of a bad id goes to the log only; callers see one text for all.
            try {
                if (label_values.empty()) {
                    OBX_LOG_ERR(LABELS_LOG "decode_label_value: empty label_values array");
                    throw std::runtime_error("empty label_values array");
                }
                if (label.id >= label_values.size()) {
                    OBX_LOG_ERR(LABELS_LOG "decode_label_value: invalid label id: %lu (max=%lu)",
                                static_cast<unsigned long>(label.id),
                                static_cast<unsigned long>(label_values.size() - 1));
                    throw std::runtime_error("invalid label id");
                }
                const std::string& text = label_values[label.id];
                if (text.empty()) {
                    OBX_LOG_ERR(LABELS_LOG "decode_label_value: empty string at label_values[%lu]",
                                static_cast<unsigned long>(label.id));
                    throw std::runtime_error("invalid label value");
                }
                return text;
            } catch (const std::exception& e) {
                OBX_LOG_ERR(LABELS_LOG "decode_label_value: failed to parse label_id '%lu': %s",
                            static_cast<unsigned long>(label.id), e.what());
                throw std::runtime_error("invalid label id format");
            }
    }
    OBX_LOG_ERR(LABELS_LOG "decode_label_value: unknown label key type: '%s'", encoded_label_key_type_name(label.key_type));
    throw std::runtime_error("unknown label key type");
}

std::vector<std::string> decode_label_values(const std::vector<EncodedLabel>& labels,
                                             const std::vector<std::string>& label_values) {
    std::vector<std::string> decoded;
    decoded.reserve(labels.size());
    for (size_t i = 0; i < labels.size(); ++i) {
        try {
            decoded.push_back(decode_label_value(labels[i], label_values));
        } catch (const std::exception& e) {
            OBX_LOG_ERR(LABELS_LOG "decode_label_values: failed to decode label %lu: %s", static_cast<unsigned long>(i),
                        e.what());
            throw std::runtime_error("Failed to decode label value at index " + std::to_string(i) + ": " + e.what());
        }
    }
    return decoded;
}
