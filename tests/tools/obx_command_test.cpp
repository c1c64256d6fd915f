#include "tools/obx_command.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fixtures/run_process.h"
#include "fixtures/temp_dir.h"

using obx_test::run_obx;

// How the program answers before any command runs, and the shape every command shares.
TEST(ObxCommand, StatusAndStreamsOfTheProgram) {
    const std::string help_head = "Usage: obx [-v level] <command> [options] [arguments]\n";
    const struct { std::vector<std::string> args; int status; const char* out_start; const char* err; } rows[] = {
        {{}, 2, "", nullptr},  // usage on stderr
        {{"help"}, 0, "Usage: obx [-v level]", ""},
        {{"--help"}, 0, "Usage: obx [-v level]", ""},
        {{"-V"}, 0, "obx, Ombrix data companion 1.22.1\n", ""},
        {{"help", "sources"}, 0, "Usage: obx sources [--tag TAG] [--json] SPEC\n", ""},
        {{"sources", "--help"}, 0, "Usage: obx sources [--tag TAG] [--json] SPEC\n", ""},
        {{"help", "nope"}, 2, "", "obx help: unknown command 'nope'\nTry 'obx help --help'.\n"},
        {{"help", "a", "b"}, 2, "", "obx help: one command at most\nTry 'obx help --help'.\n"},
        {{"nope"}, 2, "", "obx: unknown command 'nope'\nRun 'obx help' for the commands.\n"},
        {{"--nope", "help"}, 2, "", "obx: unknown option '--nope'\nRun 'obx help' for the commands.\n"},
        {{"-v"}, 2, "", "obx: option '-v' needs a level\nRun 'obx help' for the commands.\n"},
        {{"-v", "8", "help"}, 2, "", "obx: log level '8' is not one of 0-7\nRun 'obx help' for the commands.\n"},
        {{"-v", "-1", "help"}, 2, "", "obx: log level '-1' is not one of 0-7\nRun 'obx help' for the commands.\n"},
        {{"sources", "--bogus", "1"}, 2, "", "obx sources: unknown option '--bogus'\nTry 'obx sources --help'.\n"},
        {{"sources", "-x", "1"}, 2, "", "obx sources: unknown option '-x'\nTry 'obx sources --help'.\n"},
        {{"sources", "-t"}, 2, "", "obx sources: option '-t' needs a value\nTry 'obx sources --help'.\n"},
        {{"sources", "--tag"}, 2, "", "obx sources: option '--tag' needs a value\nTry 'obx sources --help'.\n"},
        {{"sources", "--json=yes", "1"}, 2, "", "obx sources: option '--json' takes no value\nTry 'obx sources --help'.\n"},
        {{"sources", "-jx", "1"}, 2, "", "obx sources: unknown option '-x'\nTry 'obx sources --help'.\n"},
    };
    for (const auto& row : rows) {
        const auto result = run_obx(row.args);
        const std::string label = row.args.empty() ? "<none>" : row.args[0];
        EXPECT_EQ(result.exit_status, row.status) << label;
        if (std::string(row.out_start).empty()) {
            EXPECT_EQ(result.out, "") << label;
        } else {
            EXPECT_EQ(result.out.substr(0, std::string(row.out_start).size()), row.out_start) << label;
        }
        if (row.err) EXPECT_EQ(result.err, row.err) << label;
        else EXPECT_EQ(result.err.substr(0, help_head.size()), help_head);
    }
}

TEST(ObxCommand, HelpListsEveryRegisteredCommand) {
    const auto result = run_obx({"help"});
    size_t count = 0;
    const obx_command_t* const* commands = obx_command_list(&count);
    ASSERT_GE(count, 2u);
    for (size_t i = 0; i < count; ++i) {
        const std::string line = "  " + std::string(commands[i]->name) + std::string(11 - std::string(commands[i]->name).size(), ' ') +
                                 commands[i]->summary + "\n";
        EXPECT_NE(result.out.find(line), std::string::npos) << line;
        EXPECT_EQ(obx_command_find(commands[i]->name), commands[i]);
        EXPECT_EQ(std::string(commands[i]->usage).rfind("Usage: obx " + std::string(commands[i]->name), 0), 0u);
    }
    EXPECT_EQ(obx_command_find("hel"), nullptr);
}

