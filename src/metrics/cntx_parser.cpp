#include "metrics/cntx_parser.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "data/format/data_file_format.h"
#include "utils/logger.h"

#define PARSER_LOG "[obx metrics parser] "

namespace {

constexpr size_t kMagicSize = 4;
// Offsets in a batch record.
constexpr size_t kRecordLength = 0, kRecordTimestamp = 2, kRecordType = 10, kRecordValueType = 11,
                 kRecordNumSamples = 12;

// First occurrence of a 4-byte magic in [begin, end), or nullptr.
const uint8_t* find_magic(const uint8_t* begin, const uint8_t* end, const char* magic) {
    if (!begin || !end || begin >= end) return nullptr;
    return static_cast<const uint8_t*>(memmem(begin, static_cast<size_t>(end - begin), magic, kMagicSize));
}

size_t bytes_between(const uint8_t* from, const uint8_t* to) {
    return to > from ? static_cast<size_t>(to - from) : 0;
}

[[noreturn]] void fail_past_end(const char* section, const char* what) {
    throw std::runtime_error(std::string("Invalid binary data format: '") + section + "' " + what +
                             " runs past the end of the block");
}

// One length byte and that many bytes, all before `end`.
const uint8_t* read_short_string(const uint8_t* position, const uint8_t* end, std::string& out, const char* section) {
    if (bytes_between(position, end) < 1) fail_past_end(section, "string");
    const size_t length = obx_le_u8(position);
    if (bytes_between(position + 1, end) < length) fail_past_end(section, "string");
    out.assign(reinterpret_cast<const char*>(position + 1), length);
    return position + 1 + length;
}

std::string join(const std::vector<std::string>& items) {
    std::string text;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) text += ',';
        text += items[i];
    }
    return text;
}

void log_string_table(const char* title, const std::vector<std::string>& items) {
    if (!obx_log_enabled(OBX_LOG_DEBUG)) return;
    OBX_LOG_DBG(PARSER_LOG "%s count: %lu", title, static_cast<unsigned long>(items.size()));
    OBX_LOG_DBG(PARSER_LOG "Values: '%s', Size: %lu", join(items).c_str(), static_cast<unsigned long>(items.size()));
}

}  // namespace

uint64_t ObxMetricsParser::get_total_size(const uint8_t* begin, const uint8_t* end) {
    // The magic must leave room for its size field behind it.
    const uint8_t* magic = bytes_between(begin, end) >= 8 ? find_magic(begin, end - 4, "CNTX") : nullptr;
    if (!magic) {
        OBX_LOG_DBG(PARSER_LOG "Missing 'CNTX' magic number in the binary data");
        return 0;
    }
    const uint64_t total_size = obx_le_u32(magic + 4);
    OBX_LOG_DBG(PARSER_LOG "total_size: %lu", static_cast<unsigned long>(total_size));
    return total_size;
}

const uint8_t* ObxMetricsParser::parse_label_names(const uint8_t* begin, const uint8_t* end,
                                                   ObxLabelNames& label_names) {
    const uint8_t* position = begin;
    const uint8_t* behind_last = nullptr;
    uint64_t set_number = 0;
    while (const uint8_t* section = find_magic(position, end, "LBLN")) {
        std::vector<std::string>& names = label_names[set_number];
        if (bytes_between(section, end) < kMagicSize + 1) fail_past_end("LBLN", "count");
        const size_t count = obx_le_u8(section + 4);
        const uint8_t* cursor = section + 5;
        for (size_t i = 0; i < count; ++i) {
            std::string name;
            cursor = read_short_string(cursor, end, name, "LBLN");
            names.push_back(std::move(name));
        }
        // The trailer is stepped over unread, but it must be there.
        if (bytes_between(cursor, end) < kMagicSize) fail_past_end("LBLN", "trailer");
        position = behind_last = cursor + kMagicSize;
        ++set_number;
    }
    label_names.erase(set_number);
    if (behind_last) return behind_last;
    return bytes_between(begin, end) >= kMagicSize ? begin + kMagicSize : end;
}

