#include "utils/time_text.h"

#include <gtest/gtest.h>
#include <time.h>

#include <memory>

// Set to Kolkata, 5:30 ahead of UTC, so that a UTC rendering is caught as well. Both forms
// must agree; the buffer form needs room for 23 characters and the terminator.
TEST(TimeText, LocalTimeWithMillisecondsCutNotRounded) {
    using Text = std::unique_ptr<char, decltype(&std::free)>;
    const char* const old_zone = std::getenv("TZ");
    const std::string saved = old_zone ? old_zone : "";
    setenv("TZ", "Asia/Kolkata", 1), tzset();
    const std::pair<uint64_t, const char*> rows[] = {{0, "1970-01-01 05:30:00.000"}, {1999999, "1970-01-01 05:30:01.999"},
                                                     {1709280930125000ull, "2024-03-01 13:45:30.125"}};
    char buffer[24];
    for (const auto& [micros, expected] : rows) {
        EXPECT_STREQ(Text(obx_time_to_string(micros), std::free).get(), expected);
        EXPECT_TRUE(obx_time_to_string_into(micros, buffer, 24) && std::string(buffer) == expected &&
                    !obx_time_to_string_into(micros, buffer, 23)) << buffer;
    }
    const Text largest(obx_time_to_string(UINT64_MAX), std::free);  // year 586912 still fits
    EXPECT_NE(std::string(largest ? largest.get() : "").find(".551"), std::string::npos);
    EXPECT_FALSE(obx_time_to_string_into(0, nullptr, 32) || obx_time_to_string_into(0, buffer, 0));
    old_zone ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ"), tzset();
}
