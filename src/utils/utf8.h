// UTF-8 validation by the rules the JSON layer's strings follow (Jansson's): no stray
// continuation bytes, no overlong forms, no surrogates, nothing above U+10FFFF. A zero
// byte counts as a character like any other.
#pragma once

#include <cstddef>

bool obx_utf8_is_valid(const char* text, size_t length);
