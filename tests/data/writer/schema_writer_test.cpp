#include "data/writer/schema_writer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fixtures/counters_schema_builder.h"
#include "fixtures/data_file_builder.h"
#include "fixtures/error_text.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"
#include "utils/logger.h"

using Texts = std::vector<std::string>;
using Files = std::map<std::string, std::string>;  // file name and bytes

namespace {

// MD5 by OpenSSL itself, apart from the library's digest code.
std::string md5_hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr), 1);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) std::snprintf(pair, sizeof(pair), "%02x", digest[i]), hex += pair;
    return hex;
}

// A schema file as the writer must lay it down: named by the MD5 of its pretty text.
Files::value_type file_of(const std::string& pretty) { return {"schema_" + md5_hex(pretty) + ".json", pretty}; }

Files files_in(const std::string& folder) {
    Files files;
    if (!std::filesystem::is_directory(folder)) return files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        files[entry.path().filename().string()] = obx_test::read_file_bytes(entry.path().string());
    return files;
}

// Unchanged for the whole process: the setting is read once, and these tests leave it off.
struct NoEmptyCountersSetting {
    NoEmptyCountersSetting() { unsetenv("OBX_ALLOW_EMPTY_COUNTER_SCHEMA"), unsetenv("ALLOW_EMPTY_COUNTER_SCHEMA"); }
};

const obx_test::EventSchemaDoc kEventA = obx_test::EventSchemaDoc("prov_a").type("sample", {{"x", "uint8_t"}, {"path", "uint64_t"}});
const obx_test::EventSchemaDoc kEventB = obx_test::EventSchemaDoc("prov/b", "2.1.0").type("job", {{"id", "uint32_t"}});

obx_test::CountersSchemaDoc counters(bool with_group) {
    obx_test::CountersSchemaDoc doc;
    if (with_group) doc.group("PORT", 2).counter("rx_bytes").counter("tx_bytes");
    return doc;
}

std::string type_system(const std::string& version, const std::string& counters_text, const std::vector<std::string>& schemas) {
    std::string text = "{\"name\": \"Ombrix type system\", \"version\": \"" + version + "\"";
    if (!counters_text.empty()) text += ", \"counters_schema\": " + counters_text;
    text += ", \"schemas\": [";
    for (size_t i = 0; i < schemas.size(); ++i) text += (i ? ", " : "") + schemas[i];
    return text + "]}";
}

}  // namespace

TEST(SchemaWriter, WritesWhatAValueHoldsAndRefusesWhatIsNoSchema) {
    NoEmptyCountersSetting setting;
    obx_test::SlashEscaping plain_slashes(false);
    const std::string a = kEventA.pretty(), b = kEventB.pretty(), full = counters(true).text(), empty = counters(false).text();
    const std::string not_recognized = "[schema writer] schema was not recognized neither as type system nor as counters schema";
    const std::string too_old = " is incompatible with the serializer, the minimal supported version is 1.4.0";
    const struct { std::string name, text; Files files; std::string error; Texts infos; } rows[] = {
        {"event schema", a, {file_of(a)}, "", {"obx::SchemaWriter::onSchema() identified single event schema."}},
        {"event schema whatever else it holds", "{\"provider_version\": \"0\", \"version\": \"0.1\"}",
         {file_of("{\n    \"provider_version\": \"0\",\n    \"version\": \"0.1\"\n}")}, "",
         {"obx::SchemaWriter::onSchema() identified single event schema."}},
        {"type system", type_system("1.5.0", full, {a, b}), {file_of(full), file_of(a), file_of(b)}, "", {}},
        {"type system, empty counters", type_system("1.4.0", empty, {a, b}), {file_of(a), file_of(b)}, "",
         {"[schema writer] Skipping empty counters_schema."}},
        {"type system of version 2", type_system("2.0.0", "", {b, b}), {file_of(b)}, "", {}},  // the same file twice
        {"type system of no schemas", type_system("1.4", "", {}), {}, "", {}},
        {"bare counters schema", full, {file_of(full)}, "", {}},
        {"bare counters schema without groups", empty, {}, not_recognized, {}},
        {"neither", "{\"version\": \"1.5.0\", \"schemas\": 3}", {}, not_recognized, {}},
        {"too old", type_system("1.3.9", full, {a}), {}, "[schema writer] schema version 1.3.9" + too_old, {}},
        {"major 0", type_system("0.9.0", full, {a}), {}, "[schema writer] schema version 0.9.0" + too_old, {}},
        {"one number", type_system("1", full, {a}), {}, "[schema writer] schema version 1" + too_old, {}},
        {"no version", "{\"schemas\": []}", {}, "[schema writer] missing Ombrix schema version", {}},
        {"version no string", "{\"version\": 1.5}", {}, "[schema writer] missing Ombrix schema version", {}},
        {"an array", "[1, 2]", {}, "[schema writer] missing Ombrix schema version", {}},
        {"counters no object", "{\"version\": \"1.5.0\", \"counters_schema\": \"x\"}", {},
         "[schema writer] counters_schema is not a JSON object", {}},
    };
    for (const auto& row : rows) {
        obx_test::TempDir dir;
        obx::SchemaWriter writer;
        writer.data_path = dir.path();
        const obx_test::JsonPtr value = obx_test::json_parse(row.text);
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        EXPECT_EQ(obx_test::error_text([&] { writer.onSchema(value.get()); }), row.error) << row.name;
        EXPECT_EQ(capture.at(OBX_LOG_ERROR), row.error.empty() ? Texts{} : Texts{row.error}) << row.name;  // logged before thrown
        EXPECT_EQ(capture.at(OBX_LOG_INFO), row.infos) << row.name;
        EXPECT_EQ(files_in(dir.file("schema")), row.files) << row.name;
        EXPECT_TRUE(writer.ok) << row.name;
        EXPECT_EQ(obx_schema_writer_on_schema(&writer, value.get()), row.error.empty()) << row.name;
    }
}

