// Influx line protocol: escaping, the field set of one event, the tag set and the full
// line. obx_read's influx format prints the field set alone (obx_influx_serialize_event).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "serializers/serializer.h"

struct obx_type_definition_t;
struct obx_type_field_definition_t;

struct obx_counters_schema_t;

namespace obx {
namespace data {

// One field of a counters measurement: the value at block + 16 + 8 x value_index.
struct InfluxCounterField {
    std::string name;
    uint64_t value_index;
    int32_t data_type;
};

// One future line of a counters block.
struct InfluxMeasurement {
    std::string name;
    SerializerTags tags;
    // The start of a counter's name that selects this measurement, seen as a text that
    // ends at its first zero byte; empty for CPU and node measurements.
    std::string counter_prefix;
    std::vector<InfluxCounterField> fields;
};

class InfluxSerializer : public Serializer {
public:
    InfluxSerializer();

    // Lines of a page: one per event and one per measurement of each counters block.
    // Blocks are read only within the page's bytes. An event block whose type is unknown
    // ends the walk with an error line: stepping nowhere would never end.
    std::vector<std::string> serializePage(const SerializerTags& tags, const obx_data_page_t* page,
                                           const obx_type_system_t* type_system) override;
    // Lines of the event block at `block` with `remaining` bytes there; `consumed` is 0
    // when its type is unknown.
    std::vector<std::string> serializeEventBlock(const SerializerTags& tags, const obx_type_system_t* type_system,
                                                 const uint8_t* block, uint64_t remaining, uint64_t& consumed) const;
    // Node, CPU, port and adapter measurements of a page's counters, in that order.
    std::vector<InfluxMeasurement> buildMeasurements(const SerializerTags& tags, const obx_data_page_t* page,
                                                     const obx_counters_schema_t* counters_schema) const;
    // One full line of a measurement over the counters block at `block`.
    std::string serializeMeasurement(const InfluxMeasurement& measurement, const uint8_t* block) const;
    // A line per group and counter set; nothing in this system calls it. `block` must
    // hold the schema's values behind its 16-byte head.
    std::vector<std::string> serializeCountersByGroup(const SerializerTags& tags, const uint8_t* block,
                                                      const obx_counters_schema_t* counters_schema) const;

    // "name=value" texts of the record's fields in field order; `prefix` names the
    // enclosing field ("" at the top).
    std::vector<std::string> serializeFields(const obx_type_definition_t* type, const uint8_t* record,
                                             const std::string& prefix) const;
    std::vector<std::string> serializeField(const obx_type_field_definition_t* field, const uint8_t* value,
                                            const std::string& prefix) const;
    // An array that is not text: only elements of a composite type give fields.
    std::vector<std::string> serializeArrayField(const obx_type_field_definition_t* field, const uint8_t* value,
                                                 const std::string& prefix) const;
    // A char or unsigned char array: the printable bytes up to the first other one, quoted
    // and not escaped.
    std::vector<std::string> serializeTextField(const obx_type_field_definition_t* field, const uint8_t* value,
                                                const std::string& prefix) const;

    // One built-in value by id (1 to 22); any other id throws std::logic_error.
    static std::string renderScalar(uint32_t id, const uint8_t* value);
    // One counter value from its 8-byte slot, by the counter's data type.
    static std::string renderCounterValue(const uint8_t* value, int32_t data_type);

    // Every occurrence of each entry, list order, gets a backslash in front.
    static std::string escape(const std::string& text, const std::vector<std::string>& escapes);

    // key=value pairs in key order, both sides escaped with key_escapes, joined by ",".
    std::string serializeTags(const SerializerTags& tags) const;
    // measurement[,tags] fields timestamp-in-milliseconds; `timestamp` is in microseconds.
    std::string serializeEventLine(const SerializerTags& tags, const obx_type_definition_t* type,
                                   const uint8_t* record, uint64_t timestamp) const;

    // Off (the default): the text above, quirks and all. On: what InfluxDB stores
    // unchanged, through the same walk: floats by "%.17g" (NaN and the infinities, which
    // InfluxDB refuses, left out), unsigned 64-bit values above the signed range as
    // floats, numeric arrays as one field per element, field keys and string values
    // escaped, STRING counters as the text in their 8 bytes.
    bool faithful = false;

    const std::vector<std::string>& measurementEscapes() const { return measurement_escapes; }
    const std::vector<std::string>& keyEscapes() const { return key_escapes; }

private:
    // renderScalar and renderCounterValue, or their faithful forms; "" leaves the field out.
    std::string scalarText(uint32_t id, const uint8_t* value) const;
    std::string counterText(const uint8_t* value, int32_t data_type) const;
    std::string fieldKey(const std::string& name) const;

    std::vector<std::string> measurement_escapes;
    std::vector<std::string> key_escapes;
    // Set and never read: string field values go out unescaped.
    std::vector<std::string> string_value_escapes;
};

}  // namespace data
}  // namespace obx

// The field set of one event as a new text (free with obx_influx_free_text); an event
// with no rendered fields gives "". nullptr only when memory ran out.
char* obx_influx_serialize_event(const obx_type_definition_t* type, const uint8_t* record);
void obx_influx_free_text(char* text);
