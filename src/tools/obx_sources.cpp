#include <getopt.h>

#include <cstdio>
#include <string>

#include "host/source.h"
#include "tools/obx_command.h"
#include "utils/json.h"

// Lists the sources of a specification, as a collector given it would take them.
static int run_sources(int argc, char** argv)
{
    static const struct option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"tag", required_argument, nullptr, 't'},
        {"json", no_argument, nullptr, 'j'},
        {nullptr, 0, nullptr, 0},
    };
    const char* tag = "";
    bool json = false;
    for (int code; (code = getopt_long(argc, argv, ":ht:j", kOptions, nullptr)) != -1;) {
        switch (code) {
            case 'h': return obx_command_print_help(&obx_command_sources);
            case 't': tag = optarg; break;
            case 'j': json = true; break;
            default: return obx_command_option_error(&obx_command_sources, code, argv);
        }
    }
    if (optind + 1 != argc) return obx_command_usage_error(&obx_command_sources, "one source specification is needed");
    if (std::string(tag).size() >= OBX_SOURCE_TAG_SIZE)
        return obx_command_usage_error(&obx_command_sources, "tag '%s' is longer than %d characters", tag,
                                       static_cast<int>(OBX_SOURCE_TAG_SIZE - 1));

    // "-" is a node list or a file of ids on standard input.
    const obx_command_input_t input(argv[optind]);
    if (input.path().empty()) return OBX_EXIT_FAILURE;
    obx_source_array_t* sources = obx_source_array_from_spec(input.path().c_str());
    if (!sources) return OBX_EXIT_FAILURE;
    std::string out = json ? "[" : "";
    for (uint16_t i = 0; i < sources->count; ++i) {
        obx_source_t* source = sources->sources[i];
        snprintf(source->source_tag, sizeof(source->source_tag), "%s", tag);
        if (json) {
            out += i ? ",\n  {\"source_id\": " : "\n  {\"source_id\": ";
            obx_json_append_string(out, source->source_id, std::string(source->source_id).size());
            out += ", \"source_tag\": ";
            obx_json_append_string(out, source->source_tag, std::string(source->source_tag).size());
            out += "}";
        } else {
            out += source->source_id;
            if (*tag) out += std::string(":") + tag;
            out += "\n";
        }
    }
    if (json) out += sources->count ? "\n]\n" : "]\n";
    std::fputs(out.c_str(), stdout);
    obx_source_array_destroy(sources);
    return OBX_EXIT_OK;
}

const obx_command_t obx_command_sources = {
    "sources",
    "list the sources of a source specification",
    "Usage: obx sources [--tag TAG] [--json] SPEC\n"
    "\n"
    "Lists the sources that SPEC stands for, one id a line (id:tag with a tag).\n"
    "SPEC is one of:\n"
    "  n            the local id with _1 .. _n\n"
    "  a-b          the local id with _a .. _b\n"
    "  name[a-b]    name_a .. name_b\n"
    "  FILE         a node list (lines with H- or S-: the word in round brackets of\n"
    "               each line), or else one id a line; - reads it from standard input\n"
    "The local id is OBX_SOURCE_ID, or else the host name. Ids keep 63 characters.\n"
    "\n"
    "Options:\n"
    "  -t, --tag TAG   the tag of every source (15 characters at most)\n"
    "  -j, --json      print a JSON array of {\"source_id\", \"source_tag\"}\n"
    "  -h, --help      print this text\n",
    run_sources,
};
