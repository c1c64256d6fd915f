#include "serializers/event_text_writer.h"

#include <ctype.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "data/format/data_file_format.h"
#include "data/schema/built_in_types.h"
#include "data/schema/type_definition.h"
#include "serializers/text_buffer.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/number_format.h"
#include "utils/utf8.h"

using obx::data::TextBuffer;

namespace {

// Composite types nest at most this deep; a deeper (or looping) type is refused when its
// plan is made instead of being walked without end.
constexpr int kMaxPlanDepth = 512;

// Longest number text of any built-in, JSON or Influx, with its suffix.
constexpr size_t kNumberRoom = OBX_FIXED6_TEXT_MAX + 2;

// Printable run at the start of a char array, as both value renderers cut it: each byte
// is classified as a signed char by the current locale. This is isprint itself (glibc's
// table, indexed from -128), looked up once per field instead of once per byte.
inline size_t printable_length(const uint8_t* data, size_t length, uint8_t* high_bits)
{
    const unsigned short* classes = *__ctype_b_loc();
    uint8_t seen = 0;
    size_t used = 0;
    while (used < length && (classes[static_cast<signed char>(data[used])] & _ISprint)) {
        seen |= data[used];
        ++used;
    }
    *high_bits = seen & 0x80;
    return used;
}

enum class JsonKind : uint8_t { Number, Text, Nested, NumberArray, NestedArray, Broken };
enum class InfluxKind : uint8_t { Number, Text, Nested, NestedArray, Nothing, Broken };

struct EventPlan;

struct FieldPlan {
    const obx_type_field_definition_t* field = nullptr;  // for messages
    const EventPlan* nested = nullptr;                   // element type's plan, when it has one
    uint64_t offset = 0;
    uint64_t step = 0;   // bytes from one element to the next
    uint32_t id = 0;     // built-in id of the element type
    uint16_t count = 0;  // array_length
    JsonKind json = JsonKind::Broken;
    InfluxKind influx = InfluxKind::Broken;
    bool key_ok = false;  // the value path can set this key (present and UTF-8)
    uint32_t key_begin = 0;  // escaped, quoted key followed by ':' in EventPlan::keys
    uint32_t key_length = 0;
    uint32_t name_length = 0;  // raw field name, for Influx
    const char* name = "";
};

struct EventPlan {
    std::vector<FieldPlan> fields;    // record order
    std::vector<uint16_t> json_slots;  // per distinct key, in the place of its first field: the last field of that name
    bool json_duplicates = false;      // some key appears more than once
    std::string keys;
};

bool is_built_in(uint32_t id) { return id >= OBX_TYPE_BOOL && id <= OBX_TYPE_TIMESTAMP; }

}  // namespace

struct obx_event_text_writer_t {
    TextBuffer buffer;
    std::unordered_map<const obx_type_definition_t*, std::unique_ptr<EventPlan>> plans;
    const obx_type_definition_t* last_type = nullptr;  // most events follow one of their own type
    const EventPlan* last_plan = nullptr;
    bool plans_escape_slashes = true;  // slash setting the keys were escaped with
    std::string influx_prefix;
    bool influx_first = true;
    bool influx_faithful = false;

    const EventPlan* plan_of(const obx_type_definition_t* type, int depth);
    void forget();

    bool json_object(const EventPlan& plan, const uint8_t* record, bool pretty, size_t depth);
    bool json_value(const FieldPlan& field, const uint8_t* data, bool pretty, size_t depth);
    bool json_number(uint32_t id, const uint8_t* data);
    bool json_text(const FieldPlan& field, const uint8_t* data);
    bool json_array(const FieldPlan& field, const uint8_t* data, bool pretty, size_t depth);

    bool influx_fields(const EventPlan& plan, const uint8_t* record);
    void influx_name(const FieldPlan& field);
    bool influx_number(uint32_t id, const uint8_t* data);
    void influx_key(const char* text, size_t length);
    bool influx_faithful_number(const FieldPlan& field, const uint8_t* data, uint32_t index);
};

