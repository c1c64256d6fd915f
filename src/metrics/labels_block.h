// The labels block that ends every batch and histogram record of a CNTX block: a label
// set number and one value per label of that set, each either an id into the block's
// LBLV table or a text carried inline.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class EncodedLabelKeyType : uint32_t {
    label_value_id = 0,
    label_value = 1,
};

// "label_value_id", "label_value", or "unknown" for anything else.
const char* encoded_label_key_type_name(EncodedLabelKeyType type);

struct EncodedLabel {
    EncodedLabelKeyType key_type = EncodedLabelKeyType::label_value_id;
    uint64_t id = 0;    // for label_value_id
    std::string value;  // for label_value
};

// Reads the block at data_start + start_offset, never past data_end. Returns the offset
// from data_start to the first byte behind the block. Throws std::runtime_error on bad
// input; label_set_id is set as soon as the header is read and entries read before a
// failure stay in `labels`.
size_t parse_labels_block(const uint8_t* data_start, const uint8_t* data_end, size_t start_offset,
                          uint64_t& label_set_id, std::vector<EncodedLabel>& labels,
                          const char* caller = "unknown");

// The text of one label; an id must name a non-empty entry of `label_values`. Failures of
// an id reach the caller only as "invalid label id format" (the detail is logged).
std::string decode_label_value(const EncodedLabel& label, const std::vector<std::string>& label_values);

// All labels in order; a failure names the index of the label that failed.
std::vector<std::string> decode_label_values(const std::vector<EncodedLabel>& labels,
                                             const std::vector<std::string>& label_values);
