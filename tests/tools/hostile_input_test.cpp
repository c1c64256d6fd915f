// Inputs that must not make obx_read run without end or lose output silently: schema
// files that are not regular or too big, a counters schema of countless sets, and a
// standard output that cannot be written.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "counters/counter_group/counters_schema.h"
#include "fixtures/counters_schema_builder.h"
#include "fixtures/log_capture.h"
#include "fixtures/run_process.h"
#include "fixtures/schema_builder.h"
#include "fixtures/temp_dir.h"
#include "utils/json.h"
#include "utils/logger.h"

using namespace obx_test;

namespace {

TEST(HostileInput, SchemaFilesAreReadOnlyWhenRegularAndBounded) {
    TempDir dir;
    const std::string fifo = dir.file("fifo"), zero = dir.file("zero"), big = dir.file("big"), ok = dir.file("ok");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/zero", zero.c_str()), 0);
    FILE* file = std::fopen(big.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    ASSERT_EQ(truncate(big.c_str(), OBX_JSON_MAX_FILE_SIZE + 1), 0);  // sparse: costs no disk
    file = std::fopen(ok.c_str(), "w");
    std::fputs("{\"a\": 1}", file);
    std::fclose(file);
    const struct {
        std::string path;
        int error;
    } cases[] = {{fifo, EINVAL}, {zero, EINVAL}, {big, EFBIG}, {dir.path(), EISDIR}, {dir.file("none"), ENOENT}};
    for (const auto& c : cases) {
        errno = 0;
        EXPECT_EQ(obx_json_parse_file(c.path.c_str()), nullptr) << c.path;
        EXPECT_EQ(errno, c.error) << c.path;
    }
    json_t* value = obx_json_parse_file(ok.c_str());
    EXPECT_NE(value, nullptr);
    json_decref(value);
}

TEST(HostileInput, CountlessCounterSetsAreRefusedNamingTheFile) {
    SchemaFolder folder;
    for (const double sets : {65536.0, 65537.0, 4294967295.0}) {
        CountersSchemaDoc doc;
        doc.group("CPU", sets, std::string("cpu")).counter("user", "UINT64");
        const std::string path = folder.file_of(folder.add(doc.json().get()));
        LogCapture log;
        obx_counters_schema_t* schema = obx_counters_schema_from_file(path.c_str());
        if (sets <= 65536.0) {
            EXPECT_NE(schema, nullptr);
            EXPECT_TRUE(log.at(OBX_LOG_ERROR).empty()) << log.all();
        } else {
            EXPECT_EQ(schema, nullptr);
            EXPECT_EQ(log.at(OBX_LOG_ERROR), std::vector<std::string>{"Counters schema '" + path + "': group 0 has " +
                                                                      std::to_string(static_cast<uint64_t>(sets)) +
                                                                      " counter sets, more than the 65536 this reader takes"});
        }
        obx_counters_schema_destroy(schema);
    }
}

TEST(HostileInput, UnwritableStandardOutputFailsTheRun) {
    const std::string reader = OBX_READ_BINARY;
    const std::string examples = std::string(OBX_TEST_DATA_DIR) + "/../../examples";
    const ProcessResult r = run_program(
        "/bin/sh", {"-c", "exec \"$0\" -s \"$1/schema\" -f ndjson \"$1/data/2023/1114/node_2/events_1700000100000000.bin\" > /dev/full", reader, examples});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "Failed writing standard output: No space left on device\n");
}

}  // namespace