void obx_event_text_writer_t::forget()
{
    plans.clear();
    last_type = nullptr;
    last_plan = nullptr;
}

const EventPlan* obx_event_text_writer_t::plan_of(const obx_type_definition_t* type, int depth)
{
    auto found = plans.find(type);
    if (found != plans.end()) return found->second.get();
    if (depth > kMaxPlanDepth) {
        OBX_LOG_ERR("Type %s nests deeper than %d levels", type->name ? type->name : "", kMaxPlanDepth);
        return nullptr;
    }

    auto plan = std::make_unique<EventPlan>();
    plan->fields.resize(type->num_fields);
    std::vector<char> escaped;
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        FieldPlan& step = plan->fields[i];
        const obx_type_field_definition_t* field = type->fields ? type->fields[i] : nullptr;
        step.field = field;
        if (!field || !field->type) continue;  // Broken in both forms

        const obx_type_definition_t* element = field->type;
        step.offset = field->offset;
        step.step = field->type_size;
        step.id = element->id;
        step.count = field->array_length;
        if (element->id == OBX_TYPE_COMPOSITE || element->num_fields > 0) {
            step.nested = plan_of(element, depth + 1);
            if (!step.nested) return nullptr;
        }

        const bool text = element->id == OBX_TYPE_CHAR || element->id == OBX_TYPE_UNSIGNED_CHAR;
        if (step.count == 1) {
            if (element->id == OBX_TYPE_COMPOSITE)
                step.json = JsonKind::Nested;
            else
                step.json = is_built_in(element->id) ? JsonKind::Number : JsonKind::Broken;
        } else if (text) {
            step.json = JsonKind::Text;
        } else {
            step.json = element->id == OBX_TYPE_COMPOSITE ? JsonKind::NestedArray : JsonKind::NumberArray;
        }

        if (field->field_name) {
            step.name = field->field_name;
            step.name_length = static_cast<uint32_t>(std::strlen(field->field_name));
            step.key_ok = obx_utf8_is_valid(step.name, step.name_length);
            if (step.count == 1) {
                if (element->id != OBX_TYPE_COMPOSITE)
                    step.influx = is_built_in(element->id) ? InfluxKind::Number : InfluxKind::Broken;
                else
                    step.influx = InfluxKind::Nested;
            } else if (text) {
                step.influx = InfluxKind::Text;
            } else {
                step.influx = element->num_fields > 0 ? InfluxKind::NestedArray : InfluxKind::Nothing;
            }
        }
        if (step.key_ok) {
            escaped.resize(obx_json_string_max_size(step.name_length) + 1);
            char* end = obx_json_write_string(escaped.data(), step.name, step.name_length);
            *end++ = ':';
            step.key_begin = static_cast<uint32_t>(plan->keys.size());
            step.key_length = static_cast<uint32_t>(end - escaped.data());
            plan->keys.append(escaped.data(), step.key_length);
        }
    }

    // Setting a key that is already there keeps its place and takes the new value.
    for (uint16_t i = 0; i < type->num_fields; ++i) {
        const FieldPlan& step = plan->fields[i];
        bool merged = false;
        if (step.key_ok) {
            for (uint16_t& slot : plan->json_slots) {
                const FieldPlan& other = plan->fields[slot];
                if (other.key_ok && other.name_length == step.name_length &&
                    std::memcmp(other.name, step.name, step.name_length) == 0) {
                    slot = i;
                    merged = true;
                    plan->json_duplicates = true;
                    break;
                }
            }
        }
        if (!merged) plan->json_slots.push_back(i);
    }

    const EventPlan* result = plan.get();
    plans.emplace(type, std::move(plan));
    return result;
}

