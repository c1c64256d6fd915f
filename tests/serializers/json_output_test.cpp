#include "serializers/json_output.h"

#include <gtest/gtest.h>

#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "fixtures/memory_stream.h"
#include "utils/logger.h"

using namespace obx_test;

// The framing of good records shows in the metrics and counters outputs; a value without
// text writes nothing, not even a separator.
TEST(JsonOutput, ValueWithoutTextWritesNothing) {
    LogCapture log;
    EXPECT_EQ(written([&](FILE* s) { obx_json_print_record(nullptr, s, false), obx_json_print_line(nullptr, s); }), "");
    EXPECT_EQ(log.at(OBX_LOG_WARNING), std::vector<std::string>(2, "Failed to serialize json."));
}
