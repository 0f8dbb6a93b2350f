#pragma once
// The string of 16-bit units that holds all user-visible text.
#include <string>

typedef std::basic_string<char16_t> ustring;