bool obx_event_text_writer_t::json_number(uint32_t id, const uint8_t* data)
{
    char* p = buffer.room(kNumberRoom);
    switch (id) {
    case OBX_TYPE_BOOL:
    case OBX_TYPE_UNSIGNED_CHAR:
    case OBX_TYPE_UINT8: p += obx_json_format_uint64(p, obx_le_u8(data)); break;
    case OBX_TYPE_CHAR:
    case OBX_TYPE_INT8: p += obx_json_format_int64(p, obx_le_i8(data)); break;
    case OBX_TYPE_SHORT:
    case OBX_TYPE_INT16: p += obx_json_format_int64(p, obx_le_i16(data)); break;
    case OBX_TYPE_INT:
    case OBX_TYPE_INT32: p += obx_json_format_int64(p, obx_le_i32(data)); break;
    case OBX_TYPE_LONG:
    case OBX_TYPE_LONG_LONG:
    case OBX_TYPE_INT64: p += obx_json_format_int64(p, obx_le_i64(data)); break;
    case OBX_TYPE_UNSIGNED_SHORT:
    case OBX_TYPE_UINT16: p += obx_json_format_uint64(p, obx_le_u16(data)); break;
    case OBX_TYPE_UNSIGNED_INT:
    case OBX_TYPE_UINT32: p += obx_json_format_uint64(p, obx_le_u32(data)); break;
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UNSIGNED_LONG_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP: p += obx_json_format_uint64(p, obx_le_u64(data)); break;
    case OBX_TYPE_FLOAT:
    case OBX_TYPE_DOUBLE: {
        const double value = id == OBX_TYPE_FLOAT ? static_cast<double>(obx_le_f32(data)) : obx_le_f64(data);
        if (!std::isfinite(value)) return false;  // JSON has no NaN or infinity
        p += obx_json_format_number(p, value);
        break;
    }
    default: return false;
    }
    buffer.commit(p);
    return true;
}

bool obx_event_text_writer_t::json_text(const FieldPlan& field, const uint8_t* data)
{
    uint8_t high_bits;
    const size_t used = printable_length(data, field.count, &high_bits);
    if (high_bits && !obx_utf8_is_valid(reinterpret_cast<const char*>(data), used)) {
        const obx_type_field_definition_t* definition = field.field;
        OBX_LOG_ERR("Failed to serialize field %s of type %s[%u] as string",
                    definition->field_name ? definition->field_name : "(null)",
                    definition->type_name ? definition->type_name : "", static_cast<unsigned>(field.count));
        return false;
    }
    char* p = buffer.room(obx_json_string_max_size(used));
    buffer.commit(obx_json_write_string(p, reinterpret_cast<const char*>(data), used));
    return true;
}

bool obx_event_text_writer_t::json_array(const FieldPlan& field, const uint8_t* data, bool pretty, size_t depth)
{
    if (field.count == 0) {
        buffer.write("[]", 2);
        return true;
    }
    buffer.put('[');
    if (pretty) buffer.put('\n');
    for (uint32_t i = 0; i < field.count; ++i) {
        if (pretty) buffer.blanks((depth + 1) * 4);
        const uint8_t* element = data + i * field.step;
        const bool ok = field.json == JsonKind::NestedArray ? json_object(*field.nested, element, pretty, depth + 1)
                                                            : json_number(field.id, element);
        if (!ok) return false;
        if (i + 1 < field.count) buffer.put(',');
        if (pretty) buffer.put('\n');
    }
    if (pretty) buffer.blanks(depth * 4);
    buffer.put(']');
    return true;
}

bool obx_event_text_writer_t::json_value(const FieldPlan& field, const uint8_t* data, bool pretty, size_t depth)
{
    switch (field.json) {
    case JsonKind::Number: return json_number(field.id, data);
    case JsonKind::Text: return json_text(field, data);
    case JsonKind::Nested: return json_object(*field.nested, data, pretty, depth);
    case JsonKind::NumberArray:
    case JsonKind::NestedArray: return json_array(field, data, pretty, depth);
    case JsonKind::Broken: return false;
    }
    return false;
}

