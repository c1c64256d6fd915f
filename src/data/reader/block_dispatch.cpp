#include "data/reader/block_dispatch.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "counters/counter_data/counters_data.h"
#include "data/format/data_file_format.h"
#include "data/reader/reader_context.h"
#include "data/reader/reader_type_system.h"
#include "data/schema/schema.h"
#include "data/schema/type_definition.h"
#include "data/schema/type_system.h"
#include "metrics/metrics_output.h"
#include "serializers/counters_text_writer.h"
#include "serializers/event_text_writer.h"
#include "data/reader/reader_options.h"
#include "utils/logger.h"
#include "utils/string_array.h"

namespace {

// The first bytes of a block as terminated text, for messages.
struct MagicText {
    char text[OBX_MAGIC_SIZE + 1] = {0};
    MagicText(const uint8_t* data, size_t size) {
        if (data) std::memcpy(text, data, size < OBX_MAGIC_SIZE ? size : OBX_MAGIC_SIZE);
    }
};

const obx_counters_schema_t* counters_schema_of(const obx_reader_context_t* context)
{
    return context->type_system ? context->type_system->counters_schema : nullptr;
}

const obx_type_definition_t* event_type_of(const obx_reader_context_t* context, uint8_t schema_index,
                                           uint16_t type_index)
{
    return obx_type_system_event_type(context->type_system, schema_index, type_index);
}

}  // namespace

bool obx_reader_dispatch(obx_reader_context_t* context, const uint8_t* data, size_t size, bool in_compressed)
{
    // A decoded page may be shorter than a magic; it then names no block at all.
    const uint32_t type = data && size >= OBX_MAGIC_SIZE ? obx_block_type_get(data) : OBX_UNKNOWN_BLOCK;
    switch (type) {
    case OBX_COUNTERS_BLOCK: {
        const bool ok = obx_reader_print_counters_block(context, data, size);
        // Counted whatever happened, a block skipped by the time window too: the next
        // record of the file then carries its separator.
        context->records_printed += 1;
        return ok;
    }
    case OBX_EVENTS_BLOCK:
    case OBX_SCHEMAS_BLOCK:
        return obx_reader_walk_event_blocks(context, data, size);
    case OBX_CNTX_BLOCK: {
        const int result = obx_metrics_block_process(context, data, size);
        context->records_printed += 1;
        return result != 0;
    }
    default:
        OBX_LOG_ERR("Reached unknown block type %d %s. Magic value '%s'", static_cast<int>(type),
                    in_compressed ? "in compressed data block" : "", MagicText(data, size).text);
        return false;
    }
}

// Renders the values of a counters block in a format that shows them. A block that
// holds fewer bytes of values than the counters schema lays out fails the file: it is
// a damaged or foreign block, and printing the part that is there would pass off a cut
// block as a whole one.
static bool render_counters_values(obx_reader_context_t* context, const uint8_t* block, size_t size)
{
    const obx_counters_schema_t* schema = counters_schema_of(context);
    if (!schema) {
        obx_reader_report(context, "No counters schema is loaded to render the counters block with");
        return false;
    }
    const size_t values_size = size - OBX_COUNTERS_BLOCK_HEAD_SIZE;
    if (values_size < schema->size_of_counters) {
        obx_reader_report(context, "Counters block holds %zu bytes of values, the counters schema needs %u",
                          values_size, schema->size_of_counters);
        return false;
    }
    const obx_counters_data_t data = {block, size};
    const uint32_t format = context->options->format;
    if (format == OBX_OUTPUT_FORMAT_TXT || format == OBX_OUTPUT_FORMAT_BIN) {
        obx_counters_data_print(stdout, &data, schema);
        return true;
    }
    // Written straight from the block, with the bytes of obx_counters_data_to_json's value
    // printed by obx_json_print_record / _line.
    if (!context->counters_writer) context->counters_writer = obx_counters_text_writer_create();
    if (!context->counters_writer ||
        !obx_counters_text_writer_print(context->counters_writer, format == OBX_OUTPUT_FORMAT_JSON,
                                        context->records_printed == 0, &data, schema, stdout)) {
        obx_reader_report(context, "Failed to JSONify event values");
        return false;
    }
    return true;
}

