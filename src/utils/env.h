// Settings read from the environment under two names: OBX_<NAME> and the bare <NAME>.
#pragma once

// Looks up "OBX_" + name and name; the prefixed one wins, a conflict is logged.
// Returns the value, or nullptr when neither is set.
const char* obx_getenv(const char* name);

// A value is true when non-empty and its first character, lower-cased, is '1', 't' or 'y'.
bool obx_env_value_is_true(const char* value);
