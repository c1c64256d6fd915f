#include "tools/obx_command.h"

#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "data/reader/input_files.h"
#include "data/reader/reader_options.h"
#include "utils/env.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/number_parse.h"
#include "utils/version.h"

namespace {

#define OBX_COMMAND_ENTRY(name) &obx_command_##name,
const obx_command_t* const kCommands[] = {OBX_COMMANDS(OBX_COMMAND_ENTRY)};
#undef OBX_COMMAND_ENTRY

const char* const kProgramUsage =
    "Usage: obx [-v level] <command> [options] [arguments]\n"
    "       obx help [command]\n"
    "       obx <command> --help\n"
    "\n"
    "The companion of obx_read: what is done with Ombrix data beyond reading it.\n"
    "\n"
    "Options before the command:\n"
    "  -v, --verbose level   log level 0-7 on stderr (6)\n"
    "  -V, --version         print the version\n"
    "  -h, --help            print this text\n"
    "\n"
    "Commands:\n";

int program_usage_error(const char* format, const char* argument) {
    std::fputs("obx: ", stderr);
    std::fprintf(stderr, format, argument);
    std::fputs("\nRun 'obx help' for the commands.\n", stderr);
    return OBX_EXIT_USAGE;
}

}  // namespace

void obx_print_program_usage(FILE* stream) {
    std::fputs(kProgramUsage, stream);
    for (const obx_command_t* command : kCommands) std::fprintf(stream, "  %-10s %s\n", command->name, command->summary);
    std::fputs("\nExit status: 0 done, 1 failed, 2 usage error.\n", stream);
}

const obx_command_t* const* obx_command_list(size_t* count) {
    *count = sizeof(kCommands) / sizeof(kCommands[0]);
    return kCommands;
}

const obx_command_t* obx_command_find(const char* name) {
    for (const obx_command_t* command : kCommands)
        if (name && std::strcmp(command->name, name) == 0) return command;
    return nullptr;
}

int obx_command_usage_error(const obx_command_t* command, const char* format, ...) {
    std::fprintf(stderr, "obx %s: ", command->name);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "\nTry 'obx %s --help'.\n", command->name);
    return OBX_EXIT_USAGE;
}

int obx_command_option_error(const obx_command_t* command, int code, char* const* argv) {
    // A long option as it was written (without its value), a short one by its letter.
    const std::string given = optind > 0 ? argv[optind - 1] : "";
    std::string option = given.substr(0, given.find('='));
    if (given.compare(0, 2, "--") != 0 && optopt) option = std::string("-") + static_cast<char>(optopt);
    if (code == ':') return obx_command_usage_error(command, "option '%s' needs a value", option.c_str());
    if (optopt && given.compare(0, 2, "--") == 0 && given.find('=') != std::string::npos)
        return obx_command_usage_error(command, "option '%s' takes no value", option.c_str());
    return obx_command_usage_error(command, "unknown option '%s'", option.c_str());
}

int obx_command_print_help(const obx_command_t* command) {
    std::fputs(command->usage, stdout);
    return OBX_EXIT_OK;
}

bool obx_command_parse_u64(const char* text, unsigned long long min, unsigned long long max, unsigned long long* out) {
    unsigned long long value = 0;
    // strtoull takes a minus sign and wraps; a count is never negative.
    if (!text || std::strchr(text, '-') || !obx_str_to_ulonglong(text, &value) || value < min || value > max) return false;
    *out = value;
    return true;
}

obx_command_input_t::obx_command_input_t(const char* argument) {
    if (std::strcmp(argument, "-") != 0) {
        path_ = argument;
        return;
    }
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/obx_stdin_XXXXXX";
    const int fd = mkstemp(&pattern[0]);
    if (fd < 0) {
        std::fprintf(stderr, "Failed to keep standard input in %s: %s\n", pattern.c_str(), std::strerror(errno));
        return;
    }
    char buffer[65536];
    bool ok = true;
    for (;;) {
        const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (got == 0) break;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            std::fprintf(stderr, "Failed to read standard input: %s\n", std::strerror(errno));
            ok = false;
            break;
        }
        for (ssize_t done = 0; ok && done < got;) {
            const ssize_t put = write(fd, buffer + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) {
                std::fprintf(stderr, "Failed to keep standard input in %s: %s\n", pattern.c_str(), std::strerror(errno));
                ok = false;
            }
            done += put > 0 ? put : 0;
        }
        if (!ok) break;
    }
    close(fd);
    if (!ok) {
        unlink(pattern.c_str());
        return;
    }
    path_ = pattern;
    temporary_ = true;
}

