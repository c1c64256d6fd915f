// The companion command `obx`: one program of subcommands beside obx_read. A subcommand
// is one file src/tools/obx_<name>.cpp defining `obx_command_<name>` and one line in
// obx_commands.h. Exit status: 0 done, 1 failed, 2 usage error (told on stderr).
#pragma once

#include <cstdio>
#include <string>

#include "utils/string_array.h"

struct obx_command_t {
    const char* name;
    const char* summary;  // one line in `obx help`
    const char* usage;    // the whole text of `obx <name> --help`
    // argv[0] is the command's name; getopt is reset before the call.
    int (*run)(int argc, char** argv);
};

#define OBX_EXIT_OK 0
#define OBX_EXIT_FAILURE 1
#define OBX_EXIT_USAGE 2

#define OBX_COMMAND_DECLARE(name) extern const obx_command_t obx_command_##name;
#include "tools/obx_commands.h"
OBX_COMMANDS(OBX_COMMAND_DECLARE)
#undef OBX_COMMAND_DECLARE

// The registered commands in the order of obx_commands.h; `count` receives their number.
const obx_command_t* const* obx_command_list(size_t* count);
// The command of that exact name, or nullptr.
const obx_command_t* obx_command_find(const char* name);

// The whole program, callable in-process.
int obx_main(int argc, char** argv);
// The program's usage with the list of commands.
void obx_print_program_usage(FILE* stream);

// Writes "obx <name>: <message>" and a pointer to --help on stderr; returns OBX_EXIT_USAGE.
int obx_command_usage_error(const obx_command_t* command, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The usage error for what getopt_long returned as '?' or ':' (opterr is 0 and option
// strings start with ':'); returns OBX_EXIT_USAGE.
int obx_command_option_error(const obx_command_t* command, int code, char* const* argv);
// Prints the usage on stdout; returns OBX_EXIT_OK.
int obx_command_print_help(const obx_command_t* command);

// A numeric option: the whole text a number within [min, max].
bool obx_command_parse_u64(const char* text, unsigned long long min, unsigned long long max,
                           unsigned long long* out);

// An input given on the command line: a path as it stands, or "-" for standard input,
// which is copied to a temporary file (removed with this object) so that readers that
// take a path can read it. `path()` is empty after a failure, already told on stderr.
class obx_command_input_t {
public:
    explicit obx_command_input_t(const char* argument);
    ~obx_command_input_t();
    obx_command_input_t(const obx_command_input_t&) = delete;
    obx_command_input_t& operator=(const obx_command_input_t&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
    bool temporary_ = false;
};

// Reads a whole input ("-" is standard input) into `content`; false after a message on stderr.
bool obx_command_read_text(const char* argument, std::string* content);

// The data files of a reading command, as obx_read takes them: the arguments as they stand
// ("-" becomes /dev/stdin), then every file below `data_dir` when given. False after a
// message on stderr.
bool obx_command_collect_inputs(obx_string_array_t** files, int count, char* const* arguments, const char* data_dir);
// The schema folder, found as obx_read finds it: `given` (or "schema") when it exists, else a
// "schema" folder next to or above the first input. New text, or nullptr after a message.
char* obx_command_schema_folder(const char* given, const obx_string_array_t* files);

struct obx_read_options_t;
// Reader options for a command that reads data files: defaults, the inputs of
// obx_command_collect_inputs, the schema folder (the given one, or "schema", when none is
// found: the files are still read and tell what is missing) and format ndjson. False after
// a message on stderr; `options` is then to be released all the same.
bool obx_command_reader_options(obx_read_options_t* options, int count, char* const* arguments, const char* data_dir,
                                const char* schema_path);
