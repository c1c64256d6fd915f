#include "metrics/metrics_output.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "data/reader/reader_context.h"
#include "serializers/json_output.h"
#include "data/reader/reader_options.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/time_text.h"

namespace {

struct JsonRelease {
    void operator()(json_t* value) const { json_decref(value); }
};
using JsonHolder = std::unique_ptr<json_t, JsonRelease>;

// Raised when a JSON value cannot be made, so that one place logs and cleans up.
struct JsonAllocationError {
    bool logged = false;  // the maker has already said so
};

void set_or_raise(json_t* object, const char* key, json_t* value) {
    if (!value || !obx_json_object_set(object, key, value)) throw JsonAllocationError();
}

json_t* record_labels(const MetricsBatchRecord& record, const std::vector<std::string>& names,
                      const ObxConstantLabels& constant_labels, const std::vector<std::string>& label_values) {
    ObxConstantLabels labels(constant_labels);
    const std::vector<std::string> values = decode_label_values(record.labels, label_values);
    if (values.size() > names.size()) {
        throw std::runtime_error("record has " + std::to_string(values.size()) + " label values but label set " +
                                 std::to_string(record.label_set_id) + " has " + std::to_string(names.size()) +
                                 " names");
    }
    // A label of the set wins over a constant label of the same name.
    for (size_t i = 0; i < values.size(); ++i) labels[names[i]] = values[i];
    return obx_labels_to_json_array(labels);
}

json_t* record_metrics(const MetricsBatchRecord& record, const std::vector<std::string>& metric_names) {
    JsonHolder metrics(json_array());
    if (!metrics) throw JsonAllocationError();
    for (const auto& sample : record.batch.samples) {
        const uint16_t metric_id = sample.metric_id;
        const uint64_t value = sample.value;
        if (metric_id >= metric_names.size()) {
            throw std::runtime_error("metric id " + std::to_string(metric_id) + " is past the " +
                                     std::to_string(metric_names.size()) + " metric names");
        }
        // Every value is taken as an unsigned integer, whatever the record's value type.
        json_t* entry = obx_json_one_member_object(metric_names[metric_id], obx_json_number(static_cast<double>(value)));
        if (!entry || !obx_json_array_append(metrics.get(), entry)) throw JsonAllocationError();
    }
    return metrics.release();
}

}  // namespace

json_t* obx_metrics_block_to_json(const ObxLabelNames& label_names, const ObxConstantLabels& constant_labels,
                                  const std::vector<std::string>& label_values,
                                  const std::vector<std::string>& metric_names,
                                  const std::vector<MetricsBatchRecord>& batches) {
    JsonHolder root(json_object());
    if (!root) return nullptr;
    try {
        for (const auto& record : batches) {
            set_or_raise(root.get(), "timestamp", obx_json_number(static_cast<double>(record.timestamp)));
            if (char* time_text = obx_time_to_string(record.timestamp)) {
                json_t* text = obx_json_string(time_text);
                std::free(time_text);
                set_or_raise(root.get(), "@timestamp", text);
            }
            const auto names = label_names.find(record.label_set_id);
            if (names != label_names.end()) {
                json_t* labels = record_labels(record, names->second, constant_labels, label_values);
                if (!labels) throw JsonAllocationError{true};
                set_or_raise(root.get(), "labels", labels);
            }
            set_or_raise(root.get(), "metrics", record_metrics(record, metric_names));
        }
    } catch (const JsonAllocationError& e) {
        if (!e.logged) OBX_LOG_ERR("Failed allocating JSON object");
        return nullptr;
    } catch (const std::exception& e) {
        OBX_LOG_ERR("failed to JSONify metrics: %s", e.what());
        return nullptr;
    }
    return root.release();
}

int obx_metrics_block_process(obx_reader_context_t* context, const uint8_t* data, size_t size) {
    ObxLabelNames label_names;
    std::vector<std::string> label_values;
    std::vector<std::string> metric_names;
    std::vector<MetricsBatchRecord> batches;
    try {
        const uint8_t* end = data ? data + size : data;
        const uint64_t total_size = ObxMetricsParser::get_total_size(data, end);
        if (total_size > size) {
            throw std::runtime_error("CNTX block size " + std::to_string(total_size) + " exceeds the " +
                                     std::to_string(size) + " bytes of the buffer");
        }
        // 0 means no block was found: the empty range then fails on its missing records.
        if (total_size != 0 && total_size < ObxMetricsParser::kBlockFrameSize) {
            throw std::runtime_error("CNTX block size " + std::to_string(total_size) + " is below the " +
                                     std::to_string(ObxMetricsParser::kBlockFrameSize) +
                                     " bytes of its head and end marks");
        }
        const uint8_t* block_end = data ? data + total_size : data;
        ObxMetricsParser::parse_full_block(data, block_end, label_names, label_values, metric_names, batches);
        const ObxConstantLabels constant_labels = ObxMetricsParser::parse_constant_labels(data, block_end);

        const uint32_t format = context->options->format;
        switch (format) {
            case OBX_OUTPUT_FORMAT_JSON:
            case OBX_OUTPUT_FORMAT_NDJSON:
                break;
            case OBX_OUTPUT_FORMAT_CSV:
                obx_reader_report(context, "CSV output is not supported yet");
                return 1;
            case OBX_OUTPUT_FORMAT_INFLUX:
                obx_reader_report(context, "Influx line API output is not yet supported for metrics data");
                return 1;
            default:
                obx_reader_report(context, "Unsupported output format");
                return 1;
        }

        JsonHolder value(obx_metrics_block_to_json(label_names, constant_labels, label_values, metric_names, batches));
        if (!value) {
            obx_reader_report(context, "Failed to JSONify metric values");
            return 0;
        }
        if (format == OBX_OUTPUT_FORMAT_JSON)
            obx_json_print_record(value.get(), stdout, context->records_printed == 0);
        else
            obx_json_print_line(value.get(), stdout);
        return 1;
    } catch (const std::exception& e) {
        OBX_LOG_ERR("failed to parse full block: %s", e.what());
        return 0;
    }
}
