// Schema files: bytes -> JSON -> event schema -> resolved against the built-ins ->
// layout check -> encoded and hashed again; then a record of each type, as many bytes as
// its stated layout reads, rendered by both paths, which must agree. Also the schema id
// text reader.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "data/schema/schema_json.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "data/schema/type_definition.h"
#include "fuzz_support.h"
#include "render_check.h"

namespace {

void exercise_schema(obx_schema_t* schema, const obx_schema_t* built_ins) {
    schema->base_schema = built_ins;
    for (uint8_t i = 0; i < schema->num_types; ++i)
        if (!obx_schema_adjust_type_fields(schema, schema->types[i])) return;
    if (!obx_schema_validate_layout(schema)) return;

    // Layouts are trusted: a record is given exactly the bytes its rendering reads.
    static obx_event_text_writer_t* writer = obx_event_text_writer_create();
    obx_event_text_writer_forget_types(writer);  // the last input's types are gone
    for (uint8_t i = 0; i < schema->num_types && i < 8; ++i) {
        const uint64_t reach = obx_type_definition_reach(schema->types[i]);
        if (reach > (1u << 16)) continue;
        std::vector<uint8_t> record(reach ? reach : 1, static_cast<uint8_t>(i * 37 + 1));
        if (!obx_fuzz::paths_agree(writer, schema->types[i], record.data())) std::abort();
    }

    uint8_t digest[16];
    if (obx_schema_fill_md5(schema, digest)) obx_md5_to_hex_into(digest, schema->md5_digest_str);
    if (schema->num_types > 0) {
        const char* names[] = {"a", "b", "a"};
        obx_schema_set_field_indexes(schema, 0, names, 3);
        size_t count = 0;
        const char** indexed = obx_schema_get_indexed_field_names(schema, 0, &count);
        std::free(indexed);
        char* text = obx_schema_type_to_json_string(schema, schema->types[0]->name, 1);
        obx_json_free_serialized_string(text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    obx_log_set_callback(obx_fuzz::discard_log, OBX_LOG_DEBUG);

    // The id reader takes NUL-terminated text.
    std::string text(reinterpret_cast<const char*>(data), size);
    uint8_t digest[16];
    obx_hex_to_md5(text.c_str(), digest);

    json_t* value = obx_json_parse_buffer(reinterpret_cast<const char*>(data), size);
    if (!value) return 0;

    obx_schema_t* built_ins = obx_schema_create("<built-in>", OBX_SCHEMA_JSON_VERSION_WORD);
    if (built_ins && obx_schema_register_built_in_types(built_ins)) {
        if (obx_schema_t* schema = obx_schema_from_json(value)) {
            exercise_schema(schema, built_ins);
            obx_schema_destroy(schema);
        }
        // The parts on their own, as other readers use them.
        if (obx_type_definition_t* type = obx_type_from_json(value)) {
            json_t* again = obx_type_to_json(type);
            json_decref(again);
            obx_type_definition_destroy(type);
        }
        if (obx_type_field_definition_t* field = obx_field_from_json(value)) {
            json_t* again = obx_field_to_json(field);
            json_decref(again);
            obx_type_field_definition_destroy(field);
        }
    }
    obx_schema_destroy(built_ins);
    json_decref(value);
    return 0;
}
