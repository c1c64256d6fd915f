#include <gtest/gtest.h>

#include "utils/logger.h"

TEST(Logger, Placeholder) { EXPECT_TRUE(obx_log_enabled(0)); }