obx_command_input_t::~obx_command_input_t() {
    if (temporary_) unlink(path_.c_str());
}

bool obx_command_read_text(const char* argument, std::string* content) {
    const bool standard_input = std::strcmp(argument, "-") == 0;
    FILE* file = standard_input ? stdin : std::fopen(argument, "rb");
    if (!file) {
        std::fprintf(stderr, "Failed to open '%s': %s\n", argument, std::strerror(errno));
        return false;
    }
    content->clear();
    char buffer[65536];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file)) > 0) content->append(buffer, got);
    const bool failed = std::ferror(file) != 0;
    if (failed) std::fprintf(stderr, "Failed to read '%s': %s\n", argument, std::strerror(errno));
    if (!standard_input) std::fclose(file);
    return !failed;
}

bool obx_command_collect_inputs(obx_string_array_t** files, int count, char* const* arguments, const char* data_dir) {
    for (int i = 0; i < count; ++i) {
        // "-" is standard input, read through its own path (obx_read itself takes "-" as a name).
        const char* path = std::strcmp(arguments[i], "-") == 0 ? "/dev/stdin" : arguments[i];
        if (!obx_string_array_append(files, path)) {
            std::fprintf(stderr, "Failed appending '%s' to the list of inputs: %s\n", arguments[i], std::strerror(errno));
            return false;
        }
    }
    return !data_dir || obx_read_collect_directory(files, data_dir);
}

char* obx_command_schema_folder(const char* given, const obx_string_array_t* files) {
    const char* folder = given ? given : OBX_READ_SCHEMA_FOLDER;
    if (access(folder, F_OK) == 0 || !files || files->count == 0) return strdup(folder);
    const char* first_input = files->strings[0];
    char* found = obx_read_find_folder_upwards(first_input, OBX_READ_SCHEMA_FOLDER, OBX_READ_SCHEMA_SEARCH_LEVELS);
    if (!found)
        std::fprintf(stderr, "Schema folder not found within %d levels of %s\n", OBX_READ_SCHEMA_SEARCH_LEVELS, first_input);
    return found;
}

int obx_main(int argc, char** argv) {
    if (!obx_env_value_is_true(obx_getenv("DONT_SET_LOCALE")) && !std::setlocale(LC_ALL, "C"))
        OBX_LOG_ERR("Unable to set locale '%s'", "C");
    // Schema ids are digests of the printed text: print it as obx_read does.
    obx_json_set_escape_slashes(0);

    unsigned long long level = OBX_READ_DEFAULT_VERBOSITY;
    int first = 1;
    for (; first < argc && argv[first][0] == '-'; ++first) {
        const char* option = argv[first];
        if (!std::strcmp(option, "-h") || !std::strcmp(option, "--help")) {
            obx_print_program_usage(stdout);
            return OBX_EXIT_OK;
        }
        if (!std::strcmp(option, "-V") || !std::strcmp(option, "--version")) {
            std::printf("obx, Ombrix data companion %s\n", obx_version_get_string());
            return OBX_EXIT_OK;
        }
        if (!std::strcmp(option, "-v") || !std::strcmp(option, "--verbose")) {
            if (first + 1 >= argc) return program_usage_error("option '%s' needs a level", option);
            if (!obx_command_parse_u64(argv[++first], 0, OBX_READ_MAX_VERBOSITY, &level))
                return program_usage_error("log level '%s' is not one of 0-7", argv[first]);
            continue;
        }
        return program_usage_error("unknown option '%s'", option);
    }
    if (first >= argc) {
        obx_print_program_usage(stderr);
        return OBX_EXIT_USAGE;
    }
    const obx_command_t* command = obx_command_find(argv[first]);
    if (!command) return program_usage_error("unknown command '%s'", argv[first]);

    obx_init_stderr_logger(static_cast<uint32_t>(level));
    optind = 0;  // a full reset of getopt, also for a second run in one process
    opterr = 0;
    const int status = command->run(argc - first, argv + first);
    std::fflush(stdout);
    return status;
}

bool obx_command_reader_options(obx_read_options_t* options, int count, char* const* arguments, const char* data_dir,
                                const char* schema_path) {
    std::memset(options, 0, sizeof *options);
    if (!obx_read_options_init(options)) return false;
    if (!obx_command_collect_inputs(&options->data_files, count, arguments, data_dir)) return false;
    char* folder = obx_command_schema_folder(schema_path, options->data_files);
    std::free(options->schema_path);
    options->schema_path = folder ? folder : strdup(schema_path ? schema_path : OBX_READ_SCHEMA_FOLDER);
    options->format = OBX_OUTPUT_FORMAT_NDJSON;
    return options->schema_path != nullptr;
}
