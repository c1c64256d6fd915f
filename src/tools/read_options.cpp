#include "tools/read_options.h"

#include <dirent.h>
#include <getopt.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "data/reader/input_files.h"
#include "tools/build_info.h"
#include "utils/logger.h"
#include "utils/number_parse.h"
#include "utils/version.h"

void obx_read_print_usage(void)
{
    obx_read_options_t defaults;
    std::memset(&defaults, 0, sizeof(defaults));
    if (!obx_read_options_init(&defaults)) {
        OBX_LOG_ERR("Failed to initialize options default values");
        obx_read_options_release(&defaults);
        return;
    }
    const char* format_name = obx_output_format_to_string(static_cast<int32_t>(defaults.format));
    std::printf("\nOmbrix export collected binary data as text or JSON.\n");
    std::printf("Usage: obx_read --schema-path ./schema data1.bin [data2.bin...]\n");
    std::printf("General options:\n");
    std::printf("  -h, --help                        Print this message.\n");
    std::printf("  -V, --version                     Print Ombix version number.\n");
    std::printf("  -v, --verbose level               Level of verbosity 0-7 (%d).\n",
                static_cast<int>(defaults.verbosity));
    std::printf("  -p, --print-headers               Print data headers (%s).\n",
                defaults.print_headers ? "true" : "false");
    std::printf("\nInput options:\n");
    std::printf("  -s, --schema-path dir             Path to the schema files (%s).\n", defaults.schema_path);
    std::printf("\nFiltering options:\n");
    std::printf("  -g, --timestamp-gt value          Take data with timestamp greater than value.\n");
    std::printf("  -l, --timestamp-lt value          Take data with timestamp less than value.\n");
    std::printf("  -i, --include-counters pattern    Take counters that match pattern.\n");
    std::printf("  -e, --exclude-counters pattern    Do not take counters that match pattern.\n");
    std::printf("  -o, --output-dir dir              Specifies location for .bin files output (%s)\n",
                defaults.output_dir);
    std::printf("\nOutput format:\n");
    std::printf("  -f, --format [json|ndjson|txt|csv|influx|bin] Output format (%s).\n",
                format_name ? format_name : "");
    std::printf("\n");
    obx_read_options_release(&defaults);
}

static void replace_text(char** field, const char* text)
{
    char* copy = strdup(text);
    if (!copy) return;  // the old value stays
    free(*field);
    *field = copy;
}

static bool append_pattern(obx_string_array_t** list, const char* pattern)
{
    if (obx_string_array_append(list, pattern)) return true;
    std::fprintf(stderr, "Failed appending '%s' to the list of counters: %s", pattern, std::strerror(errno));
    return false;
}

static bool parse_timestamp(const char* text, uint64_t* out)
{
    unsigned long long value = 0;
    if (!obx_str_to_ulonglong(text, &value)) {
        std::fprintf(stderr, "Timestamp must be a number, %s is given.", text);
        return false;
    }
    *out = value;
    return true;
}

