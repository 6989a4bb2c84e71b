#pragma once

#include <string_view>

// What each fuzz target defines: takes any bytes whatever, and neither crashes nor throws.
void fuzz(std::string_view input);
