// Runs a check in a new copy of the test program. Process-wide state (the logger, the
// rate-limit clocks, the time zone) starts pristine there, and whatever the check
// changes for good, such as registering the logger, cannot leak into other tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace obx_test {

// `body` returns "" on success, else the reason, which gtest shows from the child's stderr.
template <typename Body>
void expect_in_fresh_process(Body body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const std::string why = body();
            std::fprintf(stderr, "%s\n", why.c_str());  // stderr is unbuffered
            _exit(why.empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace obx_test
