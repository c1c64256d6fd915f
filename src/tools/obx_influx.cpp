// obx influx: data files as InfluxDB line protocol, one point per record: each event, each
// counters measurement of a counters block, each sample of a CNTX block.
#include <getopt.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "data/format/data_page_layout.h"
#include "data/reader/block_dispatch.h"
#include "data/reader/reader_context.h"
#include "data/reader/reader_options.h"
#include "data/reader/reader_type_system.h"
#include "data/schema/built_in_types.h"
#include "data/schema/type_definition.h"
#include "data/schema/type_system.h"
#include "data/writer/data_page.h"
#include "metrics/cntx_parser.h"
#include "serializers/event_text_writer.h"
#include "serializers/influx_serializer.h"
#include "tools/influx_http.h"
#include "tools/obx_command.h"
#include "tools/obx_commands.h"
#include "utils/logger.h"
#include "utils/number_format.h"

namespace {

using obx::data::InfluxSerializer;

constexpr size_t kFlushAt = 1u << 20;

// One run over the files: the serializer, the output precision and the points written.
struct Run {
    InfluxSerializer serializer;
    uint64_t divisor = 1;  // nanoseconds per unit of the output precision
    uint64_t points = 0, skipped = 0;
    std::string out;
    obx::data::SerializerTags tags;  // source of the file being read
    // Events without a time of their own, by schema and type index (types are made anew
    // with each schemas block): the block time and a count of the events at that time so far.
    std::map<uint32_t, std::pair<uint64_t, uint64_t>> sequence;
    obx_data_page_t* no_adapters = nullptr;  // counters of chunks carry no adapter records
    bool write_failed = false;
    // With a server: batches of `batch` points go to it instead of standard output.
    std::unique_ptr<InfluxHttpWriter> server;
    uint64_t batch = 5000, pending = 0;
    obx_event_text_writer_t* writer = nullptr;  // events' field sets, written straight from their records
    const obx_reader_context_t* context = nullptr;  // of the file being read
};
Run* g_run = nullptr;

void flush(Run& run) {
    if (run.server) {
        if (!run.server->post(run.out, run.pending)) run.write_failed = true;
        run.pending = 0;
    } else if (!run.out.empty() && std::fwrite(run.out.data(), 1, run.out.size(), stdout) != run.out.size()) {
        run.write_failed = true;
    }
    run.out.clear();
}

// The point's measurement, tags and fields stand at the end of run.out; the time goes
// behind them.
void put_point(Run& run, uint64_t nanoseconds) {
    run.out += ' ';
    char digits[OBX_NUMBER_TEXT_MAX];
    run.out.append(digits, obx_format_u64(digits, nanoseconds / run.divisor));
    run.out += '\n';
    ++run.points;
    ++run.pending;
    if (run.server ? run.pending >= run.batch : run.out.size() >= kFlushAt) flush(run);
}

std::string tag_text(const Run& run, const obx::data::SerializerTags& tags) {
    const std::string text = run.serializer.serializeTags(tags);
    return text.empty() ? text : "," + text;
}

// The first top-level field of type timestamp, or none.
const obx_type_field_definition_t* own_time_field(const obx_type_definition_t* type) {
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        const obx_type_field_definition_t* field = type->fields ? type->fields[i] : nullptr;
        if (field && field->type && field->type->id == OBX_TYPE_TIMESTAMP && field->array_length == 1) return field;
    }
    return nullptr;
}

uint64_t event_time(Run& run, const obx_type_field_definition_t* own_time, uint32_t type_key, const uint8_t* record,
                    uint64_t block_time) {
    if (own_time) return obx_le_u64(record + own_time->offset) * 1000;
    auto& [time, count] = run.sequence[type_key];
    if (time != block_time) time = block_time, count = 0;
    return block_time * 1000 + count++;
}

