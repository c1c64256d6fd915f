#include "utils/version.h"

#include <gtest/gtest.h>

TEST(Version, FromText) {
    const struct { const char* text; uint32_t word; } rows[] = {
        {"1", 0},  // the minor is required
        {"1.5", 0x0501}, {"1.5 .2", 0x20501}, {"1.5. 2", 0x20501},  // blanks before and after the second dot
        {"1 .5", 0}, {"255.255.65535", 0xFFFFFFFFu}, {"1.7.0-rc1", 0x0701}, {"v1.2", 0}, {"", 0}, {nullptr, 0}};
    for (const auto& row : rows) EXPECT_EQ(obx_version_from_string(row.text), row.word) << (row.text ? row.text : "<null>");
}

// Compatible: the data's major equals the reader's and its minor is not newer.
TEST(Version, CompareAndCompatibilityIgnorePatch) {
    const struct { const char* first; const char* second; int sign; bool compatible; } rows[] = {
        {"1.2.9", "1.2.1", 0, true}, {"1.3.0", "1.2.9", 1, false}, {"1.2.0", "1.10.0", -1, true},
        {"1.99.0", "2.0.0", -1, false}, {"0.7.0", "1.7.0", -1, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.first) + " / " + row.second);
        const uint32_t first = obx_version_from_string(row.first), second = obx_version_from_string(row.second);
        const int result = obx_version_compare(first, second);
        EXPECT_EQ((result > 0) - (result < 0), row.sign);
        EXPECT_EQ(obx_version_is_compatible(first, second), row.compatible);
        EXPECT_EQ(obx_version_string_is_compatible(row.first, row.second), row.compatible);
    }
    // Text that gives no version is never compatible, not even with itself.
    EXPECT_FALSE(obx_version_string_is_compatible("1", "1") || obx_version_string_is_compatible("0.0.0", "0.0.0") ||
                 obx_version_string_is_compatible(nullptr, "1.7.0") || obx_version_string_is_compatible("1.7.0", "junk"));
}
