// The record of how this obx_read was built, printed by -V.
#pragma once

// Build time, product version and source revision, then one line per component that
// went into the build. Lines are separated by '\n', with none after the last.
const char* obx_build_info(void);