// Events and schemas blocks back to back; false when a block cannot be read, as the walk
// would then go nowhere.
bool put_events(Run& run, obx_reader_context_t* context, const uint8_t* data, size_t size) {
    for (size_t offset = 0; size - offset > OBX_MAGIC_SIZE;) {
        const uint8_t* block = data + offset;
        const size_t remaining = size - offset;
        const uint32_t type = obx_block_type_get(block);
        size_t consumed = 0;
        if (type == OBX_SCHEMAS_BLOCK) {
            bool reloaded = false;
            consumed = obx_reader_load_schemas_block_if_new(context, block, remaining, &reloaded);
            if (reloaded) obx_event_text_writer_forget_types(run.writer);  // the types it planned for are gone
        } else if (type == OBX_EVENTS_BLOCK && remaining >= OBX_EVENT_BLOCK_HEAD_SIZE) {
            obx_event_block_head_t head;
            obx_event_block_head_read(block, &head);
            const obx_type_definition_t* event_type =
                obx_type_system_event_type(context->type_system, head.schema_index, head.type_index);
            if (!event_type) {
                OBX_LOG_ERR("Event type %u:%u at offset %zu is in no loaded schema", static_cast<unsigned>(head.schema_index),
                            static_cast<unsigned>(head.type_index), offset);
                return false;
            }
            const std::string measurement =
                InfluxSerializer::escape(event_type->name ? event_type->name : "", run.serializer.measurementEscapes()) +
                tag_text(run, run.tags) + " ";
            const uint64_t reach = obx_type_definition_reach(event_type);
            const obx_type_field_definition_t* own_time = own_time_field(event_type);  // once a block
            const uint32_t type_key = (uint32_t{head.schema_index} << 16) | (head.type_index & 0xFF);
            consumed = OBX_EVENT_BLOCK_HEAD_SIZE;
            for (unsigned i = 0; i < head.num_events && remaining - consumed >= event_type->size; ++i) {
                const uint8_t* record = block + consumed;
                if (reach > remaining - consumed) {
                    OBX_LOG_ERR("Event of type '%s' at offset %zu reads past its buffer", event_type->name, offset + consumed);
                    return false;
                }
                consumed += event_type->size;
                obx_event_text_writer_clear(run.writer);
                if (!obx_event_text_writer_append_event(run.writer, OBX_EVENT_TEXT_INFLUX_FAITHFUL, event_type, record)) {
                    OBX_LOG_ERR("Event of type '%s' at offset %zu could not be written", event_type->name, offset + consumed);
                    return false;
                }
                const size_t length = obx_event_text_writer_size(run.writer);
                if (length == 0) {
                    ++run.skipped;  // a point needs a field
                    continue;
                }
                run.out += measurement;
                run.out.append(obx_event_text_writer_data(run.writer), length);
                put_point(run, event_time(run, own_time, type_key, record, head.timestamp));
            }
            if (event_type->size == 0) break;  // nothing to step by
        } else {
            break;  // the zero-filled tail of a buffer
        }
        if (consumed == 0) return false;
        offset += consumed;
    }
    return true;
}

bool put_counters(Run& run, obx_reader_context_t* context, const uint8_t* block, size_t size) {
    const obx_counters_schema_t* schema = context->type_system ? context->type_system->counters_schema : nullptr;
    if (!schema || size < OBX_COUNTERS_BLOCK_HEAD_SIZE + 8ull * obx_counters_schema_total_values(schema)) {
        OBX_LOG_ERR("Counters block of %zu bytes has no counters schema that fits it", size);
        return false;
    }
    obx_counters_block_head_t head;
    obx_counters_block_head_read(block, &head);
    for (const auto& measurement : run.serializer.buildMeasurements(run.tags, run.no_adapters, schema)) {
        std::string line = run.serializer.serializeMeasurement(measurement, block);
        if (line.find("  ") != std::string::npos) continue;  // no field left: no point
        line.erase(line.rfind(' '));  // its own time is in milliseconds
        run.out += line;
        put_point(run, head.timestamp * 1000);
    }
    return true;
}

bool put_metrics(Run& run, const uint8_t* data, size_t size) {
    const uint64_t total = ObxMetricsParser::get_total_size(data, data + size);
    if (total == 0 || total > size) {
        OBX_LOG_ERR("CNTX block of %zu bytes has no whole size", size);
        return false;
    }
    const uint8_t* end = data + total;
    try {
        ObxLabelNames label_names;
        std::vector<std::string> label_values, metric_names;
        std::vector<MetricsBatchRecord> records;
        ObxMetricsParser::parse_full_block(data, end, label_names, label_values, metric_names, records);
        const ObxConstantLabels constants = ObxMetricsParser::parse_constant_labels(data, end);
        for (const MetricsBatchRecord& record : records) {
            obx::data::SerializerTags tags = run.tags;
            for (const auto& [name, value] : constants) tags[name] = value;
            const std::vector<std::string> values = decode_label_values(record.labels, label_values);
            const auto names = label_names.find(record.label_set_id);
            for (size_t i = 0; names != label_names.end() && i < names->second.size() && i < values.size(); ++i)
                tags[names->second[i]] = values[i];
            const std::string tag_part = tag_text(run, tags);
            for (const auto& sample : record.batch.samples) {
                const uint16_t id = sample.metric_id;
                const uint64_t value = sample.value;
                if (id >= metric_names.size()) throw std::runtime_error("metric id " + std::to_string(id) + " has no name");
                // InfluxDB 1.x integers are signed: larger values go as floats.
                const std::string field = value <= INT64_MAX ? std::to_string(value) + "i" : std::to_string(value);
                run.out += InfluxSerializer::escape(metric_names[id], run.serializer.measurementEscapes()) + tag_part + " value=" + field;
                put_point(run, record.timestamp * 1000);
            }
        }
    } catch (const std::exception& failure) {
        OBX_LOG_ERR("CNTX block could not be read: %s", failure.what());
        return false;
    }
    return true;
}

