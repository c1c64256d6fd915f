#include "utils/version.h"

#include <gtest/gtest.h>

#include <string>

TEST(Version, ProductAndFormatWords) {
    EXPECT_STREQ(obx_version_get_string(), "1.22.1");
    EXPECT_EQ(obx_version_get(), 0x11601u);
    EXPECT_EQ(obx_version_from_string(obx_version_get_string()), obx_version_get());
    EXPECT_STREQ(obx_version_to_string(OBX_FORMAT_VERSION_WORD), "1.7.0");
}

TEST(Version, FromString) {
    struct Row {
        const char* text;
        uint32_t word;
    };
    const Row rows[] = {
        {"1", 0},               // the minor is required
        {"1.5", 0x0501},        // a missing patch is 0
        {"1.5.2", 0x20501},
        {"1.5 .2", 0x20501},    // white space allowed before the second dot
        {"1.5. 2", 0x20501},    // %hu skips blanks itself
        {"1 .5", 0},            // but not before the first
        {"1.22.1", 0x11601},
        {"255.255.65535", 0xFFFFFFFFu},
        {"1.7.0-rc1", 0x0701},  // trailing text is ignored
        {"v1.2", 0},
        {"", 0},
        {nullptr, 0},
    };
    for (const Row& row : rows)
        EXPECT_EQ(obx_version_from_string(row.text), row.word) << (row.text ? row.text : "<null>");
}

TEST(Version, ToStringReusesOneBuffer) {
    const char* first = obx_version_to_string(0x20501);
    EXPECT_STREQ(first, "1.5.2");
    const char* second = obx_version_to_string(0xFFFFFFFFu);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second, "255.255.65535");
}

TEST(Version, CompareIgnoresPatch) {
    struct Row {
        const char* first;
        const char* second;
        int sign;
    };
    const Row rows[] = {
        {"1.2.9", "1.2.1", 0}, {"1.3.0", "1.2.9", 1}, {"1.2.0", "1.10.0", -1},
        {"2.0.0", "1.99.0", 1}, {"1.99.0", "2.0.0", -1},
    };
    for (const Row& row : rows) {
        const int result = obx_version_compare(obx_version_from_string(row.first), obx_version_from_string(row.second));
        EXPECT_EQ((result > 0) - (result < 0), row.sign) << row.first << " vs " << row.second;
    }
}

TEST(Version, Compatibility) {
    struct Row {
        const char* data;
        const char* reader;
        bool compatible;
    };
    const Row rows[] = {
        {"1.0.0", "1.7.0", true},  {"1.7.9", "1.7.0", true},  // patch plays no part
        {"1.8.0", "1.7.0", false}, {"2.0.0", "1.7.0", false}, {"0.7.0", "1.7.0", false},
        {"1.7.0", "2.7.0", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(obx_version_is_compatible(obx_version_from_string(row.data), obx_version_from_string(row.reader)),
                  row.compatible)
            << row.data << " on " << row.reader;
        EXPECT_EQ(obx_version_string_is_compatible(row.data, row.reader), row.compatible) << row.data << " on " << row.reader;
    }
    // Text that gives no version is never compatible, not even with itself.
    EXPECT_FALSE(obx_version_string_is_compatible("1", "1"));
    EXPECT_FALSE(obx_version_string_is_compatible("0.0.0", "0.0.0"));
    EXPECT_FALSE(obx_version_string_is_compatible(nullptr, "1.7.0"));
    EXPECT_FALSE(obx_version_string_is_compatible("1.7.0", "junk"));
}