TEST(ObxCommand, NumbersOfOptions) {
    const struct { const char* text; unsigned long long min, max; bool ok; unsigned long long value; } rows[] = {
        {"7", 0, 7, true, 7}, {"8", 0, 7, false, 0}, {"0x10", 0, 100, true, 16}, {"-1", 0, ~0ull, false, 0},
        {"", 0, 7, false, 0}, {"3x", 0, 7, false, 0}, {"0", 1, 7, false, 0}, {"18446744073709551616", 0, ~0ull, false, 0},
    };
    for (const auto& row : rows) {
        unsigned long long value = 0;
        EXPECT_EQ(obx_command_parse_u64(row.text, row.min, row.max, &value), row.ok) << row.text;
        EXPECT_EQ(value, row.value) << row.text;
    }
}

// Reading commands take their inputs and find their schema folder as obx_read does.
TEST(ObxCommand, InputsAndSchemaFolder) {
    obx_test::TempDir dir;
    std::filesystem::create_directories(dir.file("schema"));
    std::filesystem::create_directories(dir.file("data/a"));
    std::ofstream(dir.file("data/a/one.bin")) << "x";
    std::string given = dir.file("given.bin");
    char* arguments[] = {&given[0]};
    obx_string_array_t* files = nullptr;
    ASSERT_TRUE(obx_command_collect_inputs(&files, 1, arguments, dir.file("data").c_str()));
    ASSERT_EQ(files->count, 2u);
    EXPECT_EQ(std::string(files->strings[1]), dir.file("data") + "/a/one.bin");

    const struct { std::string given; const char* first; std::string found; } rows[] = {
        {dir.file("data"), "any", dir.file("data")},  // an existing folder is taken as it is
        {dir.file("none"), "data/a/one.bin", dir.file("schema")},  // two levels up
        {dir.file("none"), "", ""},
    };
    for (const auto& row : rows) {
        std::free(files->strings[0]);
        files->strings[0] = strdup((*row.first ? dir.file(row.first) : std::string("/nowhere/x")).c_str());
        char* found = obx_command_schema_folder(row.given.c_str(), files);
        EXPECT_EQ(found ? std::filesystem::weakly_canonical(found).string() : "",
                  row.found.empty() ? "" : std::filesystem::weakly_canonical(row.found).string());
        std::free(found);
    }
    obx_string_array_destroy(files);
    files = nullptr;
    EXPECT_FALSE(obx_command_collect_inputs(&files, 0, nullptr, dir.file("missing").c_str()));
    obx_string_array_destroy(files);
}

// "-" is standard input, kept in a temporary file for as long as the input lives.
TEST(ObxCommand, StandardInputBecomesAFileForReadersOfPaths) {
    const std::string bytes = std::string("OBXF\0\1binary", 12) + std::string(70000, 'z');  // more than one read
    const int saved = dup(STDIN_FILENO);
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    ASSERT_EQ(dup2(pipe_ends[0], STDIN_FILENO), STDIN_FILENO);
    close(pipe_ends[0]);
    const pid_t writer = fork();
    if (writer == 0) {
        const ssize_t put = write(pipe_ends[1], bytes.data(), bytes.size());
        _exit(put == static_cast<ssize_t>(bytes.size()) ? 0 : 1);
    }
    close(pipe_ends[1]);
    std::string kept;
    {
        obx_command_input_t input("-");
        kept = input.path();
        ASSERT_FALSE(kept.empty());
        std::ifstream in(kept, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), bytes);
    }
    EXPECT_FALSE(std::filesystem::exists(kept));
    waitpid(writer, nullptr, 0);
    dup2(saved, STDIN_FILENO);
    close(saved);

    obx_command_input_t named("some/file.bin");
    EXPECT_EQ(named.path(), "some/file.bin");
}