bool obx_event_text_writer_t::json_object(const EventPlan& plan, const uint8_t* record, bool pretty, size_t depth)
{
    if (plan.json_slots.empty()) {
        buffer.write("{}", 2);
        return true;
    }
    if (plan.json_duplicates) {
        // A field that is replaced still fails the record, and in record order: render
        // every field once, in order, and throw the text away.
        const size_t mark = buffer.size();
        for (const FieldPlan& field : plan.fields) {
            if (!json_value(field, record + field.offset, pretty, depth + 1) || !field.key_ok) return false;
            buffer.truncate(mark);
        }
    }
    buffer.put('{');
    if (pretty) buffer.put('\n');
    const size_t last = plan.json_slots.size() - 1;
    for (size_t i = 0; i <= last; ++i) {
        const FieldPlan& field = plan.fields[plan.json_slots[i]];
        if (pretty) buffer.blanks((depth + 1) * 4);
        buffer.write(plan.keys.data() + field.key_begin, field.key_length);
        if (pretty) buffer.put(' ');
        // The value comes first: its failure is the one that counts (and is logged).
        if (!json_value(field, record + field.offset, pretty, depth + 1) || !field.key_ok) return false;
        if (i < last) buffer.put(',');
        if (pretty) buffer.put('\n');
    }
    if (pretty) buffer.blanks(depth * 4);
    buffer.put('}');
    return true;
}

// A piece of a field key: as it is, or with blanks, commas and equals signs escaped.
void obx_event_text_writer_t::influx_key(const char* text, size_t length)
{
    if (!influx_faithful) {
        buffer.write(text, length);
        return;
    }
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == ' ' || text[i] == ',' || text[i] == '=') buffer.put('\\');
        buffer.put(text[i]);
    }
}

void obx_event_text_writer_t::influx_name(const FieldPlan& field)
{
    if (influx_first)
        influx_first = false;
    else
        buffer.put(',');
    if (!influx_prefix.empty()) {
        influx_key(influx_prefix.data(), influx_prefix.size());
        buffer.put('.');
    } else if (influx_faithful && field.name_length == 4 && std::memcmp(field.name, "time", 4) == 0) {
        buffer.write("time_", 5);  // InfluxDB keeps no field named time
        buffer.put('=');
        return;
    }
    influx_key(field.name, field.name_length);
    buffer.put('=');
}

// One value as InfluxDB keeps it: full floats (a NaN or an infinity leaves the field out),
// unsigned values past the signed range as floats; `index` names an array element.
bool obx_event_text_writer_t::influx_faithful_number(const FieldPlan& field, const uint8_t* data, uint32_t index)
{
    double real = 0;
    bool as_real = false;
    switch (field.id) {
    case OBX_TYPE_FLOAT: real = static_cast<double>(obx_le_f32(data)), as_real = true; break;
    case OBX_TYPE_DOUBLE: real = obx_le_f64(data), as_real = true; break;
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UNSIGNED_LONG_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP:
        if (obx_le_u64(data) > static_cast<uint64_t>(INT64_MAX)) real = static_cast<double>(obx_le_u64(data)), as_real = true;
        break;
    default: break;
    }
    if (as_real && !std::isfinite(real)) return true;
    if (index == UINT32_MAX) {
        influx_name(field);
    } else {
        // Elements: the enclosing name, the array's name with no dot between, a dot, the index.
        if (influx_first)
            influx_first = false;
        else
            buffer.put(',');
        influx_key(influx_prefix.data(), influx_prefix.size());
        influx_key(field.name, field.name_length);
        char text[OBX_NUMBER_TEXT_MAX];
        buffer.put('.');
        buffer.write(text, obx_format_u64(text, index));
        buffer.put('=');
    }
    if (!as_real) return influx_number(field.id, data);
    char* p = buffer.room(kNumberRoom);
    buffer.commit(p + obx_format_g17(p, real));
    return true;
}