const uint8_t* ObxMetricsParser::parse_prefixed_strings(const uint8_t* begin, const uint8_t* end, const char* prefix,
                                                        const char* suffix, std::vector<std::string>& out) {
    const uint8_t* section = find_magic(begin, end, prefix);
    if (!section) {
        out.clear();
        return end;
    }
    const size_t available = bytes_between(section, end);
    if (available < kMagicSize) {
        OBX_LOG_ERR(PARSER_LOG "Invalid binary data format: Missing '%s' prefix", prefix);
        throw std::runtime_error("Invalid binary data format: Missing prefix");
    }
    if (available < kMagicSize + 2) fail_past_end(prefix, "count");
    const size_t count = obx_le_u16(section + 4);
    // Every string takes at least its length byte: a count beyond the bytes left lies.
    if (count > available - (kMagicSize + 2)) fail_past_end(prefix, "string");
    out.resize(count);
    const uint8_t* cursor = section + kMagicSize + 2;
    for (size_t i = 0; i < count; ++i) cursor = read_short_string(cursor, end, out[i], prefix);

    // With data behind it the suffix is stepped over uncompared. Only a range that ends
    // within the suffix's four bytes is refused: a suffix cut short cannot match.
    const size_t suffix_offset = static_cast<size_t>(cursor - section);
    if (available < suffix_offset + kMagicSize) {
        OBX_LOG_ERR(PARSER_LOG "Invalid binary data format: Missing '%s' suffix", suffix);
        throw std::runtime_error("Invalid binary data format: Missing suffix");
    }
    return cursor + kMagicSize;
}

const uint8_t* ObxMetricsParser::parse_label_values(const uint8_t* position, const uint8_t* end,
                                                    std::vector<std::string>& label_values) {
    return parse_prefixed_strings(position, end, "LBLV", "lblv", label_values);
}

const uint8_t* ObxMetricsParser::parse_metric_names(const uint8_t* position, const uint8_t* end,
                                                    std::vector<std::string>& metric_names) {
    return parse_prefixed_strings(position, end, "CNTI", "cnti", metric_names);
}

ObxBatchRecordHead ObxMetricsParser::read_record_head(const uint8_t* record) {
    ObxBatchRecordHead head;
    head.length = obx_le_u16(record + kRecordLength);
    head.timestamp = obx_le_u64(record + kRecordTimestamp);
    head.type = obx_le_u8(record + kRecordType);
    head.value_type = obx_le_u8(record + kRecordValueType);
    head.num_samples = obx_le_u16(record + kRecordNumSamples);
    return head;
}

obx::metrics::MetricSample ObxMetricsParser::read_sample(const uint8_t* record, size_t index) {
    const uint8_t* sample = record + kRecordFixedSize + kSampleSize * index;
    obx::metrics::MetricSample out;
    out.metric_id = obx_le_u16(sample);
    out.value = obx_le_u64(sample + 2);
    return out;
}

size_t ObxMetricsParser::samples_that_fit(const uint8_t* record, const uint8_t* end) {
    const size_t available = bytes_between(record, end);
    return available < kRecordFixedSize ? 0 : (available - kRecordFixedSize) / kSampleSize;
}

ObxBatchHeader ObxMetricsParser::parse_batch_header(const uint8_t* record, const uint8_t* end) {
    if (bytes_between(record, end) < kRecordFixedSize)
        throw std::runtime_error("Invalid binary data format: batch record runs past the end of the block");
    const ObxBatchRecordHead head = read_record_head(record);
    // C (0x43) and G (0x47) differ only in bit 2; every other letter is refused.
    if ((head.type & ~0x04u) != 0x43u) {
        OBX_LOG_ERR(PARSER_LOG "invalid metric type");
        throw std::runtime_error("invalid metric type");
    }
    const uint64_t num_samples = head.num_samples;
    if (samples_that_fit(record, end) < num_samples)
        throw std::runtime_error("Invalid binary data format: batch samples run past the end of the block");

    obx::metrics::MetricsBatch batch;
    batch.samples.resize(num_samples);
    for (size_t i = 0; i < num_samples; ++i) batch.samples[i] = read_sample(record, i);

    ObxBatchHeader header;
    header["length"] = head.length;
    header["timestamp"] = head.timestamp;
    header["num_samples"] = num_samples;
    header["metrics"] = std::move(batch);
    header["type"] = std::string(1, static_cast<char>(head.type));
    return header;
}

ObxCntdSection ObxMetricsParser::find_records(const uint8_t* position, const uint8_t* end, bool both_end_marks) {
    const uint8_t* cntd = find_magic(position, end, "CNTD");
    if (!cntd) {
        OBX_LOG_ERR(PARSER_LOG "Invalid binary data format: Missing 'CNTD' magic number");
        throw std::runtime_error("Missing 'CNTD' magic number in the binary data");
    }
    const size_t data_len = bytes_between(cntd, end);
    OBX_LOG_DBG(PARSER_LOG "data_len = %lu", static_cast<unsigned long>(data_len));
    if (data_len < 8 || std::memcmp(end - 8, both_end_marks ? "cntdcntx" : "cntd", both_end_marks ? 8 : 4) != 0)
        throw std::runtime_error("Invalid magic numbers in the binary data");

    ObxCntdSection section;
    section.base = cntd + kMagicSize;  // the blocksize field
    section.data_end = bytes_between(section.base, end - 8);
    section.blocksize = obx_le_u32(section.base);  // within the 8 bytes known to be there
    OBX_LOG_DBG(PARSER_LOG "End of data at %lu", static_cast<unsigned long>(section.data_end));
    OBX_LOG_DBG(PARSER_LOG "blocksize= %u", section.blocksize);
    return section;
}

