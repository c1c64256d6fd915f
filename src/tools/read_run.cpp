#include "tools/read_run.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "data/reader/reader_context.h"
#include "tools/file_sort.h"
#include "tools/read_options.h"
#include "utils/env.h"
#include "utils/json.h"
#include "utils/logger.h"
#include "utils/string_array.h"

static void free_entries(obx_file_entry_t* entries, size_t count)
{
    for (size_t i = 0; i < count; ++i) free(entries[i].path);
    free(entries);
}

// Reads every header first; a file whose header cannot be read stops the whole run
// before any file is processed, and the result is false.
static bool run_sorted(obx_read_options_t* options, int* failed)
{
    const size_t count = options->data_files->count;
    obx_file_entry_t* entries = static_cast<obx_file_entry_t*>(calloc(count ? count : 1, sizeof(obx_file_entry_t)));
    if (!entries) {
        OBX_LOG_ERR("Failed to allocate memory for file entries");
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        const char* path = options->data_files->strings[i];
        obx_data_file_header_t header;
        if (!obx_read_file_header(path, options, &header)) {
            OBX_LOG_ERR("Failed to read file header: %s", path);
            free_entries(entries, i);
            return false;
        }
        obx_file_entry_t& entry = entries[i];
        // The header fields need not hold a NUL: keep at most the first 63 / 15 bytes.
        std::memcpy(entry.source_id, header.source_id, sizeof(entry.source_id) - 1);
        entry.source_id[sizeof(entry.source_id) - 1] = '\0';
        std::memcpy(entry.source_tag, header.source_tag, sizeof(entry.source_tag) - 1);
        entry.source_tag[sizeof(entry.source_tag) - 1] = '\0';
        entry.first_timestamp = header.first_timestamp;
        entry.path = strdup(path);
        if (!entry.path) {
            OBX_LOG_ERR("Failed to allocate memory for file entries");
            free_entries(entries, i);
            return false;
        }
    }

    obx_sort_spec_t order;
    obx_sort_spec_choose(options->sort_order, &order);
    obx_file_entries_sort(entries, count, &order);

    for (size_t i = 0; i < count; ++i) {
        if (std::ferror(stdout)) break;  // output is lost: reading on would only pretend
        if (!obx_reader_process_file(entries[i].path, options, i == 0)) ++*failed;
        free(entries[i].path);
        entries[i].path = nullptr;
    }
    free(entries);
    return true;
}

int obx_read_run(obx_read_options_t* options)
{
    const bool json = options->format == OBX_OUTPUT_FORMAT_JSON;
    if (json) std::fputc('{', stdout);

    int failed = 0;
    if (options->sort_files) {
        // The document stays open when the run stops before its first file.
        if (!run_sorted(options, &failed)) return 1;
    } else {
        for (uint64_t i = 0; i < options->data_files->count && !std::ferror(stdout); ++i)
            if (!obx_reader_process_file(options->data_files->strings[i], options, i == 0)) ++failed;
    }

    if (json) std::fputc('}', stdout);
    return failed;
}

int obx_read_main(int argc, char** argv)
{
    if (!obx_env_value_is_true(obx_getenv("DONT_SET_LOCALE")) && !std::setlocale(LC_ALL, "C"))
        OBX_LOG_ERR("Unable to set locale '%s'", "C");

    obx_read_options_t options;
    std::memset(&options, 0, sizeof(options));
    const obx_read_parse_result_t parsed = obx_read_options_parse_command_line(&options, argc, argv);
    if (parsed != OBX_READ_PARSE_OK) {
        if (parsed == OBX_READ_PARSE_FAILED) obx_read_print_usage();
        obx_read_options_release(&options);
        std::fflush(stdout);
        return parsed == OBX_READ_PARSE_EXIT ? 0 : 1;
    }

    // A closed pipe then shows as a failed write, reported, rather than a silent end.
    std::signal(SIGPIPE, SIG_IGN);
    obx_init_stderr_logger(options.verbosity);
    if (options.data_files->count == 0) std::fputs("No input files specified\n", stderr);
    obx_string_array_log(OBX_LOG_DEBUG, options.data_files, "data file");
    obx_json_set_escape_slashes(0);

    const int failed = obx_read_run(&options);
    int status = 0;
    if (failed > 0) {
        std::fprintf(stderr, "Failed to read %d of %zu files\n", failed, static_cast<size_t>(options.data_files->count));
        status = 1;
    }
    // Output that never arrived is a failure of the run, said once, whatever was read.
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "Failed writing standard output: %s\n", errno ? std::strerror(errno) : "write error");
        status = 1;
    }
    obx_read_options_release(&options);
    return status;
}
