#include "utils/time_text.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fresh_process.h"

namespace {

std::string take(char* text) {
    if (!text) return "<null>";
    std::string copy(text);
    std::free(text);
    return copy;
}

}  // namespace

TEST(TimeText, LocalTimeWithMillisecondsCutNotRounded) {
    struct Row {
        uint64_t micros;
        const char* text;
    };
    // Kolkata is 5:30 ahead of UTC, so a UTC rendering is caught as well.
    static const Row rows[] = {
        {0, "1970-01-01 05:30:00.000"},
        {999, "1970-01-01 05:30:00.000"},
        {1500999, "1970-01-01 05:30:01.500"},
        {1999999, "1970-01-01 05:30:01.999"},  // not rounded up into the next second
        {1709280930125000ull, "2024-03-01 13:45:30.125"},
    };
    obx_test::expect_in_fresh_process([]() -> std::string {
        setenv("TZ", "Asia/Kolkata", 1);
        tzset();
        for (const Row& row : rows) {
            const std::string text = take(obx_time_to_string(row.micros));
            if (text != row.text) return std::to_string(row.micros) + " gave " + text + ", expected " + row.text;
            char buffer[32];
            if (!obx_time_to_string_into(row.micros, buffer, sizeof(buffer)) || std::string(buffer) != row.text)
                return std::to_string(row.micros) + " into a buffer differs";
        }
        return "";
    });
}

TEST(TimeText, IntoRefusesABufferThatIsTooSmall) {
    char buffer[32];
    EXPECT_FALSE(obx_time_to_string_into(0, buffer, 23));  // 23 characters need 24 bytes
    EXPECT_TRUE(obx_time_to_string_into(0, buffer, 24));
    EXPECT_EQ(std::string(buffer).size(), 23u);
    EXPECT_FALSE(obx_time_to_string_into(0, nullptr, 32));
    EXPECT_FALSE(obx_time_to_string_into(0, buffer, 0));
}

TEST(TimeText, LargestTimestampDoesNotOverflow) {
    char* text = obx_time_to_string(UINT64_MAX);
    ASSERT_NE(text, nullptr);  // year 586912 still fits
    EXPECT_NE(std::string(text).find(".551"), std::string::npos) << text;
    std::free(text);
}
