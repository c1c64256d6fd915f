#include "serializers/counters_text_writer.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "counters/counter_data/counters_data.h"
#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counter_info.h"
#include "counters/counter_group/counters_provider.h"
#include "counters/counter_group/counters_schema.h"
#include "data/format/data_file_format.h"
#include "serializers/text_buffer.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/number_format.h"
#include "utils/time_text.h"
#include "utils/utf8.h"

using obx::data::TextBuffer;

namespace {

// Indentation of the pretty text: the groups array's elements, their members, the
// counter sets and the counters within a set.
constexpr size_t kGroupIndent = 8;
constexpr size_t kGroupMemberIndent = 12;
constexpr size_t kSetIndent = 16;
constexpr size_t kCounterIndent = 20;

struct CounterStep {
    const obx_counter_info_t* counter = nullptr;
    int32_t data_type = 0;
    uint32_t length = 0;
    bool key_ok = false;  // the name can be a key (UTF-8)
    uint32_t key_begin = 0;  // quoted, escaped name and ':' in SchemaPlan::keys
    uint32_t key_length = 0;
    uint32_t distinct = 0;  // which of the group's names this is
};

struct GroupPlan {
    std::string head[2];  // plain, pretty: from '{' through the "counter_sets" key
    uint32_t num_sets = 0;
    std::vector<CounterStep> counters;
    uint32_t distinct_names = 0;
    bool duplicates = false;  // a name comes again: keys then follow what was really set
};

struct SchemaPlan {
    std::vector<GroupPlan> groups;
    std::string keys;
};

void append_quoted(std::string& out, const char* text, size_t length)
{
    std::vector<char> escaped(obx_json_string_max_size(length));
    char* end = obx_json_write_string(escaped.data(), text, length);
    out.append(escaped.data(), static_cast<size_t>(end - escaped.data()));
}

const char* group_name(const obx_counter_group_t* group)
{
    if (group->name) return group->name;
    if (group->provider && group->provider->name) return group->provider->name;
    return "unset";
}

}  // namespace

struct obx_counters_text_writer_t {
    TextBuffer buffer;
    TextBuffer scratch;  // values of a group with repeated names, before they are placed
    std::unordered_map<const obx_counters_schema_t*, std::unique_ptr<SchemaPlan>> plans;
    bool plans_escape_slashes = true;
    // Per distinct name of the set being written: where its value text lies in scratch
    // and its place among the keys set so far.
    std::vector<size_t> value_begin;
    std::vector<size_t> value_end;
    std::vector<uint32_t> place;
    std::vector<uint32_t> order;

    const SchemaPlan* plan_of(const obx_counters_schema_t* schema);
    bool value(TextBuffer& out, const CounterStep& step, const uint8_t* values, size_t available);
    void counter_set(const GroupPlan& group, const SchemaPlan& plan, const uint8_t* values, size_t available,
                     bool pretty);
    void group(const GroupPlan& group, const SchemaPlan& plan, const uint8_t* values, size_t available, bool pretty);
    void block(const SchemaPlan& plan, const obx_counters_data_t* block, bool pretty);
};

const SchemaPlan* obx_counters_text_writer_t::plan_of(const obx_counters_schema_t* schema)
{
    auto found = plans.find(schema);
    if (found != plans.end()) return found->second.get();

    auto plan = std::make_unique<SchemaPlan>();
    for (uint32_t g = 0; schema && schema->groups && g < schema->num_groups; ++g) {
        const obx_counter_group_t* group = schema->groups[g];
        if (!group) continue;
        plan->groups.emplace_back();
        GroupPlan& group_plan = plan->groups.back();
        group_plan.num_sets = group->num_counter_sets;

        // The group's own members never clash; a name JSON cannot hold leaves its key out.
        const char* granularity = obx_counter_granularity_to_string(group->granularity);
        const char* name = group_name(group);
        const bool name_ok = obx_utf8_is_valid(name, std::strlen(name));
        for (int pretty = 0; pretty < 2; ++pretty) {
            std::string& head = group_plan.head[pretty];
            const std::string before = pretty ? "\n" + std::string(kGroupMemberIndent, ' ') : "";
            const char* colon = pretty ? ": " : ":";
            head = "{";
            if (granularity) {
                head += before + "\"granularity\"" + colon;
                append_quoted(head, granularity, std::strlen(granularity));
                head += ",";
            }
            if (name_ok) {
                head += before + "\"name\"" + colon;
                append_quoted(head, name, std::strlen(name));
                head += ",";
            }
            head += before + "\"counter_sets\"" + colon;
        }

        std::vector<std::string> names;
        for (uint32_t i = 0; group->counters && i < group->num_counters; ++i) {
            const obx_counter_info_t* counter = group->counters[i];
            if (!counter || !counter->name) continue;  // passed over without a word
            CounterStep step;
            step.counter = counter;
            step.data_type = counter->data_type;
            step.length = counter->length;
            const size_t name_length = std::strlen(counter->name);
            step.key_ok = obx_utf8_is_valid(counter->name, name_length);
            if (step.key_ok) {
                step.key_begin = static_cast<uint32_t>(plan->keys.size());
                append_quoted(plan->keys, counter->name, name_length);
                plan->keys += ':';
                step.key_length = static_cast<uint32_t>(plan->keys.size() - step.key_begin);
                uint32_t d = 0;
                while (d < names.size() && names[d] != counter->name) ++d;
                if (d == names.size())
                    names.push_back(counter->name);
                else
                    group_plan.duplicates = true;
                step.distinct = d;
            }
            group_plan.counters.push_back(step);
        }
        group_plan.distinct_names = static_cast<uint32_t>(names.size());
    }
    const SchemaPlan* result = plan.get();
    plans.emplace(schema, std::move(plan));
    return result;
}

