#include "utils/text.h"

#include <gtest/gtest.h>

// The arguments are read twice, once to size the text and once to write it.
TEST(Text, FormatMakesANewText) {
    char* text = obx_string_format("<%s:%d>", std::string(300, 'z').c_str(), 7);
    EXPECT_EQ(std::string(text ? text : "<null>"), "<" + std::string(300, 'z') + ":7>");
    std::free(text);
}