bool on_buffer(obx_reader_context_t* context, const uint8_t* data, size_t size, bool) {
    Run& run = *g_run;
    if (run.write_failed || size < OBX_MAGIC_SIZE) return false;
    if (context != run.context) {  // the first buffer of a file: its source names the points
        const obx_data_file_header_t& header = context->header;
        run.tags = {{"source_id", std::string(header.source_id, strnlen(header.source_id, sizeof header.source_id))},
                    {"source_tag", std::string(header.source_tag, strnlen(header.source_tag, sizeof header.source_tag))}};
        run.context = context;
    }
    switch (obx_block_type_get(data)) {
        case OBX_COUNTERS_BLOCK: return put_counters(run, context, data, size);
        case OBX_EVENTS_BLOCK:
        case OBX_SCHEMAS_BLOCK: return put_events(run, context, data, size);
        case OBX_CNTX_BLOCK: return put_metrics(run, data, size);
        default:
            OBX_LOG_ERR("Block of type %u is no telemetry", static_cast<unsigned>(obx_block_type_get(data)));
            return false;
    }
}

bool precision_divisor(const char* text, uint64_t* divisor) {
    const struct { const char* name; uint64_t divisor; } units[] = {{"ns", 1}, {"us", 1000}, {"ms", 1000000}, {"s", 1000000000}};
    for (const auto& unit : units)
        if (std::strcmp(text, unit.name) == 0) return *divisor = unit.divisor, true;
    return false;
}

int run_influx(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"schema-path", required_argument, nullptr, 's'},
        {"data-path", required_argument, nullptr, 'd'},
        {"precision", required_argument, nullptr, 'p'},
        {"url", required_argument, nullptr, 'u'},
        {"db", required_argument, nullptr, 'D'},
        {"user", required_argument, nullptr, 'U'},
        {"password", required_argument, nullptr, 'P'},
        {"rp", required_argument, nullptr, 'R'},
        {"batch", required_argument, nullptr, 'b'},
        {"retries", required_argument, nullptr, 'r'},
        {nullptr, 0, nullptr, 0},
    };
    InfluxTarget target;
    if (const char* password = std::getenv("OBX_INFLUX_PASSWORD")) target.password = password;
    unsigned long long number = 0;
    const obx_command_t* self = &obx_command_influx;
    Run run;
    run.serializer.faithful = true;
    const char* schema_path = nullptr;
    const char* data_dir = nullptr;
    for (int code; (code = getopt_long(argc, argv, ":hs:d:p:u:D:U:P:R:b:r:", kOptions, nullptr)) != -1;) {
        switch (code) {
            case 'h': return obx_command_print_help(self);
            case 's': schema_path = optarg; break;
            case 'd': data_dir = optarg; break;
            case 'p':
                if (!precision_divisor(optarg, &run.divisor))
                    return obx_command_usage_error(self, "--precision '%s' is not ns, us, ms or s", optarg);
                target.precision = optarg;
                break;
            case 'u': target.url = optarg; break;
            case 'D': target.database = optarg; break;
            case 'U': target.user = optarg; break;
            case 'P': target.password = optarg; break;
            case 'R': target.retention_policy = optarg; break;
            case 'b':
                if (!obx_command_parse_u64(optarg, 1, 1000000, &number))
                    return obx_command_usage_error(self, "--batch '%s' is not a number of points from 1 to 1000000", optarg);
                run.batch = number;
                break;
            case 'r':
                if (!obx_command_parse_u64(optarg, 0, 10, &number))
                    return obx_command_usage_error(self, "--retries '%s' is not a number from 0 to 10", optarg);
                target.retries = static_cast<unsigned>(number);
                break;
            default: return obx_command_option_error(self, code, argv);
        }
    }
    if (optind >= argc && !data_dir) return obx_command_usage_error(self, "a data file or -d DIR is needed");
    if (target.url.empty() != target.database.empty()) return obx_command_usage_error(self, "--url and --db go together");
    if (!target.url.empty()) run.server.reset(new InfluxHttpWriter(target));

    obx_read_options_t options;
    std::unique_ptr<obx_read_options_t, void (*)(obx_read_options_t*)> release(&options, obx_read_options_release);
    if (!obx_command_reader_options(&options, argc - optind, argv + optind, data_dir, schema_path)) return OBX_EXIT_FAILURE;

    std::unique_ptr<obx_data_page_t, void (*)(obx_data_page_t*)> no_adapters(
        static_cast<obx_data_page_t*>(std::calloc(1, sizeof(obx_data_page_t))), [](obx_data_page_t* page) { std::free(page); });
    if (!no_adapters) return OBX_EXIT_FAILURE;
    run.no_adapters = no_adapters.get();
    std::unique_ptr<obx_event_text_writer_t, void (*)(obx_event_text_writer_t*)> writer(obx_event_text_writer_create(),
                                                                                       obx_event_text_writer_destroy);
    if (!writer) return OBX_EXIT_FAILURE;
    run.writer = writer.get();
    g_run = &run;
    const obx_reader_buffer_handler_t previous = obx_reader_set_buffer_handler(on_buffer);
    size_t failed = 0;
    for (size_t i = 0; i < options.data_files->count && !run.write_failed; ++i) {
        const char* path = options.data_files->strings[i];
        run.context = nullptr;
        run.sequence.clear();
        obx_event_text_writer_forget_types(run.writer);  // each file has a type system of its own
        if (!obx_reader_process_file(path, &options, true)) ++failed;
        obx_event_text_writer_forget_types(run.writer);
    }
    obx_reader_set_buffer_handler(previous);
    g_run = nullptr;
    if (!run.write_failed) flush(run);
    if (run.server) {
        if (run.write_failed) {
            std::fprintf(stderr, "obx influx: %s; %" PRIu64 " points were written before\n", run.server->error().c_str(),
                         run.server->written());
            return OBX_EXIT_FAILURE;
        }
        std::fprintf(stderr, "obx influx: %" PRIu64 " points written to %s, database %s\n", run.server->written(),
                     target.url.c_str(), target.database.c_str());
    } else if (std::fflush(stdout) != 0 || run.write_failed) {
        std::fprintf(stderr, "obx influx: standard output could not be written\n");
        return OBX_EXIT_FAILURE;
    }
    if (run.skipped) std::fprintf(stderr, "obx influx: %" PRIu64 " events had no field to write\n", run.skipped);
    if (failed) std::fprintf(stderr, "obx influx: %zu of %zu files could not be read whole\n", failed, static_cast<size_t>(options.data_files->count));
    return failed ? OBX_EXIT_FAILURE : OBX_EXIT_OK;
}

}  // namespace