TEST(SchemaWriter, TextThatDoesNotParseIsAWarning) {
    obx_test::TempDir dir;
    obx::SchemaWriter writer;
    writer.data_path = dir.path();
    for (const char* text : {"{\"provider_version\": ", "", static_cast<const char*>(nullptr)}) {
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        EXPECT_EQ(obx_test::error_text([&] { writer.onSchema(text); }), "");
        EXPECT_EQ(capture.at(OBX_LOG_WARNING), Texts{"[schema writer] Failed to deserialize schema JSON"});
    }
    obx_test::SlashEscaping plain_slashes(false);
    writer.onSchema(kEventB.pretty().c_str());
    EXPECT_EQ(files_in(dir.file("schema")), Files{file_of(kEventB.pretty())});
}

TEST(SchemaWriter, FilePathsFollowTheSchemaOrTheDataPath) {
    obx_test::TempDir dir;
    const std::string here = std::filesystem::current_path().string();
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    const std::string cwd = std::filesystem::current_path().string();
    const std::string id = "0123456789abcdef0123456789abcdef";
    obx::SchemaWriter writer;
    EXPECT_EQ(writer.schemaFilePath(id), cwd + "/./schema/schema_" + id + ".json");
    writer.data_path = "d";
    EXPECT_EQ(writer.schemaFilePath(id), cwd + "/d/schema/schema_" + id + ".json");
    writer.schema_path = "x";  // no "schema" folder appended
    EXPECT_EQ(writer.schemaFilePath(id), cwd + "/x/schema_" + id + ".json");
    writer.schema_path = "/abs/s";
    EXPECT_EQ(writer.schemaFilePath("{{id}}"), "/abs/s/schema_{{id}}.json");

    obx_test::SlashEscaping plain_slashes(false);
    writer.schema_path = "x/y";  // made with its parents
    writer.onSchema(kEventA.pretty().c_str());
    EXPECT_EQ(files_in(dir.file("x/y")), Files{file_of(kEventA.pretty())});
    ASSERT_EQ(chdir(here.c_str()), 0);
}