bool obx_reader_print_counters_block(obx_reader_context_t* context, const uint8_t* block, size_t size)
{
    if (!block || size < OBX_COUNTERS_BLOCK_HEAD_SIZE) {
        obx_reader_report(context, "Counters block of %zu bytes is shorter than its %u-byte head", size,
                          OBX_COUNTERS_BLOCK_HEAD_SIZE);
        return false;
    }
    const obx_read_options_t* options = context->options;
    // With -p the head alone is shown, whatever the format and the time window.
    if (options->print_headers) {
        obx_counters_block_print(stdout, block);
        return true;
    }
    const uint64_t timestamp = obx_le_u64(block + OBX_COUNTERS_BLOCK_TIMESTAMP);
    if (timestamp < options->timestamp_gt || timestamp > options->timestamp_lt) return true;

    const uint32_t format = options->format;
    switch (format) {
    case OBX_OUTPUT_FORMAT_JSON:
    case OBX_OUTPUT_FORMAT_NDJSON:
    case OBX_OUTPUT_FORMAT_TXT:
    case OBX_OUTPUT_FORMAT_BIN:  // only a block outside a page gets here
        return render_counters_values(context, block, size);
    case OBX_OUTPUT_FORMAT_CSV:
        obx_reader_report(context, "CSV output is not supported yet");
        return true;
    case OBX_OUTPUT_FORMAT_INFLUX:
        obx_reader_report(context, "Influx line API output is not yet supported for counters data");
        return true;
    default:
        obx_reader_report(context, "Unknown output format %d", static_cast<int>(format));
        return false;
    }
}

// Checks a schemas block and loads the schemas it lists. The block size, or 0.
static size_t load_schemas_block(obx_reader_context_t* context, const uint8_t* block, size_t remaining)
{
    // The ids are read from a fixed 256-byte window whatever the block says of itself.
    if (remaining < OBX_SCHEMAS_BLOCK_MIN_REMAINING) {
        OBX_LOG_ERR("Schemas block has %zu bytes left in its buffer, it needs %u", remaining,
                    OBX_SCHEMAS_BLOCK_MIN_REMAINING);
        return 0;
    }
    obx_schemas_block_head_t head;
    obx_schemas_block_head_read(block, &head);
    if (head.block_size > remaining) {
        OBX_LOG_ERR("Schemas block size %u is larger than the %zu bytes left in its buffer", head.block_size,
                    remaining);
        return 0;
    }
    if (head.id_count > OBX_SCHEMAS_BLOCK_MAX_IDS) {
        OBX_LOG_ERR("Schemas block lists %u schema ids, at most %u are allowed", head.id_count,
                    OBX_SCHEMAS_BLOCK_MAX_IDS);
        return 0;
    }
    const uint8_t(*ids)[OBX_SCHEMA_ID_SIZE] = reinterpret_cast<const uint8_t(*)[OBX_SCHEMA_ID_SIZE]>(
        block + OBX_SCHEMAS_BLOCK_IDS);
    if (!obx_reader_load_type_system(context, ids, head.id_count)) return 0;
    // A block size of 0 ends here as a failure too: the walk could not move on.
    return head.block_size;
}

size_t obx_reader_load_schemas_block(obx_reader_context_t* context, const uint8_t* block, size_t size)
{
    if (!context || !block) return 0;
    return load_schemas_block(context, block, size);
}

size_t obx_reader_load_schemas_block_if_new(obx_reader_context_t* context, const uint8_t* block, size_t size,
                                            bool* reloaded)
{
    if (reloaded) *reloaded = false;
    if (!context || !block) return 0;
    if (context->block_schema_ids_valid && size >= OBX_SCHEMAS_BLOCK_MIN_REMAINING) {
        obx_schemas_block_head_t head;
        obx_schemas_block_head_read(block, &head);
        if (head.block_size <= size && head.id_count == context->block_schema_id_count &&
            head.id_count <= OBX_SCHEMAS_BLOCK_MAX_IDS &&
            std::memcmp(block + OBX_SCHEMAS_BLOCK_IDS, context->block_schema_ids, head.id_count * OBX_SCHEMA_ID_SIZE) == 0)
            return head.block_size;
    }
    const size_t consumed = load_schemas_block(context, block, size);
    if (reloaded) *reloaded = true;
    if (consumed > 0) {
        obx_schemas_block_head_t head;
        obx_schemas_block_head_read(block, &head);
        context->block_schema_id_count = head.id_count;
        std::memcpy(context->block_schema_ids, block + OBX_SCHEMAS_BLOCK_IDS, head.id_count * OBX_SCHEMA_ID_SIZE);
        context->block_schema_ids_valid = true;
    }
    return consumed;
}

bool obx_reader_walk_event_blocks(obx_reader_context_t* context, const uint8_t* data, size_t size)
{
    if (!data || size < 5) return true;
    size_t offset = 0;
    for (;;) {
        // The loop only goes on while at least 5 bytes are left, so the type byte is there.
        const uint8_t* block = data + offset;
        const size_t remaining = size - offset;
        const uint32_t type = obx_block_type_get(block);
        size_t consumed;
        if (type == OBX_SCHEMAS_BLOCK) {
            // A block naming the schemas that the block before it loaded would load the same
            // files again, and show it only in debug lines: below that level it is kept.
            consumed = obx_log_enabled(OBX_LOG_DEBUG) ? load_schemas_block(context, block, remaining)
                                                      : obx_reader_load_schemas_block_if_new(context, block, remaining, nullptr);
        } else if (type == OBX_EVENTS_BLOCK) {
            consumed = obx_reader_print_events(context, block, remaining);
        } else {
            // The run ends here, typically in the zero-filled tail of a chunk.
            OBX_LOG_DBG("Unexpected block type %d at offset %zu", static_cast<int>(type), offset);
            return true;
        }
        if (consumed == 0) {
            OBX_LOG_ERR("Failed to process block of type %d at offset %zu", static_cast<int>(type), offset);
            return false;
        }
        offset += consumed;
        if (offset + OBX_MAGIC_SIZE >= size) return true;
    }
}