const obx_command_t obx_command_influx = {
    "influx",
    "write data files as InfluxDB line protocol, a point per record",
    "Usage: obx influx [-s DIR] [-d DIR] [--precision ns|us|ms|s]\n"
    "                  [--url URL --db NAME [--user U] [--password P] [--rp RP]\n"
    "                   [--batch N] [--retries N]] FILE...\n"
    "\n"
    "Writes every record of the data files as a point of InfluxDB line protocol on\n"
    "standard output, ready for its /write endpoint:\n"
    "  events        measurement = the event type's name, a field per value (floats\n"
    "                in full by %.17g, NaN and infinities left out, numeric arrays as\n"
    "                name.0, name.1, ..., text with its quotes and backslashes escaped;\n"
    "                a field named time as time_, since InfluxDB keeps no field of that\n"
    "                name); time = the event's first field of type\n"
    "                timestamp, else its block's time plus its place among the events\n"
    "                of that type and block time, in nanoseconds;\n"
    "  counters      node and CPU measurements of each counters block, at its time;\n"
    "  CNTX metrics  measurement = the metric's name, its labels and constant labels\n"
    "                as tags, field value (an integer, or a float above the signed\n"
    "                64-bit range), at its record's time.\n"
    "Every point carries the tags source_id and source_tag of its file. A FILE of -\n"
    "reads standard input, plain or gzip-wrapped.\n"
    "\n"
    "Options:\n"
    "  -s, --schema-path DIR   the schema folder, as obx_read takes it\n"
    "  -d, --data-path DIR     every file below DIR too\n"
    "  -p, --precision UNIT    ns (default), us, ms or s: the unit of the times written\n"
    "  -u, --url URL           post to this InfluxDB (http://host:port) instead of\n"
    "                          writing to standard output; needs --db\n"
    "  -D, --db NAME           the database written to\n"
    "  -U, --user U, -P, --password P\n"
    "                          basic authentication (the password also from\n"
    "                          OBX_INFLUX_PASSWORD)\n"
    "  -R, --rp RP             the retention policy\n"
    "  -b, --batch N           points per request (5000)\n"
    "  -r, --retries N         retries of a request after a connection failure or a\n"
    "                          server error, waiting 0.5 s, then twice as long each time\n"
    "                          (4); a refusal (HTTP 4xx) is not retried\n"
    "  -h, --help              print this text\n"
    "\n"
    "With --url the count of points written goes to standard error; a failed write\n"
    "says why, in the server's words where it gave any, and how many points went in.\n"
    "\n"
    "Exit status: 0, 1 when a file could not be read whole or a write failed, 2 on a\n"
    "usage error.\n",
    run_influx,
};
