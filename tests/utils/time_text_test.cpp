#include "utils/time_text.h"

#include <gtest/gtest.h>
#include <time.h>

#include "fresh_process.h"

// In a fresh process set to Kolkata, 5:30 ahead of UTC, so that a UTC rendering is caught as well.
TEST(TimeText, LocalTimeWithMillisecondsCutNotRounded) {
    obx_test::expect_in_fresh_process([]() -> std::string {
        setenv("TZ", "Asia/Kolkata", 1);
        tzset();
        const struct { uint64_t micros; const char* text; } rows[] = {
            {0, "1970-01-01 05:30:00.000"}, {1500999, "1970-01-01 05:30:01.500"},
            {1999999, "1970-01-01 05:30:01.999"},  // not rounded up into the next second
            {1709280930125000ull, "2024-03-01 13:45:30.125"}};
        char buffer[24];  // 23 characters and the terminator
        for (const auto& row : rows) {
            char* text = obx_time_to_string(row.micros);
            const bool same = text && std::string(text) == row.text && obx_time_to_string_into(row.micros, buffer, 24) &&
                              std::string(buffer) == row.text && !obx_time_to_string_into(row.micros, buffer, 23);
            std::free(text);
            if (!same) return std::to_string(row.micros) + " is not shown as " + row.text;
        }
        char* largest = obx_time_to_string(UINT64_MAX);  // year 586912 still fits
        const std::string text = largest ? largest : "<null>";
        std::free(largest);
        if (obx_time_to_string_into(0, nullptr, 32) || obx_time_to_string_into(0, buffer, 0)) return "a bad buffer was taken";
        return text.find(".551") != std::string::npos ? "" : "the largest time is shown as " + text;
    });
}