// The value of one counter, as the value path reads it; false when it leaves its key out.
bool obx_counters_text_writer_t::value(TextBuffer& out, const CounterStep& step, const uint8_t* values,
                                       size_t available)
{
    const uint8_t* value = obx_counters_data_counter_value(step.counter, values, available);
    if (!value) return false;
    switch (step.data_type) {
    case OBX_COUNTER_DATA_TYPE_UINT64:
    case OBX_COUNTER_DATA_TYPE_BIT64: {
        char* p = out.room(OBX_NUMBER_TEXT_MAX);
        out.commit(p + obx_json_format_uint64(p, obx_le_u64(value)));
        return true;
    }
    case OBX_COUNTER_DATA_TYPE_FP64: {
        const double number = obx_le_f64(value);
        if (!std::isfinite(number)) return false;
        char* p = out.room(OBX_NUMBER_TEXT_MAX);
        out.commit(p + obx_json_format_number(p, number));
        return true;
    }
    case OBX_COUNTER_DATA_TYPE_STRING: {
        obx_log_hexdump(value, step.length);
        const void* zero = std::memchr(value, 0, step.length);
        const size_t length = zero ? static_cast<size_t>(static_cast<const uint8_t*>(zero) - value) : step.length;
        const char* text = reinterpret_cast<const char*>(value);
        if (!obx_utf8_is_valid(text, length)) return false;
        char* p = out.room(obx_json_string_max_size(length));
        out.commit(obx_json_write_string(p, text, length));
        return true;
    }
    default: {
        char* p = out.room(OBX_NUMBER_TEXT_MAX);
        out.commit(p + obx_json_format_int64(p, obx_le_i64(value)));
        return true;
    }
    }
}

void obx_counters_text_writer_t::counter_set(const GroupPlan& group, const SchemaPlan& plan, const uint8_t* values,
                                             size_t available, bool pretty)
{
    buffer.put('{');
    bool empty = true;
    auto member = [&](const CounterStep& step) {
        if (!empty) buffer.put(',');
        if (pretty) {
            buffer.put('\n');
            buffer.blanks(kCounterIndent);
        }
        buffer.write(plan.keys.data() + step.key_begin, step.key_length);
        if (pretty) buffer.put(' ');
        empty = false;
    };

    if (!group.duplicates) {
        for (const CounterStep& step : group.counters) {
            // Where the key goes is only known once the value is: write both, take back both.
            const size_t mark = buffer.size();
            const bool was_empty = empty;
            if (step.key_ok) member(step);
            if (!value(buffer, step, values, available) || !step.key_ok) {
                buffer.truncate(mark);
                empty = was_empty;
            }
        }
    } else {
        // A name set again keeps the place it got first and takes the later value.
        value_begin.assign(group.distinct_names, 0);
        value_end.assign(group.distinct_names, 0);
        place.assign(group.distinct_names, UINT32_MAX);
        order.clear();
        scratch.truncate(0);
        for (const CounterStep& step : group.counters) {
            const size_t begin = scratch.size();
            if (!value(scratch, step, values, available) || !step.key_ok) continue;
            value_begin[step.distinct] = begin;
            value_end[step.distinct] = scratch.size();
            if (place[step.distinct] == UINT32_MAX) {
                place[step.distinct] = static_cast<uint32_t>(order.size());
                order.push_back(static_cast<uint32_t>(&step - group.counters.data()));
            }
        }
        for (uint32_t index : order) {
            const CounterStep& step = group.counters[index];
            member(step);
            buffer.write(scratch.data() + value_begin[step.distinct], value_end[step.distinct] - value_begin[step.distinct]);
        }
    }
    if (!empty && pretty) {
        buffer.put('\n');
        buffer.blanks(kSetIndent);
    }
    buffer.put('}');
}

