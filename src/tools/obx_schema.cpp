#include <getopt.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "data/writer/schema_writer.h"
#include "tools/obx_command.h"
#include "utils/json.h"

// Lays the schemas of JSON texts down in a schema folder, as a collector does.
static int run_schema(int argc, char** argv)
{
    static const struct option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"schema-path", required_argument, nullptr, 's'},
        {"data-path", required_argument, nullptr, 'd'},
        {nullptr, 0, nullptr, 0},
    };
    obx::SchemaWriter writer;
    bool schema_path_given = false, data_path_given = false;
    for (int code; (code = getopt_long(argc, argv, ":hs:d:", kOptions, nullptr)) != -1;) {
        switch (code) {
            case 'h': return obx_command_print_help(&obx_command_schema);
            case 's': writer.schema_path = optarg, schema_path_given = true; break;
            case 'd': writer.data_path = optarg, data_path_given = true; break;
            default: return obx_command_option_error(&obx_command_schema, code, argv);
        }
    }
    if (schema_path_given && data_path_given)
        return obx_command_usage_error(&obx_command_schema, "--schema-path and --data-path exclude each other");
    if (optind >= argc) return obx_command_usage_error(&obx_command_schema, "a JSON file (or - for standard input) is needed");

    int failed = 0;
    for (int i = optind; i < argc; ++i) {
        std::string text;
        if (!obx_command_read_text(argv[i], &text)) {
            ++failed;
            continue;
        }
        json_t* value = obx_json_parse_buffer(text.data(), text.size());
        if (!value) {
            std::fprintf(stderr, "%s: not a JSON text\n", argv[i]);
            ++failed;
            continue;
        }
        try {
            writer.onSchema(static_cast<const json_t*>(value));
            // The writer tells file system trouble as a warning; here it fails the input.
            if (!writer.ok) ++failed;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", argv[i], e.what());
            ++failed;
        }
        json_decref(value);
    }
    const std::string folder = writer.schemaFilePath("x");
    std::printf("%zu schema files written to %s\n", writer.files_written, folder.substr(0, folder.rfind('/')).c_str());
    return failed ? OBX_EXIT_FAILURE : OBX_EXIT_OK;
}

const obx_command_t obx_command_schema = {
    "schema",
    "write the schemas of JSON texts into a schema folder",
    "Usage: obx schema [--schema-path DIR | --data-path DIR] FILE|-...\n"
    "\n"
    "Each FILE (- is standard input) holds one event schema, one counters schema or a\n"
    "whole type system (\"version\", \"counters_schema\", \"schemas\"). Every schema in it\n"
    "is written as schema_<id>.json, where <id> is the MD5 of the file's text, so the\n"
    "folder can be handed to obx_read -s.\n"
    "\n"
    "Options:\n"
    "  -s, --schema-path DIR   the schema folder\n"
    "  -d, --data-path DIR     the data folder: schemas go to DIR/schema (default .)\n"
    "  -h, --help              print this text\n"
    "\n"
    "A counters schema without groups is skipped unless OBX_ALLOW_EMPTY_COUNTER_SCHEMA\n"
    "(or ALLOW_EMPTY_COUNTER_SCHEMA) starts with y, t or 1.\n",
    run_schema,
};
