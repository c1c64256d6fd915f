// Renders arbitrary bytes as event records of a fixed set of types, by the value path
// and by the direct writer, and stops at the first byte where the two disagree.
//
// Input: byte 0 picks the type, byte 1 the slash setting and the locale; the rest is the
// record, cut or padded with zeros to the type's size.
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "data/schema/event_json.h"
#include "data/schema/built_in_types.h"
#include "data/schema/schema.h"
#include "serializers/event_text_writer.h"
#include "serializers/influx_serializer.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "render_check.h"

namespace {

struct Types {
    obx_schema_t* built_ins = nullptr;
    obx_schema_t* schema = nullptr;
    std::vector<const obx_type_definition_t*> list;
    obx_event_text_writer_t* writer = nullptr;

    void add(const char* name, std::vector<obx_type_field_info_t> fields)
    {
        uint8_t index = 0;
        if (obx_schema_add_type(schema, name, fields.data(), fields.size(), &index) != OBX_SCHEMA_OK) std::abort();
        list.push_back(schema->types[index]);
    }

    Types()
    {
        obx_log_set_level(0);  // text fields that fail say so; not wanted here
        built_ins = obx_schema_create("<built-in>", 1281);
        schema = obx_schema_create("fuzz", 0x10001);
        if (!built_ins || !schema || !obx_schema_register_built_in_types(built_ins)) std::abort();
        schema->base_schema = built_ins;
        auto f = [](const char* name, const char* type, uint16_t length = 1) {
            return obx_type_field_info_t{name, "", type, 0, length};
        };
        std::vector<obx_type_field_info_t> every;
        static std::vector<std::string> names;
        for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id) names.push_back("f" + std::to_string(id));
        for (uint32_t id = 1; id <= OBX_BUILT_IN_TYPE_COUNT; ++id)
            every.push_back(f(names[id - 1].c_str(), obx_built_in_type_name(id)));
        add("every", every);
        add("texts", {f("a", "char", 7), f("b", "unsigned char", 3), f("c", "char", 1), f("d", "int8_t", 4)});
        add("leaf", {f("x", "double"), f("s", "char", 4), f("x", "float")});  // the last name repeats
        add("tree", {f("leaf", "leaf"), f("leaves", "leaf", 3), f("n", "uint16_t", 2), f("t", "timestamp")});
        add("forest", {f("tree", "tree", 2), f("f", "float", 3), f("tree", "leaf")});
        writer = obx_event_text_writer_create();
        if (!writer) std::abort();
    }
};

Types& types()
{
    static Types instance;
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Types& t = types();
    if (size < 2) return 0;
    const obx_type_definition_t* type = t.list[data[0] % t.list.size()];
    obx_json_set_escape_slashes(data[1] & 1);
    std::setlocale(LC_CTYPE, (data[1] & 2) ? "C.UTF-8" : "C");
    std::vector<uint8_t> record(type->size > 0 ? type->size : 1, 0);
    std::memcpy(record.data(), data + 2, std::min(record.size(), size - 2));

    if (!obx_fuzz::paths_agree(t.writer, type, record.data())) std::abort();
    std::setlocale(LC_CTYPE, "C");
    return 0;
}