bool obx_event_text_writer_t::influx_number(uint32_t id, const uint8_t* data)
{
    char* p = buffer.room(kNumberRoom);
    switch (id) {
    case OBX_TYPE_BOOL:
        if (obx_le_u8(data)) {
            std::memcpy(p, "true", 4);
            p += 4;
        } else {
            std::memcpy(p, "false", 5);
            p += 5;
        }
        buffer.commit(p);
        return true;
    case OBX_TYPE_FLOAT: p += obx_format_fixed6(p, static_cast<double>(obx_le_f32(data))); break;
    case OBX_TYPE_DOUBLE: p += obx_format_fixed6(p, obx_le_f64(data)); break;
    case OBX_TYPE_CHAR:
    case OBX_TYPE_INT8: p += obx_format_i64(p, obx_le_i8(data)), *p++ = 'i'; break;
    case OBX_TYPE_SHORT:
    case OBX_TYPE_INT16: p += obx_format_i64(p, obx_le_i16(data)), *p++ = 'i'; break;
    case OBX_TYPE_INT:
    case OBX_TYPE_INT32: p += obx_format_i64(p, obx_le_i32(data)), *p++ = 'i'; break;
    case OBX_TYPE_LONG:
    case OBX_TYPE_LONG_LONG:
    case OBX_TYPE_INT64: p += obx_format_i64(p, obx_le_i64(data)), *p++ = 'i'; break;
    case OBX_TYPE_UNSIGNED_CHAR:
    case OBX_TYPE_UINT8: p += obx_format_u64(p, obx_le_u8(data)), *p++ = 'i'; break;
    case OBX_TYPE_UNSIGNED_SHORT:
    case OBX_TYPE_UINT16: p += obx_format_u64(p, obx_le_u16(data)), *p++ = 'i'; break;
    case OBX_TYPE_UNSIGNED_INT:
    case OBX_TYPE_UINT32: p += obx_format_u64(p, obx_le_u32(data)), *p++ = 'i'; break;
    case OBX_TYPE_UNSIGNED_LONG:
    case OBX_TYPE_UNSIGNED_LONG_LONG:
    case OBX_TYPE_UINT64:
    case OBX_TYPE_TIMESTAMP: p += obx_format_u64(p, obx_le_u64(data)), *p++ = 'i'; break;
    default: return false;
    }
    buffer.commit(p);
    return true;
}

bool obx_event_text_writer_t::influx_fields(const EventPlan& plan, const uint8_t* record)
{
    for (const FieldPlan& field : plan.fields) {
        const uint8_t* data = record + field.offset;
        switch (field.influx) {
        case InfluxKind::Number:
            if (influx_faithful) {
                if (!influx_faithful_number(field, data, UINT32_MAX)) return false;
                break;
            }
            influx_name(field);
            if (!influx_number(field.id, data)) return false;
            break;
        case InfluxKind::Text: {
            uint8_t high_bits;
            const size_t used = printable_length(data, field.count, &high_bits);
            influx_name(field);
            buffer.put('"');
            if (influx_faithful) {
                for (size_t i = 0; i < used; ++i) {
                    if (data[i] == '\\' || data[i] == '"') buffer.put('\\');
                    buffer.put(static_cast<char>(data[i]));
                }
            } else {
                buffer.write(reinterpret_cast<const char*>(data), used);  // not escaped
            }
            buffer.put('"');
            break;
        }
        case InfluxKind::Nested: {
            const size_t saved = influx_prefix.size();
            if (saved > 0) influx_prefix.push_back('.');
            influx_prefix.append(field.name, field.name_length);
            const bool ok = influx_fields(*field.nested, data);
            influx_prefix.resize(saved);
            if (!ok) return false;
            break;
        }
        case InfluxKind::NestedArray: {
            // No dot between the enclosing name and the array's name.
            const size_t saved = influx_prefix.size();
            influx_prefix.append(field.name, field.name_length);
            influx_prefix.push_back('.');
            const size_t base = influx_prefix.size();
            bool ok = true;
            for (uint32_t i = 0; i < field.count && ok; ++i) {
                char index[OBX_NUMBER_TEXT_MAX];
                influx_prefix.resize(base);
                influx_prefix.append(index, obx_format_u64(index, i));
                ok = influx_fields(*field.nested, data + i * field.step);
            }
            influx_prefix.resize(saved);
            if (!ok) return false;
            break;
        }
        case InfluxKind::Nothing:
            // Arrays of numbers give a field per element only in the faithful form.
            if (influx_faithful && is_built_in(field.id))
                for (uint32_t i = 0; i < field.count; ++i)
                    if (!influx_faithful_number(field, data + i * field.step, i)) return false;
            break;
        case InfluxKind::Broken: return false;
        }
    }
    return true;
}

