#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "fixtures/counters_schema_builder.h"
#include "fixtures/json_value.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"

using obx_test::run_obx;

namespace {

std::set<std::string> names_in(const std::string& folder) {
    std::set<std::string> names;
    if (std::filesystem::is_directory(folder))
        for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

std::string name_of(const std::string& pretty) {
    obx_test::SchemaFolder folder;
    return "schema_" + obx_test::SchemaFolder::hex(folder.add_text(pretty)) + ".json";
}

}  // namespace

// The empty counters schema setting is read once per process, so each case is a process.
TEST(ObxSchema, EmptyCountersSchemasFollowTheSettingUnderBothNames) {
    obx_test::SlashEscaping plain_slashes(false);
    const std::string a = obx_test::EventSchemaDoc("a").type("t", {{"v", "uint32_t"}}).pretty();
    const std::string b = obx_test::EventSchemaDoc("b").type("u", {{"w", "double"}}).pretty();
    const std::string empty = obx_test::CountersSchemaDoc().text();
    const std::string system = "{\"version\": \"1.5.0\", \"counters_schema\": " + empty + ", \"schemas\": [" + a + ", " + b + "]}";
    const std::set<std::string> two = {name_of(a), name_of(b)}, three = {name_of(a), name_of(b), name_of(empty)};
    const std::string conflict =
        "[obx_getenv] Environment variables conflict - OBX_ALLOW_EMPTY_COUNTER_SCHEMA=no and ALLOW_EMPTY_COUNTER_SCHEMA=yes. "
        "Using OBX_ALLOW_EMPTY_COUNTER_SCHEMA";
    const struct { std::vector<std::string> environment; std::set<std::string> files; std::string line; } rows[] = {
        {{}, two, "[obx_getenv] No value for 'OBX_ALLOW_EMPTY_COUNTER_SCHEMA' or 'ALLOW_EMPTY_COUNTER_SCHEMA'"},
        {{"OBX_ALLOW_EMPTY_COUNTER_SCHEMA=yes"}, three, "[obx_getenv] Using 'OBX_ALLOW_EMPTY_COUNTER_SCHEMA'='yes'"},
        {{"ALLOW_EMPTY_COUNTER_SCHEMA=True"}, three, "[obx_getenv] Using 'ALLOW_EMPTY_COUNTER_SCHEMA'='True'"},
        {{"OBX_ALLOW_EMPTY_COUNTER_SCHEMA=no", "ALLOW_EMPTY_COUNTER_SCHEMA=yes"}, two, conflict},
        {{"OBX_ALLOW_EMPTY_COUNTER_SCHEMA=0"}, two, "[obx_getenv] Using 'OBX_ALLOW_EMPTY_COUNTER_SCHEMA'='0'"},
    };
    for (const auto& row : rows) {
        obx_test::TempDir dir;
        obx_test::ProcessOptions options;
        options.environment = row.environment;
        const auto result = run_obx({"-v", "7", "schema", "-d", dir.path(), "-"}, options, system + "\n");
        EXPECT_EQ(result.exit_status, 0) << result.err;
        EXPECT_EQ(names_in(dir.file("schema")), row.files) << row.line;
        EXPECT_NE(result.err.find(row.line + "\n"), std::string::npos) << result.err;
        EXPECT_EQ(result.out, std::to_string(row.files.size()) + " schema files written to " + dir.file("schema") + "\n");
    }

    // A bare counters schema without groups is refused unless the setting is on.
    obx_test::TempDir dir;
    std::ofstream(dir.file("counters.json")) << empty;
    const auto refused = run_obx({"schema", "-s", dir.file("out"), dir.file("counters.json")});
    EXPECT_EQ(refused.exit_status, 1);
    EXPECT_NE(refused.err.find(dir.file("counters.json") +
                               ": [schema writer] schema was not recognized neither as type system nor as counters schema\n"),
              std::string::npos)
        << refused.err;
    obx_test::ProcessOptions allowed;
    allowed.environment = {"OBX_ALLOW_EMPTY_COUNTER_SCHEMA=y"};
    EXPECT_EQ(run_obx({"schema", "-s", dir.file("out"), dir.file("counters.json")}, allowed).exit_status, 0);
    EXPECT_EQ(names_in(dir.file("out")), std::set<std::string>{name_of(empty)});
}

TEST(ObxSchema, UsageAndFailures) {
    obx_test::TempDir dir;
    std::ofstream(dir.file("broken.json")) << "{\"version\": ";
    std::ofstream(dir.file("plain")) << "x";
    const std::string event = "{\"provider_version\": \"1.0.0\"}";
    std::ofstream(dir.file("event.json")) << event;
    const struct { std::vector<std::string> args; int status; std::string err; } rows[] = {
        {{"schema"}, 2, "obx schema: a JSON file (or - for standard input) is needed\nTry 'obx schema --help'.\n"},
        {{"schema", "-s", "a", "-d", "b", "x"}, 2, "obx schema: --schema-path and --data-path exclude each other\nTry 'obx schema --help'.\n"},
        {{"schema", "-s", dir.file("s"), dir.file("broken.json")}, 1, dir.file("broken.json") + ": not a JSON text\n"},
        {{"schema", "-s", dir.file("s"), dir.file("missing.json")}, 1,
         "Failed to open '" + dir.file("missing.json") + "': No such file or directory\n"},
    };
    for (const auto& row : rows) {
        const auto result = run_obx(row.args);
        EXPECT_EQ(result.exit_status, row.status) << row.args.back();
        EXPECT_EQ(result.err, row.err) << row.args.back();
    }
    // A folder that cannot be made fails the run, after the writer's warning.
    const auto blocked = run_obx({"schema", "-s", dir.file("plain/below"), dir.file("event.json")});
    EXPECT_EQ(blocked.exit_status, 1);
    EXPECT_NE(blocked.err.find("[warning] [data] Failed to create schema file '" + dir.file("plain/below/") +
                              name_of("{\n    \"provider_version\": \"1.0.0\"\n}") + "': "),
              std::string::npos)
        << blocked.err;
}