void obx_counters_text_writer_t::group(const GroupPlan& group, const SchemaPlan& plan, const uint8_t* values,
                                       size_t available, bool pretty)
{
    const std::string& head = group.head[pretty ? 1 : 0];
    buffer.write(head.data(), head.size());
    if (group.num_sets == 0) {
        buffer.write("[]", 2);
    } else {
        buffer.put('[');
        // Every set reads the same bytes: one is rendered and the rest are copies, unless
        // debug lines (cut or dumped values) must come once per set as they always did.
        const bool each = obx_log_enabled(OBX_LOG_DEBUG);
        size_t first_begin = 0;
        size_t first_length = 0;
        for (uint32_t s = 0; s < group.num_sets; ++s) {
            if (s > 0) buffer.put(',');
            if (pretty) {
                buffer.put('\n');
                buffer.blanks(kSetIndent);
            }
            if (s == 0 || each) {
                first_begin = buffer.size();
                counter_set(group, plan, values, available, pretty);
                first_length = buffer.size() - first_begin;
            } else {
                buffer.repeat(first_begin, first_length);
            }
        }
        if (pretty) {
            buffer.put('\n');
            buffer.blanks(kGroupMemberIndent);
        }
        buffer.put(']');
    }
    if (pretty) {
        buffer.put('\n');
        buffer.blanks(kGroupIndent);
    }
    buffer.put('}');
}

void obx_counters_text_writer_t::block(const SchemaPlan& plan, const obx_counters_data_t* data, bool pretty)
{
    const uint64_t timestamp = obx_counters_data_timestamp(data);
    const uint8_t* values = obx_counters_data_values(data);
    const size_t available = obx_counters_data_values_size(data);

    const char* member_start = pretty ? "\n    " : "";
    const size_t member_start_length = pretty ? 5 : 0;
    buffer.put('{');
    buffer.write(member_start, member_start_length);
    buffer.write(pretty ? "\"timestamp\": " : "\"timestamp\":", pretty ? 13 : 12);
    char* p = buffer.room(OBX_NUMBER_TEXT_MAX);
    buffer.commit(p + obx_json_format_uint64(p, timestamp));
    buffer.put(',');
    char time_text[32];
    if (obx_time_to_string_into(timestamp, time_text, sizeof time_text)) {
        buffer.write(member_start, member_start_length);
        buffer.write(pretty ? "\"@timestamp\": " : "\"@timestamp\":", pretty ? 14 : 13);
        const size_t length = std::strlen(time_text);
        p = buffer.room(obx_json_string_max_size(length));
        buffer.commit(obx_json_write_string(p, time_text, length));
        buffer.put(',');
    }
    buffer.write(member_start, member_start_length);
    buffer.write(pretty ? "\"groups\": " : "\"groups\":", pretty ? 10 : 9);
    if (plan.groups.empty()) {
        buffer.write("[]", 2);
    } else {
        buffer.put('[');
        for (size_t g = 0; g < plan.groups.size(); ++g) {
            if (g > 0) buffer.put(',');
            if (pretty) {
                buffer.put('\n');
                buffer.blanks(kGroupIndent);
            }
            group(plan.groups[g], plan, values, available, pretty);
        }
        if (pretty) buffer.write("\n    ", 5);
        buffer.put(']');
    }
    if (pretty) buffer.put('\n');
    buffer.put('}');
}

obx_counters_text_writer_t* obx_counters_text_writer_create(void)
{
    return new (std::nothrow) obx_counters_text_writer_t();
}

void obx_counters_text_writer_destroy(obx_counters_text_writer_t* writer) { delete writer; }

void obx_counters_text_writer_forget_schemas(obx_counters_text_writer_t* writer)
{
    if (writer) writer->plans.clear();
}

size_t obx_counters_text_writer_plan_count(const obx_counters_text_writer_t* writer)
{
    return writer ? writer->plans.size() : 0;
}

void obx_counters_text_writer_clear(obx_counters_text_writer_t* writer)
{
    if (writer) writer->buffer.truncate(0);
}

const char* obx_counters_text_writer_data(const obx_counters_text_writer_t* writer)
{
    return writer ? writer->buffer.data() : "";
}

size_t obx_counters_text_writer_size(const obx_counters_text_writer_t* writer)
{
    return writer ? writer->buffer.size() : 0;
}

bool obx_counters_text_writer_append(obx_counters_text_writer_t* writer, bool pretty,
                                     const obx_counters_data_t* block, const obx_counters_schema_t* schema)
{
    if (!writer) return false;
    if (!obx_counters_data_has_head(block)) return false;
    const size_t start = writer->buffer.size();
    try {
        if (writer->plans_escape_slashes != obx_json_escape_slashes()) {
            writer->plans.clear();
            writer->plans_escape_slashes = obx_json_escape_slashes();
        }
        writer->block(*writer->plan_of(schema), block, pretty);
        return true;
    } catch (const std::bad_alloc&) {
        OBX_LOG_ERR("Failed to allocate memory for counters text");
        writer->buffer.truncate(start);
        return false;
    }
}

bool obx_counters_text_writer_print(obx_counters_text_writer_t* writer, bool pretty, bool is_first_record,
                                    const obx_counters_data_t* block, const obx_counters_schema_t* schema,
                                    FILE* stream)
{
    if (!writer || !stream) return false;
    writer->buffer.truncate(0);
    try {
        if (pretty && !is_first_record) writer->buffer.write(",\n", 2);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!obx_counters_text_writer_append(writer, pretty, block, schema)) return false;
    try {
        if (!pretty) writer->buffer.put('\n');
    } catch (const std::bad_alloc&) {
        return false;
    }
    std::fwrite(writer->buffer.data(), 1, writer->buffer.size(), stream);
    return true;
}