size_t obx_reader_print_events(obx_reader_context_t* context, const uint8_t* block, size_t remaining)
{
    if (!block || remaining < OBX_EVENT_BLOCK_HEAD_SIZE) {
        OBX_LOG_ERR("Event block has %zu bytes left in its buffer, its head needs %u", remaining,
                    OBX_EVENT_BLOCK_HEAD_SIZE);
        return 0;
    }
    if (context->options->print_headers) obx_event_block_print(stdout, block);

    obx_event_block_head_t head;
    obx_event_block_head_read(block, &head);
    const obx_type_definition_t* type = event_type_of(context, head.schema_index, head.type_index);
    if (!type) {
        OBX_LOG_ERR("Type definition %u:%u not found", static_cast<unsigned>(head.schema_index),
                    static_cast<unsigned>(head.type_index));
        return 0;
    }
    const bool selected = obx_reader_type_selected(context, type);

    const uint64_t event_size = type->size;
    size_t consumed = OBX_EVENT_BLOCK_HEAD_SIZE;
    if (head.num_events == 0 || remaining - consumed < event_size) return consumed;

    // Schema layouts are trusted, so a field may read past its record: never past the buffer.
    const uint64_t reach = selected ? obx_type_definition_reach(type) : 0;

    // Events that the buffer cannot hold are dropped without a word and not consumed.
    unsigned printed = 0;
    for (;;) {
        if (selected && reach > remaining - consumed) {
            OBX_LOG_ERR("Event of type '%s' at offset %zu reads %" PRIu64 " bytes, its buffer holds %zu more",
                        type->name ? type->name : "<unnamed>", consumed, reach, remaining - consumed);
            return 0;
        }
        if (selected && !obx_reader_print_event(context, type, block + consumed)) {
            OBX_LOG_ERR("Failed to print");
            return 0;
        }
        ++printed;
        consumed += event_size;
        if (printed >= head.num_events || event_size > remaining - consumed) return consumed;
    }
}

// The one place where an event leaves for standard output.
bool obx_reader_print_event(obx_reader_context_t* context, const obx_type_definition_t* type, const uint8_t* event)
{
    const uint32_t format = context->options->format;
    switch (format) {
    case OBX_OUTPUT_FORMAT_JSON:
    case OBX_OUTPUT_FORMAT_NDJSON:
    case OBX_OUTPUT_FORMAT_INFLUX: {
        // Written straight from the record, with the bytes of obx_event_to_json's value
        // printed by obx_json_print_record / _line, or of obx_influx_serialize_event
        // and puts; one write per event.
        const obx_event_text_form_t form = format == OBX_OUTPUT_FORMAT_JSON     ? OBX_EVENT_TEXT_JSON_PRETTY
                                           : format == OBX_OUTPUT_FORMAT_NDJSON ? OBX_EVENT_TEXT_JSON_PLAIN
                                                                                : OBX_EVENT_TEXT_INFLUX;
        if (!context->event_writer) context->event_writer = obx_event_text_writer_create();
        if (!context->event_writer || !obx_event_text_writer_print(context->event_writer, form,
                                                                   context->records_printed == 0, type, event, stdout)) {
            obx_reader_report(context, form == OBX_EVENT_TEXT_INFLUX
                                           ? "Failed to serialize event data to Influx line API format"
                                           : "Failed to JSONify event values");
            return false;
        }
        break;
    }
    case OBX_OUTPUT_FORMAT_TXT:
        // The words name counters data, for events too.
        obx_reader_report(context, "Text output is not yet supported for counters data");
        break;
    case OBX_OUTPUT_FORMAT_CSV:
        obx_reader_report(context, "CSV output is not supported yet");
        break;
    default:
        obx_reader_report(context, "Unknown output format %d", static_cast<int>(format));
        return false;
    }
    context->records_printed += 1;
    return true;
}

bool obx_reader_type_selected(const obx_reader_context_t* context, const obx_type_definition_t* type)
{
    if (!context || !context->options || !type) return false;
    const obx_read_options_t* options = context->options;
    return obx_string_array_match(type->name, options->include_counters, OBX_MATCH_WILDCARD) &&
           !obx_string_array_match(type->name, options->exclude_counters, OBX_MATCH_WILDCARD);
}