std::vector<MetricsBatchRecord> ObxMetricsParser::parse_metrics(const uint8_t* position, const uint8_t* end) {
    // Only the "cntd" end mark is compared here; the final "cntx" is not.
    const ObxCntdSection section = find_records(position, end, false);
    const uint8_t* base = section.base;
    const uint64_t data_end = section.data_end;
    const uint32_t blocksize = section.blocksize;

    std::vector<MetricsBatchRecord> batches;
    if (data_end < 5) return batches;

    uint64_t offset = 4;
    while (offset < data_end) {
        OBX_LOG_DBG(PARSER_LOG "offset=%lu end=%lu", static_cast<unsigned long>(offset),
                    static_cast<unsigned long>(data_end));
        const uint8_t* record = base + offset;
        ObxBatchHeader header = parse_batch_header(record, end);
        const uint64_t num_samples = boost::any_cast<uint64_t>(header.at("num_samples"));

        MetricsBatchRecord entry;
        entry.timestamp = boost::any_cast<uint64_t>(header.at("timestamp"));
        entry.batch = boost::any_cast<obx::metrics::MetricsBatch>(header.at("metrics"));
        // The labels block may reach blocksize bytes from the record's start, but never
        // past the block.
        const uint8_t* labels_end = record + std::min<uint64_t>(blocksize, bytes_between(record, end));
        const size_t next = parse_labels_block(record, labels_end, kRecordFixedSize + kSampleSize * num_samples,
                                               entry.label_set_id, entry.labels, "ObxMetricsParser::parse_metrics");
        batches.push_back(std::move(entry));
        offset += next;
    }
    return batches;
}

ObxConstantLabels ObxMetricsParser::parse_constant_labels(const uint8_t* begin, const uint8_t* end) {
    std::vector<std::string> strings;
    parse_prefixed_strings(begin, end, "CLBL", "clbl", strings);
    ObxConstantLabels labels;
    for (size_t i = 0; i + 1 < strings.size(); i += 2) labels[strings[i]] = strings[i + 1];
    if (strings.size() % 2 != 0)
        OBX_LOG_WARN(PARSER_LOG "constant label '%s' has no value and is dropped", strings.back().c_str());
    return labels;
}

void ObxMetricsParser::parse_full_block(const uint8_t* begin, const uint8_t* end, ObxLabelNames& label_names,
                                        std::vector<std::string>& label_values,
                                        std::vector<std::string>& metric_names,
                                        std::vector<MetricsBatchRecord>& batches) {
    const uint8_t* position = parse_label_names(begin, end, label_names);
    if (obx_log_enabled(OBX_LOG_DEBUG)) {
        for (const auto& set : label_names) {
            if (set.second.empty())
                OBX_LOG_DBG(PARSER_LOG "empty label names vector");
            else
                OBX_LOG_DBG(PARSER_LOG "Label Names [%lu] %s", static_cast<unsigned long>(set.first),
                            join(set.second).c_str());
        }
    }
    position = parse_label_values(position, end, label_values);
    log_string_table("Label values", label_values);
    position = parse_metric_names(position, end, metric_names);
    log_string_table("Metric names", metric_names);
    batches = parse_metrics(position, end);
    print_metrics_batches(batches, label_values);
}

void ObxMetricsParser::print_metrics_batches(const std::vector<MetricsBatchRecord>& batches,
                                             const std::vector<std::string>& label_values) {
    if (!obx_log_enabled(OBX_LOG_DEBUG)) return;
    OBX_LOG_DBG(PARSER_LOG "Metrics Batch: ");
    for (const auto& record : batches) {
        OBX_LOG_DBG(PARSER_LOG "Timestamp: %lu", static_cast<unsigned long>(record.timestamp));
        for (const auto& sample : record.batch.samples) {
            OBX_LOG_DBG(PARSER_LOG "  sample_id: %lu, sample_value: %lu", static_cast<unsigned long>(sample.metric_id),
                        static_cast<unsigned long>(sample.value));
        }
        const std::vector<std::string> decoded = decode_label_values(record.labels, label_values);
        for (size_t i = 0; i < record.labels.size(); ++i) {
            OBX_LOG_DBG(PARSER_LOG "encoded label: %s: %lu, decoded label[%lu]: %s",
                        encoded_label_key_type_name(record.labels[i].key_type),
                        static_cast<unsigned long>(record.labels[i].id), static_cast<unsigned long>(i),
                        decoded[i].c_str());
        }
    }
}