obx_event_text_writer_t* obx_event_text_writer_create(void)
{
    return new (std::nothrow) obx_event_text_writer_t();
}

void obx_event_text_writer_destroy(obx_event_text_writer_t* writer) { delete writer; }

void obx_event_text_writer_forget_types(obx_event_text_writer_t* writer)
{
    if (writer) writer->forget();
}

size_t obx_event_text_writer_plan_count(const obx_event_text_writer_t* writer)
{
    return writer ? writer->plans.size() : 0;
}

void obx_event_text_writer_clear(obx_event_text_writer_t* writer)
{
    if (writer) writer->buffer.truncate(0);
}

const char* obx_event_text_writer_data(const obx_event_text_writer_t* writer)
{
    return writer ? writer->buffer.data() : "";
}

size_t obx_event_text_writer_size(const obx_event_text_writer_t* writer) { return writer ? writer->buffer.size() : 0; }

bool obx_event_text_writer_append_bytes(obx_event_text_writer_t* writer, const char* bytes, size_t length)
{
    if (!writer || (!bytes && length > 0)) return false;
    try {
        writer->buffer.write(bytes, length);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool obx_event_text_writer_append_event(obx_event_text_writer_t* writer, obx_event_text_form_t form,
                                        const obx_type_definition_t* type, const uint8_t* record)
{
    if (!writer || !type || !record) return false;
    const size_t start = writer->buffer.size();
    try {
        // Keys were escaped under one slash setting; a change makes new plans.
        if (writer->plans_escape_slashes != obx_json_escape_slashes()) {
            writer->forget();
            writer->plans_escape_slashes = obx_json_escape_slashes();
        }
        const EventPlan* plan = writer->last_plan;
        if (type != writer->last_type || !plan) {
            plan = writer->plan_of(type, 0);
            if (!plan) return false;
            writer->last_type = type;
            writer->last_plan = plan;
        }
        bool ok;
        switch (form) {
        case OBX_EVENT_TEXT_JSON_PRETTY: ok = writer->json_object(*plan, record, true, 0); break;
        case OBX_EVENT_TEXT_JSON_PLAIN: ok = writer->json_object(*plan, record, false, 0); break;
        case OBX_EVENT_TEXT_INFLUX:
        case OBX_EVENT_TEXT_INFLUX_FAITHFUL:
            writer->influx_prefix.clear();
            writer->influx_first = true;
            writer->influx_faithful = form == OBX_EVENT_TEXT_INFLUX_FAITHFUL;
            ok = writer->influx_fields(*plan, record);
            break;
        default: ok = false; break;
        }
        if (!ok) writer->buffer.truncate(start);
        return ok;
    } catch (const std::bad_alloc&) {
        OBX_LOG_ERR("Failed to allocate memory for event text");
        writer->buffer.truncate(start);
        return false;
    }
}

bool obx_event_text_writer_print(obx_event_text_writer_t* writer, obx_event_text_form_t form, bool is_first_record,
                                 const obx_type_definition_t* type, const uint8_t* record, FILE* stream)
{
    if (!writer || !stream) return false;
    writer->buffer.truncate(0);
    if (form == OBX_EVENT_TEXT_JSON_PRETTY && !is_first_record && !obx_event_text_writer_append_bytes(writer, ",\n", 2))
        return false;
    if (!obx_event_text_writer_append_event(writer, form, type, record)) return false;
    if (form != OBX_EVENT_TEXT_JSON_PRETTY && !obx_event_text_writer_append_bytes(writer, "\n", 1)) return false;
    std::fwrite(writer->buffer.data(), 1, writer->buffer.size(), stream);
    return true;
}