obx_read_parse_result_t obx_read_options_parse_command_line(obx_read_options_t* options, int argc, char** argv)
{
    if (!obx_read_options_init(options)) {
        OBX_LOG_ERR("Failed to initialize options default values");
        return OBX_READ_PARSE_FAILED;
    }

    static const struct option long_options[] = {
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {"verbose", required_argument, nullptr, 'v'},
        {"schema-path", required_argument, nullptr, 's'},
        {"output-dir", required_argument, nullptr, 'o'},
        {"timestamp-gt", required_argument, nullptr, 'g'},
        {"timestamp-lt", required_argument, nullptr, 'l'},
        {"include-counters", required_argument, nullptr, 'i'},
        {"exclude-counters", required_argument, nullptr, 'e'},
        {"format", required_argument, nullptr, 'f'},
        {"print-page-info", no_argument, nullptr, 'p'},
        {"data-dir", required_argument, nullptr, 'd'},
        {"sort-files", optional_argument, nullptr, 'S'},
        {nullptr, 0, nullptr, 0},
    };

    // 0 rather than 1 makes getopt start over, so the parser may run more than once.
    optind = 0;
    int option;
    while ((option = getopt_long(argc, argv, "hVv:s:g:l:i:e:f:pd:S::", long_options, nullptr)) != -1) {
        switch (option) {
            case 'h':
                obx_read_print_usage();
                return OBX_READ_PARSE_EXIT;
            case 'V':
                std::printf("Ombrix binary data reader %s\n", obx_version_get_string());
                std::printf("Ombrix build info: %s\n", obx_build_info());
                return OBX_READ_PARSE_EXIT;
            case 'v': {
                long level = 0;
                if (!obx_str_to_long(optarg, &level) || level < 0 || level > OBX_READ_MAX_VERBOSITY) {
                    std::fprintf(stderr, "Verbosity level is a number between 0 and %d, %s is given.",
                                 OBX_READ_MAX_VERBOSITY, optarg);
                    return OBX_READ_PARSE_FAILED;
                }
                options->verbosity = static_cast<uint32_t>(level);
                break;
            }
            case 's':
                replace_text(&options->schema_path, optarg);
                break;
            case 'o':
                replace_text(&options->output_dir, optarg);
                break;
            case 'g':
                if (!parse_timestamp(optarg, &options->timestamp_gt)) return OBX_READ_PARSE_FAILED;
                break;
            case 'l':
                if (!parse_timestamp(optarg, &options->timestamp_lt)) return OBX_READ_PARSE_FAILED;
                break;
            case 'i':
                if (!append_pattern(&options->include_counters, optarg)) return OBX_READ_PARSE_FAILED;
                break;
            case 'e':
                if (!append_pattern(&options->exclude_counters, optarg)) return OBX_READ_PARSE_FAILED;
                break;
            case 'f': {
                const int32_t format = obx_output_format_from_string(optarg);
                if (format < 0) {
                    std::fprintf(stderr, "Unsupported output format %s", optarg);
                    return OBX_READ_PARSE_FAILED;
                }
                options->format = static_cast<obx_output_format_t>(format);
                break;
            }
            case 'p':
                options->print_headers = true;
                break;
            case 'd':
                replace_text(&options->data_dir, optarg);
                break;
            case 'S':
                options->sort_files = true;
                free(options->sort_order);
                options->sort_order = (optarg && optarg[0] != '\0') ? strdup(optarg) : nullptr;
                break;
            default:
                // getopt_long has already said what was wrong; parsing goes on.
                break;
        }
    }

    for (int i = optind; i < argc; ++i) {
        if (!obx_string_array_append(&options->data_files, argv[i])) {
            std::fprintf(stderr, "Failed appending '%s' to the list of counters: %s", argv[i], std::strerror(errno));
            return OBX_READ_PARSE_FAILED;
        }
    }
    if (options->data_dir && !obx_read_collect_directory(&options->data_files, options->data_dir)) return OBX_READ_PARSE_FAILED;

    if (options->include_counters->count == 0 && !obx_string_array_append(&options->include_counters, "*")) {
        std::fprintf(stderr, "Failed setting default list of type names: %s", std::strerror(errno));
        return OBX_READ_PARSE_FAILED;
    }

    if (access(options->schema_path, F_OK) != 0 && options->data_files->count > 0) {
        const char* first_input = options->data_files->strings[0];
        char* found = obx_read_find_folder_upwards(first_input, OBX_READ_SCHEMA_FOLDER, OBX_READ_SCHEMA_SEARCH_LEVELS);
        if (!found) {
            std::fprintf(stderr, "Schema folder not found within %d levels of %s\n", OBX_READ_SCHEMA_SEARCH_LEVELS,
                         first_input);
            return OBX_READ_PARSE_FAILED;
        }
        free(options->schema_path);
        options->schema_path = found;
    }

    if (options->format == OBX_OUTPUT_FORMAT_BIN && access(options->output_dir, F_OK) != 0) {
        std::fprintf(stderr, "Output folder '%s' does not exits\n", options->output_dir);
        return OBX_READ_PARSE_FAILED;
    }
    return OBX_READ_PARSE_OK;
}

bool obx_read_options_parse(obx_read_options_t* options, int argc, char** argv)
{
    const obx_read_parse_result_t result = obx_read_options_parse_command_line(options, argc, argv);
    if (result == OBX_READ_PARSE_EXIT) {
        std::fflush(stdout);
        std::exit(0);
    }
    return result == OBX_READ_PARSE_OK;
}