// Only the first failure in a row is told; a success makes the next one worth telling.
TEST(SchemaWriter, FileSystemTroubleIsAWarningOncePerRow) {
    obx_test::TempDir dir;
    obx_test::SlashEscaping plain_slashes(false);
    std::ofstream(dir.file("plain")) << "a file";
    const std::string a = kEventA.pretty(), b = kEventB.pretty();
    const std::string a_name = file_of(a).first, b_name = file_of(b).first;
    std::filesystem::create_directories(dir.file("good/" + b_name));  // a folder where the file should go

    obx::SchemaWriter writer;
    obx_test::LogCapture capture(OBX_LOG_DEBUG);
    writer.schema_path = dir.file("plain");
    writer.onSchema(a.c_str());
    EXPECT_FALSE(writer.ok);
    EXPECT_EQ(capture.at(OBX_LOG_WARNING), Texts{"[data] Failed to create schema file '" + dir.file("plain/" + a_name) +
                                                 "': Inaccessible data path " + dir.file("plain")});
    writer.schema_path = dir.file("plain/below");  // the parent cannot be made
    writer.onSchema(a.c_str());
    EXPECT_EQ(capture.at(OBX_LOG_WARNING).size(), 1u);
    EXPECT_FALSE(writer.ok);

    writer.schema_path = dir.file("good");
    writer.onSchema(a.c_str());
    EXPECT_TRUE(writer.ok);
    EXPECT_EQ(writer.files_written, 1u);
    capture.clear();
    writer.onSchema(b.c_str());
    EXPECT_FALSE(writer.ok);
    const Texts warnings = capture.at(OBX_LOG_WARNING);
    ASSERT_EQ(warnings.size(), 1u);
    const std::string start = "[data] Failed writing schema file '" + dir.file("good/" + b_name) + "': ";
    EXPECT_EQ(warnings[0].substr(0, start.size()), start);
    EXPECT_GT(warnings[0].size(), start.size());
    writer.onSchema(b.c_str());
    EXPECT_EQ(capture.at(OBX_LOG_WARNING).size(), 1u);
    EXPECT_EQ(writer.files_written, 1u);
}

TEST(SchemaWriter, PlainFunctions) {
    obx_schema_writer_t* writer = obx_schema_writer_create();
    ASSERT_NE(writer, nullptr);
    EXPECT_TRUE(writer->ok);
    EXPECT_EQ(writer->data_path, ".");
    EXPECT_EQ(writer->schema_path, "");
    EXPECT_TRUE(obx_schema_writer_set_schema_path(writer, "s") && obx_schema_writer_set_data_path(writer, "d"));
    EXPECT_EQ(writer->schema_path + writer->data_path, "sd");
    EXPECT_FALSE(obx_schema_writer_set_schema_path(writer, nullptr) || obx_schema_writer_set_data_path(nullptr, "d"));
    {
        obx_test::LogCapture capture(OBX_LOG_DEBUG);
        const obx_test::JsonPtr array = obx_test::json_parse("[]");
        EXPECT_FALSE(obx_schema_writer_on_schema(writer, array.get()));
        EXPECT_FALSE(obx_schema_writer_on_schema(nullptr, array.get()));
    }
    obx_schema_writer_destroy(writer);
    obx_schema_writer_destroy(nullptr);
}

// The folder the writer makes is one obx_read reads from.
TEST(SchemaWriter, ObxReadLoadsTheFolderItWrites) {
    obx_test::TempDir dir;
    obx_test::SlashEscaping plain_slashes(false);
    obx::SchemaWriter writer;
    writer.data_path = dir.path();
    writer.onSchema(type_system("1.5.0", "", {kEventA.pretty()}).c_str());
    ASSERT_EQ(writer.files_written, 1u);

    obx_test::FileHeaderFields header;
    header.event_schema_ids = {md5_hex(kEventA.pretty())};
    const obx_test::Bytes events = {7, 1, 0, 0, 0, 0, 0, 0, 0, 9, 2, 0, 0, 0, 0, 0, 0, 0};  // two records of 9 bytes
    const obx_test::Bytes file = obx_test::data_file(header, {obx_test::chunk(obx_test::event_block(0, 0, 2, events), 4096)});
    std::ofstream(dir.file("data.bin"), std::ios::binary).write(reinterpret_cast<const char*>(file.data()), file.size());
    const auto result = obx_test::run_obx_read({"-f", "ndjson", dir.file("data.bin")});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "{\"x\":7,\"path\":1}\n{\"x\":9,\"path\":2}\n");
}
